// What the page's files use elsewhere, and references that only match a name.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "needs.hpp"

namespace scope {

// Distinct target paths, in first-seen order, of the outbound references
// whose target lies outside the page: the paths whose test status the
// neighbours need.
inline constexpr Needs kOutsideTargetNeeds{.outbound = bit(out_f::target_path), .path_bits = path_bit::in_page};
std::vector<StrId> outside_target_paths(const FactsView& view);

struct Neighbour {
  std::uint32_t row;   // outbound row of the last counted reference to the target
  std::int64_t count;  // summed refs
};

// The declarations outside the page (and outside the paths `is_test` marks,
// by StrId) that the page uses most, highest count first, then fqn
// ascending, then first counted. A name match to an attribute or a constant
// is no use. At most `limit`.
inline constexpr Needs kNeighbourNeeds =
    kOutsideTargetNeeds | Needs{.outbound = bits(out_f::resolution, out_f::refs, out_f::target_id,
                                                 out_f::target_kind, out_f::target_fqn)};
std::vector<Neighbour> neighbours(const FactsView& view, const Vocab& vocab, const std::vector<bool>& is_test,
                                  std::int64_t limit);

// "unique" references to attributes and constants per (source path, target
// path): inbound first, then outbound, every file included; pairs in
// first-counted order.
struct PathPairCount {
  StrId source, target;
  std::int64_t count;
};
inline constexpr Needs kNameMatchNeeds{
    .inbound = bits(in_f::source_path, in_f::target_path, in_f::target_kind, in_f::resolution, in_f::refs),
    .outbound = bits(out_f::source_path, out_f::resolution, out_f::refs, out_f::target_path, out_f::target_kind)};
std::vector<PathPairCount> name_match_counts(const FactsView& view, const Vocab& vocab);

}  // namespace scope
