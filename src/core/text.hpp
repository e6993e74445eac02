// Markdown text: the table-cell helpers, the users of each page file and the
// file cards table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "evidence.hpp"
#include "needs.hpp"
#include "rules.hpp"

namespace scope {

// The last two "/"-separated segments of a path (empty segments count).
std::string short_path(std::string_view path);
// Text safe inside one table cell: "|" escaped, line feeds made spaces.
std::string cell(std::string_view text);

// How many of `total` names a slice [:limit] keeps. A negative limit counts
// from the end, as a slice of the list would.
std::size_t named_shown(std::size_t total, std::int64_t limit);
// The `shown` names joined by ", ", then " +N" when a list of `total` names
// is longer than `limit`, N being `total` minus `limit`. `shown` is what a
// slice [:limit] of the list gave.
std::string named(std::span<const std::string> shown, std::size_t total, std::int64_t limit);
// The same for a whole list.
inline std::string named(std::span<const std::string> names, std::int64_t limit) {
  return named(names.first(named_shown(names.size(), limit)), names.size(), limit);
}

// The production files that use each page file through evidence, with their
// summed refs: per target path in first-counted order, the users of each in
// the order of their first counted reference. A file nobody else uses has
// no entry.
struct FileUsers {
  std::vector<StrId> target;                          // by entry
  std::vector<std::uint32_t> start;                   // by entry, plus the end
  std::vector<std::pair<StrId, std::int64_t>> users;  // entries one after another
  std::vector<std::uint32_t> entry_of;                // by target path StrId; kNone: no entry

  static constexpr std::uint32_t kNone = 0xffffffffu;
  std::span<const std::pair<StrId, std::int64_t>> of(std::size_t entry) const {
    return {users.data() + start[entry], users.data() + start[entry + 1]};
  }
};
inline constexpr Needs kFileUsersNeeds{.inbound = bits(in_f::source_path, in_f::target_path, in_f::refs),
                                       .derived = derived::inbound_uses};
FileUsers file_users(const FactsView& view, const Vocab& vocab);

// One item per used declaration of `rows`, most used first: uses from
// outside the page, or, when none of them has any, uses from the page's own
// files labelled "in-page ". At most `limit` items are written; `count`
// gets how many there are.
inline constexpr Needs kMostUsedNeeds{.symbols = bits(sym_f::id, sym_f::name, sym_f::start_line)};
std::vector<std::string> most_used(const FactsView& view, const FanInSlots& fan_in, std::span<const std::uint32_t> rows,
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
