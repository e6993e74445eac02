// The file cards table: one row per page file (size, summary, most used
// declarations, production users, tests that reach it).
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "evidence.hpp"
#include "markdown.hpp"
#include "needs.hpp"
#include "rules.hpp"

namespace scope {

// One item per used declaration of `rows`, most used first: uses from
// outside the page, or, when none of them has any, uses from the page's own
// files labelled "in-page ". At most `limit` items are written; `count`
// gets how many there are.
inline constexpr Needs kMostUsedNeeds{.symbols = bits(sym_f::id, sym_f::name, sym_f::start_line)};
std::vector<std::string> most_used(const FactsView& view, const FanInSlots& fan_in, std::span<const Row> rows,
                                   std::size_t limit, std::size_t& count);

// The names of one cell as the host gave them: those a slice [:kCardNames]
// gave, and how many there are in all.
struct NameList {
  std::vector<std::string> head;
  std::size_t total = 0;
};

// The file cards table. `tests` holds the names of the tests that reach each
// page file, by row of `files` (empty total: none).
inline constexpr Needs kCardsNeeds =
    kFileUsersNeeds | kMostUsedNeeds |
    Needs{.files = bit(file_f::path), .line_counts = true, .summaries = true, .derived = derived::by_path};
std::string render_file_cards(const FactsView& view, const FileUsers& users, const FanInSlots& fan_in,
                              std::string_view heading, std::span<const std::string> missing,
                              std::span<const NameList> tests);

}  // namespace scope
