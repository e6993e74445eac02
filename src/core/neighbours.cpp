#include "neighbours.hpp"

#include <algorithm>

#include "rules.hpp"

namespace scope {

std::vector<StrId> outside_target_paths(const FactsView& view) {
  const Table& out = view.outbound;
  std::vector<StrId> paths;
  std::vector<bool> seen(view.pool.size(), false);
  for (std::size_t row = 0; row < out.rows(); ++row) {
    const StrId path = out.str(out_f::target_path, row);
    if (view.path_has(path, path_bit::in_page) || seen[path]) continue;
    seen[path] = true;
    paths.push_back(path);
  }
  return paths;
}

std::vector<Neighbour> neighbours(const FactsView& view, const Vocab& vocab, const std::vector<bool>& is_test,
                                  std::int64_t limit) {
  if (limit <= 0) return {};
  const Table& out = view.outbound;
  const std::vector<std::uint32_t>& slot_of = view.derived.outbound_slot;
  // By slot: the summed refs and the last counted row; slots in first-counted order.
  std::vector<std::int64_t> sums(view.derived.ids.size(), 0);
  std::vector<std::uint32_t> last(view.derived.ids.size(), Groups::kNone);
  std::vector<std::uint32_t> order;
  for (std::size_t row = 0; row < out.rows(); ++row) {
    const StrId path = out.str(out_f::target_path, row);
    if (view.path_has(path, path_bit::in_page) || (path < is_test.size() && is_test[path])) continue;
    // A non-evidence edge to an attribute or a constant only matches a name.
    if (!vocab.has(out.str(out_f::resolution, row), vocab_bit::evidence) &&
        vocab.has(out.str(out_f::target_kind, row), vocab_bit::name_match))
      continue;
    const std::uint32_t slot = slot_of[row];
    if (last[slot] == Groups::kNone) order.push_back(slot);
    sums[slot] = checked_add(sums[slot], out.num(out_f::refs, row));
    last[slot] = static_cast<std::uint32_t>(row);
  }
  std::vector<Neighbour> ranked;
  ranked.reserve(order.size());
  for (std::uint32_t slot : order) ranked.push_back({last[slot], sums[slot]});
  std::stable_sort(ranked.begin(), ranked.end(), [&](const Neighbour& a, const Neighbour& b) {
    if (a.count != b.count) return a.count > b.count;
    return view.pool.text(out.str(out_f::target_fqn, a.row)) < view.pool.text(out.str(out_f::target_fqn, b.row));
  });
  if (static_cast<std::uint64_t>(limit) < ranked.size()) ranked.resize(static_cast<std::size_t>(limit));
  return ranked;
}

std::vector<PathPairCount> name_match_counts(const FactsView& view, const Vocab& vocab) {
  std::vector<PathPairCount> counts;
  DenseIndex pairs;
  auto add = [&](const Table& table, unsigned source, unsigned target, unsigned kind, unsigned resolution,
                 unsigned refs) {
    for (std::size_t row = 0; row < table.rows(); ++row) {
      if (!vocab.has(table.str(resolution, row), vocab_bit::unique) ||
          !vocab.has(table.str(kind, row), vocab_bit::name_match))
        continue;
      const StrId from = table.str(source, row), to = table.str(target, row);
      auto [pair, fresh] = pairs.insert((std::uint64_t{from} << 32) | to);
      if (fresh) counts.push_back({from, to, 0});
      counts[pair].count = checked_add(counts[pair].count, table.num(refs, row));
    }
  };
  add(view.inbound, in_f::source_path, in_f::target_path, in_f::target_kind, in_f::resolution, in_f::refs);
  add(view.outbound, out_f::source_path, out_f::target_path, out_f::target_kind, out_f::resolution, out_f::refs);
  return counts;
}

}  // namespace scope
