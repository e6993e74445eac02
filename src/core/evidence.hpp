// Use evidence and the production fan-in: which references count as uses of
// the page's declarations, from where, which declarations are entry points,
// and which files use each page file.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
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
  std::int64_t outside_of(Slot slot) const { return index(slot) < outside.size() ? outside[index(slot)] : 0; }
  std::int64_t inside_of(Slot slot) const { return index(slot) < inside.size() ? inside[index(slot)] : 0; }
  bool entry_of(Slot slot) const { return index(slot) < entry.size() && entry[index(slot)] != 0; }
  bool api(Slot slot) const {
    return is_api([&] { return outside_of(slot) > 0; }, [&] { return entry_of(slot); });
  }
};

// Whether the declaration at `row` is a public top-level type or callable.
inline constexpr Needs kPublicTopLevelNeeds{.symbols = bits(sym_f::kind, sym_f::is_export, sym_f::name),
                                            .derived = derived::members};
inline bool public_top_level(const FactsView& view, const Vocab& vocab, Row row) {
  const Table& symbols = view.symbols;
  return is_public_top_level(vocab.has(symbols.str(sym_f::kind, row), vocab_bit::callable | vocab_bit::type),
                             symbols.flag(sym_f::is_export, row), view.pool.text(symbols.str(sym_f::name, row)),
                             view.derived.member[index(row)]);
}

// The counting half of the production fan-in.
struct FanInCounts {
  FanInSlots uses;                  // entry all zeros: the entry points are found apart
  std::vector<Slot> outside_order;  // in first-counted order
  std::vector<Slot> inside_order;
  std::vector<bool> referenced;  // by slot: named by production code (not a legacy resolution)
};
inline constexpr Needs kCountFanInNeeds{.inbound = bits(in_f::target_id, in_f::refs),
                                        .derived = derived::inbound_terms};
FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab);

// Rows of the declarations that pass every entry-point test but the path
// filter, in symbols order: public, exported, top-level callables and types
// that no production code references.
inline constexpr Needs kEntryCandidateNeeds = kPublicTopLevelNeeds | Needs{.symbols = bit(sym_f::id)};
std::vector<Row> entry_candidates(const FactsView& view, const Vocab& vocab, const std::vector<bool>& referenced);

// The entry points: the candidates outside test files, `is_test_path(path)`
// being asked last, and only about the candidates' paths.
inline constexpr Needs kFanInNeeds = kCountFanInNeeds | kEntryCandidateNeeds | Needs{.symbols = bit(sym_f::path)};
template <class IsTestPath>
std::vector<Row> entry_points(const FactsView& view, const Vocab& vocab, const FanInCounts& counts,
                              IsTestPath is_test_path) {
  std::vector<Row> rows;
  for (Row row : entry_candidates(view, vocab, counts.referenced))
    if (!is_test_path(view.symbols.str(sym_f::path, row))) rows.push_back(row);
  return rows;
}

// The production files that use each page file through evidence, with their
// summed refs: per target path in first-counted order, the users of each in
// the order of their first counted reference. A file nobody else uses has
// no entry.
struct FileUsers {
  std::vector<StrId> target;                          // by entry
  std::vector<std::uint32_t> start;                   // by entry, plus the end
  std::vector<std::pair<StrId, std::int64_t>> users;  // entries one after another
  std::vector<std::uint32_t> entry_of;                // by target path StrId; kNoPosition: no entry

  std::span<const std::pair<StrId, std::int64_t>> of(std::size_t entry) const {
    return {users.data() + start[entry], users.data() + start[entry + 1]};
  }
};
inline constexpr Needs kFileUsersNeeds{.inbound = bits(in_f::source_path, in_f::target_path, in_f::refs),
                                       .derived = derived::inbound_uses};
FileUsers file_users(const FactsView& view, const Vocab& vocab);

}  // namespace scope
