#include "text.hpp"

#include <algorithm>
#include <numeric>

#include "evidence.hpp"

namespace scope {

namespace {

constexpr std::string_view kCardsParagraph =
    "Every file of this page, from the index. Lines and the summary come from the file; the most used "
    "declarations are ranked by the references production code outside the page makes to them (line, "
    "references; `in-page` when only the page's own files use them); users are the other production files "
    "that reference the file through evidence-backed edges.";
constexpr std::string_view kCardsHeader = "| File | Lines | Declarations | Summary | Most used | Used by | Tests |";
constexpr std::string_view kCardsSeparator = "|---|---|---|---|---|---|---|";
constexpr std::string_view kMissingCells = "` | ? | 0 | not in the index | | | |\n";

constexpr std::uint32_t kNone = 0xffffffffu;

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

// A declaration with a use count from the source its file's card shows.
struct Used {
  std::size_t row;
  std::int64_t count;
};

// The declarations of `rows` that have uses from outside the page, or, when
// none has, those with uses from the page's own files (`inside` tells which);
// most used first, equal counts in the order of `rows`.
std::vector<Used> used_rows(const Table& table, std::span<const std::size_t> rows, const FanInView& fan_in,
                            bool& inside) {
  std::vector<Used> used;
  for (bool from_inside : {false, true}) {
    for (std::size_t row : rows) {
      std::int64_t id = table.num(sym_f::id, row);
      std::int64_t count = from_inside ? fan_in.inside_count(id) : fan_in.outside_count(id);
      if (count > 0) used.push_back({row, count});
    }
    if (!used.empty()) {
      inside = from_inside;
      std::stable_sort(used.begin(), used.end(), [](const Used& a, const Used& b) { return a.count > b.count; });
      break;
    }
  }
  return used;
}

// "`name` L<line> (<label><count>)".
std::string used_item(const StringPool& pool, const Table& table, const Used& used, bool inside) {
  std::string item(1, '`');
  item += pool.text(table.str(sym_f::name, used.row));
  item += "` L";
  item += std::to_string(table.num(sym_f::start_line, used.row));
  item += inside ? " (in-page " : " (";
  item += std::to_string(used.count);
  item += ')';
  return item;
}

// Indices of the `k` entries with the highest counts, highest first, equal
// counts in entry order: the head of a stable sort by count, found without
// sorting the whole list.
std::vector<std::size_t> first_by_count(const std::vector<std::pair<StrId, std::int64_t>>& entries, std::size_t k) {
  std::vector<std::size_t> order(entries.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  k = std::min(k, order.size());
  // Count, then position: a total order, so the partial sort is stable.
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(k), order.end(),
                    [&](std::size_t a, std::size_t b) {
                      return entries[a].second != entries[b].second ? entries[a].second > entries[b].second : a < b;
                    });
  order.resize(k);
  return order;
}

void append_cell(std::string& out, std::string_view text) {
  out += " | ";
  out += cell(text);
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

std::vector<FileUsers> file_users(const FactsView& view, const Vocab& vocab) {
  const Table& in = view.inbound;
  const std::size_t strings = view.pool.size();
  std::vector<FileUsers> result;
  // Counted rows, bucketed by target (in first-counted order) while keeping
  // their order within a bucket; then each bucket is summed per user.
  std::vector<std::uint32_t> slot(strings, kNone);  // target path -> index in result
  std::vector<std::uint32_t> counted_slot;
  std::vector<std::size_t> counted_row;
  std::vector<std::size_t> bucket_size;
  for (std::size_t row = 0; row < in.rows; ++row) {
    StrId source = in.str(in_f::source_path, row), target = in.str(in_f::target_path, row);
    if (source == target || view.path_has(source, path_bit::test_source)) continue;
    if (!is_use(vocab, in.str(in_f::resolution, row), in.str(in_f::target_kind, row),
                view.path_has(target, path_bit::import_resolved)))
      continue;
    std::uint32_t& s = slot[target];
    if (s == kNone) {
      s = static_cast<std::uint32_t>(result.size());
      result.push_back({target, {}});
      bucket_size.push_back(0);
    }
    counted_slot.push_back(s);
    counted_row.push_back(row);
    ++bucket_size[s];
  }
  std::vector<std::size_t> start(result.size() + 1, 0);
  for (std::size_t s = 0; s < result.size(); ++s) start[s + 1] = start[s] + bucket_size[s];
  std::vector<std::size_t> bucketed(counted_row.size());
  {
    std::vector<std::size_t> fill(start.begin(), start.end() - 1);
    for (std::size_t i = 0; i < counted_row.size(); ++i) bucketed[fill[counted_slot[i]]++] = counted_row[i];
  }
  std::vector<std::uint32_t> position(strings, kNone);  // user path -> index in the bucket's users
  for (std::size_t s = 0; s < result.size(); ++s) {
    auto& users = result[s].users;
    for (std::size_t i = start[s]; i < start[s + 1]; ++i) {
      std::size_t row = bucketed[i];
      StrId source = in.str(in_f::source_path, row);
      std::int64_t refs = in.num(in_f::refs, row);
      std::uint32_t& at = position[source];
      if (at == kNone) {
        at = static_cast<std::uint32_t>(users.size());
        users.emplace_back(source, refs);
      } else {
        users[at].second = checked_add(users[at].second, refs);
      }
    }
    for (const auto& user : users) position[user.first] = kNone;
  }
  return result;
}

std::vector<std::string> most_used(const StringPool& pool, const Table& table, std::span<const std::size_t> rows,
                                   const FanInView& fan_in) {
  bool inside = false;
  std::vector<Used> used = used_rows(table, rows, fan_in, inside);
  std::vector<std::string> items;
  items.reserve(used.size());
  for (const Used& u : used) items.push_back(used_item(pool, table, u, inside));
  return items;
}

std::string render_file_cards(const FactsView& view, const Vocab& vocab, const FanInView& fan_in,
                              std::string_view heading, std::span<const std::string> missing,
                              const std::unordered_map<StrId, NameList>& tests) {
  const StringPool& pool = view.pool;
  const Table& symbols = view.symbols;
  const std::size_t strings = pool.size();
  const auto card_names = static_cast<std::size_t>(kCardNames);

  // The page's declarations by file, each group in symbols order.
  std::vector<std::uint32_t> group_of(strings, kNone);
  std::vector<std::vector<std::size_t>> groups;
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    std::uint32_t& g = group_of[symbols.str(sym_f::path, row)];
    if (g == kNone) {
      g = static_cast<std::uint32_t>(groups.size());
      groups.emplace_back();
    }
    groups[g].push_back(row);
  }
  std::vector<FileUsers> users = file_users(view, vocab);
  std::vector<std::uint32_t> users_of(strings, kNone);
  for (std::size_t i = 0; i < users.size(); ++i) users_of[users[i].target] = static_cast<std::uint32_t>(i);

  std::string out;
  out.reserve(heading.size() + kCardsParagraph.size() + 200 * (view.files.rows + missing.size() + 2));
  out += heading;
  out += "\n\n";
  out += kCardsParagraph;
  out += "\n\n";
  out += kCardsHeader;
  out += '\n';
  out += kCardsSeparator;
  out += '\n';

  std::vector<std::string> shown;
  for (std::size_t row = 0; row < view.files.rows; ++row) {
    StrId path = view.files.str(file_f::path, row);
    std::span<const std::size_t> declarations;
    if (group_of[path] != kNone) declarations = groups[group_of[path]];

    out += "| `";
    out += pool.text(path);
    out += "` | ";
    auto lines = view.line_counts.find(path);
    out += lines == view.line_counts.end() ? std::string("?") : std::to_string(lines->second);
    out += " | ";
    out += std::to_string(declarations.size());
    auto summary = view.summaries.find(path);
    append_cell(out, summary == view.summaries.end() ? std::string_view() : pool.text(summary->second));

    // Most used: only the items the cell shows are written out.
    bool inside = false;
    std::vector<Used> used = used_rows(symbols, declarations, fan_in, inside);
    shown.clear();
    for (std::size_t i = 0; i < used.size() && i < card_names; ++i)
      shown.push_back(used_item(pool, symbols, used[i], inside));
    append_cell(out, named(shown, used.size(), kCardNames));

    // Used by: the users with the highest counts, as short paths.
    shown.clear();
    std::size_t user_count = 0;
    if (users_of[path] != kNone) {
      const auto& entries = users[users_of[path]].users;
      user_count = entries.size();
      for (std::size_t i : first_by_count(entries, card_names))
        shown.push_back(short_path(pool.text(entries[i].first)));
    }
    append_cell(out, named(shown, user_count, kCardNames));

    auto reaching = tests.find(path);
    if (reaching == tests.end()) {
      append_cell(out, std::string_view());
    } else {
      append_cell(out, named(reaching->second.head, reaching->second.total, kCardNames));
    }
    out += " |\n";
  }
  for (const std::string& path : missing) {
    out += "| `";
    out += path;
    out += kMissingCells;
  }
  return out;
}

}  // namespace scope
