// What the page's files use elsewhere, and references that only match a name.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "needs.hpp"

namespace scope {

struct Neighbour {
  Row row;             // outbound row of the last counted reference to the target
  std::int64_t count;  // summed refs
  StrId path;          // the target's path
};

// The declarations outside the page that the page uses, best first: highest
// count first, then fqn ascending, then first counted. A name match to an
// attribute or a constant is no use. Which targets lie in test files is the
// host's to say, so the ranking is taken one target at a time (`next`): the
// caller skips those in test files and stops when it has enough, asking its
// path filter only about the paths it meets.
class NeighbourRanking {
 public:
  explicit NeighbourRanking(const FactsView& view);
  // The next best target; false when there is none left.
  bool next(Neighbour& neighbour);

 private:
  bool later(std::uint32_t a, std::uint32_t b) const;
  const FactsView& view_;
  std::vector<std::int64_t> sums_;   // by target
  std::vector<Row> last_;            // by target: the last counted row
  std::vector<std::uint32_t> heap_;  // targets, in first-counted order before the heap is made
};
inline constexpr Needs kNeighbourNeeds{.outbound = bits(out_f::refs, out_f::target_id, out_f::target_fqn),
                                       .derived = derived::outbound_terms};

// The first `limit` neighbours outside test files. The path filter is asked
// about the paths of the best targets only, each path once, until enough
// are found: it is a pure function of the path, and a test file's targets
// take no place.
template <class IsTestPath>
std::vector<Neighbour> neighbours(const FactsView& view, std::int64_t limit, IsTestPath is_test_path) {
  std::vector<Neighbour> kept;
  if (limit <= 0) return kept;
  NeighbourRanking ranking(view);
  std::vector<std::int8_t> test(view.pool.size(), -1);  // by path: unknown, no, yes
  Neighbour next{};
  while (static_cast<std::int64_t>(kept.size()) < limit && ranking.next(next)) {
    std::int8_t& in_test = test[index(next.path)];
    if (in_test < 0) in_test = is_test_path(next.path) ? 1 : 0;
    if (!in_test) kept.push_back(next);
  }
  return kept;
}

// Name matches (is_name_match) per (source path, target
// path): inbound first, then outbound, every file included; pairs in
// first-counted order.
struct PathPairCount {
  StrId source, target;
  std::int64_t count;
};
inline constexpr Needs kNameMatchNeeds{.inbound = bits(in_f::source_path, in_f::target_path, in_f::refs),
                                       .outbound = bits(out_f::source_path, out_f::target_path, out_f::refs),
                                       .derived = derived::inbound_terms | derived::outbound_terms};
std::vector<PathPairCount> name_match_counts(const FactsView& view);

}  // namespace scope
