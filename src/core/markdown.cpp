#include "markdown.hpp"

#include <algorithm>

namespace scope {

namespace {

// Decimal digits of a count that may not fit in 64 bits (a list's length
// minus a very negative limit).
std::string decimal(unsigned __int128 value) {
  char digits[40];
  char* end = digits + sizeof digits;
  char* at = end;
  do {
    *--at = static_cast<char>('0' + static_cast<int>(value % 10));
    value /= 10;
  } while (value != 0);
  return std::string(at, end);
}

}  // namespace

std::string short_path(std::string_view path) {
  std::size_t last = path.rfind('/');
  // No "/" at all, or only a leading one: fewer than three segments.
  if (last == std::string_view::npos || last == 0) return std::string(path);
  std::size_t before = path.rfind('/', last - 1);
  return std::string(before == std::string_view::npos ? path : path.substr(before + 1));
}

std::string cell(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '|') {
      out += "\\|";
    } else if (c == '\n') {
      out += ' ';
    } else {
      out += c;
    }
  }
  return out;
}

std::size_t named_shown(std::size_t total, std::int64_t limit) {
  if (limit >= 0) return std::min(total, static_cast<std::size_t>(limit));
  std::uint64_t from_end = 0 - static_cast<std::uint64_t>(limit);
  return from_end >= total ? 0 : total - from_end;
}

std::string named(std::span<const std::string> shown, std::size_t total, std::int64_t limit) {
  std::string out;
  for (std::size_t i = 0; i < shown.size(); ++i) {
    if (i) out += ", ";
    out += shown[i];
  }
  if (limit < 0 || total > static_cast<std::size_t>(limit)) {
    out += " +";
    out += decimal(static_cast<unsigned __int128>(static_cast<__int128>(total) - limit));
  }
  return out;
}

}  // namespace scope
