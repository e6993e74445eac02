// The consumers section: who uses the page from outside, from evidence only,
// and which public top-level types and callables nothing outside uses.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "evidence.hpp"
#include "needs.hpp"
#include "ranking.hpp"

namespace scope {

// Rows of the public, exported, top-level types and callables whose slot is
// not `used`: types first, then best first by rank key, then path.
inline constexpr Needs kUnusedNeeds = kRankKeyNeeds | kPublicTopLevelNeeds | Needs{.symbols = bit(sym_f::path)};
// Only the first `ordered` rows are in that order when fewer than all are
// wanted; the others follow them in no particular order.
std::vector<Row> unused_outside(const FactsView& view, const Vocab& vocab, const std::vector<bool>& used,
                                const FanInSlots& fan_in, std::size_t ordered = SIZE_MAX);

// What the references from production files outside the page say.
struct ConsumerCounts {
  // Per consumer file, in first-counted order: its path and the summed refs
  // of its counted references.
  std::vector<StrId> path;
  std::vector<std::int64_t> total;
  // The counted references: rows, and their consumers.
  std::vector<Row> counted;
  std::vector<std::uint32_t> counted_consumer;
  std::vector<bool> used;  // by slot: reached by some counted reference
  // References that are no evidence: summed refs by resolution (resolutions
  // in first-seen order), and how many files they come from.
  std::vector<StrId> left_resolutions;
  std::vector<std::int64_t> left_refs;  // by StrId
  std::size_t left_files = 0;
};
// The counts of the view's inbound references as the derived terms say.
ConsumerCounts count_consumers(const FactsView& view);

// The whole section as Markdown (UTF-8), ending in one line feed, from the
// view's consumer counts.
inline constexpr Needs kConsumersNeeds =
    kUnusedNeeds |
    Needs{.files = bits(file_f::path, file_f::language),
          .symbols = bit(sym_f::start_line),
          .inbound = bits(in_f::source_path, in_f::target_id, in_f::target_name, in_f::resolution, in_f::refs),
          .derived = derived::inbound_uses};
std::string render_consumers(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in,
                             const ConsumerCounts& counts, std::string_view heading);

}  // namespace scope
