// Markdown text: the table-cell helpers, the users of each page file and the
// file cards table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "counter.hpp"
#include "view.hpp"

namespace scope {

// How many names one cell of a file card shows.
inline constexpr std::int64_t kCardNames = 3;

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

// The production files that use one page file (`target`) through evidence,
// with their summed refs, in the order of their first counted reference.
struct FileUsers {
  StrId target;
  std::vector<std::pair<StrId, std::int64_t>> users;
};
// Per page file, in first-counted order; a file nobody else uses has no
// entry. Needs inbound source_path, target_path, target_kind, resolution,
// refs and the import_resolved and test_source bits.
std::vector<FileUsers> file_users(const FactsView& view, const Vocab& vocab);

// One item per used declaration of `rows` (rows of `table`), most used first:
// uses from outside the page, or, when none of them has any, uses from the
// page's own files labelled "in-page ". Needs id, name, start_line.
std::vector<std::string> most_used(const StringPool& pool, const Table& table, std::span<const std::size_t> rows,
                                   const FanInView& fan_in);

// The names of one cell as the host gave them: those a slice [:kCardNames]
// gave, and how many there are in all.
struct NameList {
  std::vector<std::string> head;
  std::size_t total = 0;
};

// The file cards table. `tests` holds the names of the tests that reach each
// page file (by path). Needs files path, symbols path, id, name, start_line,
// the line counts, the summaries and what file_users needs.
std::string render_file_cards(const FactsView& view, const Vocab& vocab, const FanInView& fan_in,
                              std::string_view heading, std::span<const std::string> missing,
                              const std::unordered_map<StrId, NameList>& tests);

}  // namespace scope
