// Markdown helpers: a short path, a table cell, a list of names cut to a
// limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

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

}  // namespace scope
