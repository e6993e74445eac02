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
std::vector<Row> unused_outside(const FactsView& view, const Vocab& vocab, const std::vector<bool>& used,
                                const FanInSlots& fan_in);

// The whole section as Markdown (UTF-8), ending in one line feed.
inline constexpr Needs kConsumersNeeds =
    kUnusedNeeds |
    Needs{.files = bits(file_f::path, file_f::language),
          .symbols = bit(sym_f::start_line),
          .inbound = bits(in_f::source_path, in_f::target_id, in_f::target_name, in_f::resolution, in_f::refs),
          .derived = derived::inbound_uses};
std::string render_consumers(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in,
                             std::string_view heading);

}  // namespace scope
