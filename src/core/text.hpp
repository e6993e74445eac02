// Markdown text: the table-cell helpers, the users of each page file and the
// file cards table.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "counter.hpp"
#include "view.hpp"

namespace scope {

inline constexpr std::int64_t kCardNames = 3;

// The last two "/"-separated segments of a path (empty segments count).
std::string short_path(std::string_view path);
// Text safe inside one table cell: "|" escaped, line feeds made spaces.
std::string cell(std::string_view text);
// The first `limit` names joined by ", ", then " +N" for the N left out. A
// negative limit counts from the end, as a slice of the list would.
std::string named(const std::vector<std::string>& names, std::int64_t limit);

// Per page file (target path), in first-counted order, the production files
// that use it through evidence, with their summed refs. Needs inbound
// source_path, target_path, target_kind, resolution, refs and the
// import_resolved and test_source bits.
using FileUsers = std::vector<std::pair<StrId, OrderedCounter<StrId>>>;
FileUsers file_users(const FactsView& view, const Vocab& vocab);

// One item per used declaration of `rows` (rows of `table`), most used first:
// uses from outside the page, or, when none of them has any, uses from the
// page's own files labelled "in-page ". Needs id, name, start_line.
std::vector<std::string> most_used(const StringPool& pool, const Table& table, const std::vector<std::size_t>& rows,
                                   const FanInView& fan_in);

// The file cards table. `tests` holds the test names shown for each page file.
// Needs files path, symbols path, id, name, start_line, the line counts, the
// summaries and what file_users needs.
std::string render_file_cards(const FactsView& view, const Vocab& vocab, const FanInView& fan_in,
                              std::string_view heading, const std::vector<std::string_view>& missing,
                              const std::unordered_map<StrId, std::vector<std::string>>& tests);

}  // namespace scope
