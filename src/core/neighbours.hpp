// What the page's files use elsewhere, and references that only match a name.
#pragma once

#include <cstdint>
#include <unordered_set>
#include <utility>
#include <vector>

#include "counter.hpp"
#include "view.hpp"

namespace scope {

// Distinct target paths, in first-seen order, of the outbound references
// whose target lies outside the page: the paths whose test status the
// neighbours need. Needs outbound target_path and the in_page bits.
std::vector<StrId> outside_target_paths(const FactsView& view);

struct Neighbour {
  std::size_t row;     // outbound row of the last counted reference to the target
  std::int64_t count;  // summed refs
};

// The declarations outside the page (and outside `test_paths`) that the page
// uses most, highest count first, then fqn ascending, then first counted.
// A name match to an attribute or a constant is no use. At most `limit`.
// Needs outbound resolution, refs, target_id, target_path, target_kind,
// target_fqn and the in_page bits.
std::vector<Neighbour> neighbours(const FactsView& view, const Vocab& vocab,
                                  const std::unordered_set<StrId>& test_paths, std::int64_t limit);

struct PathPairHash {
  std::size_t operator()(const std::pair<StrId, StrId>& pair) const {
    return std::hash<std::uint64_t>()((std::uint64_t{pair.first} << 32) | pair.second);
  }
};
using PathPairCounter = OrderedCounter<std::pair<StrId, StrId>, PathPairHash>;

// "unique" references to attributes and constants per (source path, target
// path): inbound first, then outbound, every file included.
PathPairCounter name_match_counts(const FactsView& view, const Vocab& vocab);

}  // namespace scope
