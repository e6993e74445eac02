#include "neighbours.hpp"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace scope {

std::vector<StrId> outside_target_paths(const FactsView& view) {
  const Table& out = view.outbound;
  std::vector<StrId> paths;
  std::unordered_set<StrId> seen;
  for (std::size_t row = 0; row < out.rows; ++row) {
    StrId path = out.str(out_f::target_path, row);
    if (!view.path_has(path, path_bit::in_page) && seen.insert(path).second) paths.push_back(path);
  }
  return paths;
}

std::vector<Neighbour> neighbours(const FactsView& view, const Vocab& vocab,
                                  const std::unordered_set<StrId>& test_paths, std::int64_t limit) {
  if (limit <= 0) return {};
  const Table& out = view.outbound;
  OrderedCounter<std::int64_t> counts;
  std::unordered_map<std::int64_t, std::size_t> last_row;
  for (std::size_t row = 0; row < out.rows; ++row) {
    StrId path = out.str(out_f::target_path, row);
    if (view.path_has(path, path_bit::in_page) || test_paths.count(path)) continue;
    // A non-evidence edge to an attribute or a constant only matches a name.
    if (!vocab.has(out.str(out_f::resolution, row), vocab_bit::evidence) &&
        vocab.has(out.str(out_f::target_kind, row), vocab_bit::name_match))
      continue;
    std::int64_t id = out.num(out_f::target_id, row);
    counts.add(id, out.num(out_f::refs, row));
    last_row[id] = row;
  }
  std::vector<Neighbour> ranked;
  ranked.reserve(counts.size());
  for (const auto& [id, count] : counts.entries()) ranked.push_back({last_row[id], count});
  std::stable_sort(ranked.begin(), ranked.end(), [&](const Neighbour& a, const Neighbour& b) {
    if (a.count != b.count) return a.count > b.count;
    return view.pool.text(out.str(out_f::target_fqn, a.row)) < view.pool.text(out.str(out_f::target_fqn, b.row));
  });
  if (static_cast<std::uint64_t>(limit) < ranked.size()) ranked.resize(static_cast<std::size_t>(limit));
  return ranked;
}

PathPairCounter name_match_counts(const FactsView& view, const Vocab& vocab) {
  PathPairCounter counts;
  const Table& in = view.inbound;
  for (std::size_t row = 0; row < in.rows; ++row) {
    if (vocab.has(in.str(in_f::resolution, row), vocab_bit::unique) &&
        vocab.has(in.str(in_f::target_kind, row), vocab_bit::name_match))
      counts.add({in.str(in_f::source_path, row), in.str(in_f::target_path, row)}, in.num(in_f::refs, row));
  }
  const Table& out = view.outbound;
  for (std::size_t row = 0; row < out.rows; ++row) {
    if (vocab.has(out.str(out_f::resolution, row), vocab_bit::unique) &&
        vocab.has(out.str(out_f::target_kind, row), vocab_bit::name_match))
      counts.add({out.str(out_f::source_path, row), out.str(out_f::target_path, row)}, out.num(out_f::refs, row));
  }
  return counts;
}

}  // namespace scope
