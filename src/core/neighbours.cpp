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
  const auto path = out.strs(out_f::target_path), resolution = out.strs(out_f::resolution);
  const auto kind = out.strs(out_f::target_kind);
  const auto target = out.ints(out_f::target_id), refs = out.ints(out_f::refs);
  const auto words = vocab.reader();
  const auto paths = view.path_reader();
  // By slot: the summed refs and the last counted row; slots in first-counted order.
  std::vector<std::int64_t> sums(view.ids.size(), 0);
  std::vector<std::uint32_t> last(view.ids.size(), Groups::kNone);
  std::vector<std::uint32_t> order;
  for (std::size_t row = 0; row < out.rows(); ++row) {
    if (paths.has(path[row], path_bit::in_page) || (path[row] < is_test.size() && is_test[path[row]])) continue;
    // A non-evidence edge to an attribute or a constant only matches a name.
    if (!words.has(resolution[row], vocab_bit::evidence) && words.has(kind[row], vocab_bit::name_match)) continue;
    const auto slot = static_cast<std::uint32_t>(target[row]);
    if (last[slot] == Groups::kNone) order.push_back(slot);
    sums[slot] = checked_add(sums[slot], refs[row]);
    last[slot] = static_cast<std::uint32_t>(row);
  }
  // The first `limit` of a stable sort by (count descending, fqn): with the
  // first-counted position as the last key the order is total, so a partial
  // sort gives them.
  std::vector<std::uint32_t> ranked(order.size());
  for (std::uint32_t i = 0; i < ranked.size(); ++i) ranked[i] = i;
  const auto fqn = out.strs(out_f::target_fqn);
  auto before = [&](std::uint32_t a, std::uint32_t b) {
    const std::int64_t ca = sums[order[a]], cb = sums[order[b]];
    if (ca != cb) return ca > cb;
    const StrId fa = fqn[last[order[a]]], fb = fqn[last[order[b]]];
    if (fa != fb) {
      const std::string_view ta = view.pool.text(fa), tb = view.pool.text(fb);
      if (ta != tb) return ta < tb;
    }
    return a < b;
  };
  const std::size_t kept = std::min<std::uint64_t>(static_cast<std::uint64_t>(limit), ranked.size());
  std::partial_sort(ranked.begin(), ranked.begin() + static_cast<std::ptrdiff_t>(kept), ranked.end(), before);
  std::vector<Neighbour> result;
  result.reserve(kept);
  for (std::size_t i = 0; i < kept; ++i) result.push_back({last[order[ranked[i]]], sums[order[ranked[i]]]});
  return result;
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
