// Use evidence and the production fan-in: which references count as uses of
// the page's declarations, from where, and which declarations are entry
// points.
#pragma once

#include <cstdint>
#include <vector>

#include "needs.hpp"
#include "rules.hpp"
#include "view.hpp"

namespace scope {

// A fan-in as the algorithms read it: uses and entry points by slot (see
// FactsView::ids). Slots numbered after it was made have no uses.
struct FanInSlots {
  std::vector<std::int64_t> outside, inside;
  std::vector<std::uint8_t> entry;

  explicit FanInSlots(std::size_t slots = 0) : outside(slots, 0), inside(slots, 0), entry(slots, 0) {}
  std::int64_t outside_of(std::uint32_t slot) const { return slot < outside.size() ? outside[slot] : 0; }
  std::int64_t inside_of(std::uint32_t slot) const { return slot < inside.size() ? inside[slot] : 0; }
  bool entry_of(std::uint32_t slot) const { return slot < entry.size() && entry[slot] != 0; }
  bool api(std::uint32_t slot) const {
    return is_api([&] { return outside_of(slot) > 0; }, [&] { return entry_of(slot); });
  }
};

// The counting half of the production fan-in.
struct FanInCounts {
  FanInSlots uses;                           // entry is left empty
  std::vector<std::uint32_t> outside_order;  // slots in first-counted order
  std::vector<std::uint32_t> inside_order;
  std::vector<bool> referenced;  // by slot: named by production code (not "legacy")
};
inline constexpr Needs kCountFanInNeeds{.inbound = bits(in_f::target_id, in_f::refs),
                                        .derived = derived::inbound_terms};
FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab);

// Rows of the declarations that pass every entry-point test but the path
// filter, in symbols order: public, exported, top-level callables and types
// that no production code references.
inline constexpr Needs kEntryCandidateNeeds{.symbols = bits(sym_f::id, sym_f::kind, sym_f::is_export, sym_f::name),
                                            .derived = derived::members};
std::vector<std::uint32_t> entry_candidates(const FactsView& view, const Vocab& vocab,
                                            const std::vector<bool>& referenced);

// The entry points: the candidates outside test files, `is_test_path(path)`
// being asked last, and only about the candidates' paths.
inline constexpr Needs kFanInNeeds = kCountFanInNeeds | kEntryCandidateNeeds | Needs{.symbols = bit(sym_f::path)};
template <class IsTestPath>
std::vector<std::uint32_t> entry_points(const FactsView& view, const Vocab& vocab, const FanInCounts& counts,
                                        IsTestPath is_test_path) {
  std::vector<std::uint32_t> rows;
  for (std::uint32_t row : entry_candidates(view, vocab, counts.referenced))
    if (!is_test_path(view.symbols.str(sym_f::path, row))) rows.push_back(row);
  return rows;
}

}  // namespace scope
