#include "text.hpp"

#include <algorithm>

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

}  // namespace

std::string short_path(std::string_view path) {
  std::size_t last = path.rfind('/');
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

std::string named(const std::vector<std::string>& names, std::int64_t limit) {
  const auto count = static_cast<std::int64_t>(names.size());
  std::int64_t shown = limit >= 0 ? std::min(limit, count) : std::max<std::int64_t>(0, count + limit);
  std::string out;
  for (std::int64_t i = 0; i < shown; ++i) {
    if (i) out += ", ";
    out += names[static_cast<std::size_t>(i)];
  }
  if (count > limit) out += " +" + std::to_string(count - limit);
  return out;
}

FileUsers file_users(const FactsView& view, const Vocab& vocab) {
  FileUsers users;
  std::unordered_map<StrId, std::size_t> slot;
  const Table& in = view.inbound;
  for (std::size_t row = 0; row < in.rows; ++row) {
    StrId source = in.str(in_f::source_path, row), target = in.str(in_f::target_path, row);
    if (source == target || view.path_has(source, path_bit::test_source)) continue;
    if (!is_use(vocab, in.str(in_f::resolution, row), in.str(in_f::target_kind, row),
                view.path_has(target, path_bit::import_resolved)))
      continue;
    auto [found, fresh] = slot.try_emplace(target, users.size());
    if (fresh) users.emplace_back(target, OrderedCounter<StrId>{});
    users[found->second].second.add(source, in.num(in_f::refs, row));
  }
  return users;
}

std::vector<std::string> most_used(const StringPool& pool, const Table& table, const std::vector<std::size_t>& rows,
                                   const FanInView& fan_in) {
  struct Used {
    std::size_t row;
    std::int64_t count;
  };
  for (bool outside : {true, false}) {
    std::vector<Used> used;
    for (std::size_t row : rows) {
      std::int64_t id = table.num(sym_f::id, row);
      std::int64_t count = outside ? fan_in.outside_count(id) : fan_in.inside_count(id);
      if (count > 0) used.push_back({row, count});
    }
    if (used.empty()) continue;
    std::stable_sort(used.begin(), used.end(), [](const Used& a, const Used& b) { return a.count > b.count; });
    std::vector<std::string> items;
    for (const Used& u : used) {
      std::string item = "`";
      item += pool.text(table.str(sym_f::name, u.row));
      item += "` L" + std::to_string(table.num(sym_f::start_line, u.row)) + " (";
      if (!outside) item += "in-page ";
      item += std::to_string(u.count) + ")";
      items.push_back(std::move(item));
    }
    return items;
  }
  return {};
}

std::string render_file_cards(const FactsView& view, const Vocab& vocab, const FanInView& fan_in,
                              std::string_view heading, const std::vector<std::string_view>& missing,
                              const std::unordered_map<StrId, std::vector<std::string>>& tests) {
  const StringPool& pool = view.pool;
  const Table& symbols = view.symbols;
  std::unordered_map<StrId, std::vector<std::size_t>> by_file;
  for (std::size_t row = 0; row < symbols.rows; ++row) by_file[symbols.str(sym_f::path, row)].push_back(row);
  std::unordered_map<StrId, const OrderedCounter<StrId>*> users_of;
  FileUsers users = file_users(view, vocab);
  for (const auto& [target, counter] : users) users_of[target] = &counter;

  std::string out(heading);
  out += "\n\n";
  out += kCardsParagraph;
  out += "\n\n";
  out += kCardsHeader;
  out += '\n';
  out += kCardsSeparator;
  out += '\n';
  static const std::vector<std::size_t> no_rows;
  static const std::vector<std::string> no_names;
  for (std::size_t row = 0; row < view.files.rows; ++row) {
    StrId path = view.files.str(file_f::path, row);
    auto group = by_file.find(path);
    const std::vector<std::size_t>& declarations = group == by_file.end() ? no_rows : group->second;
    auto lines = view.line_counts.find(path);
    auto summary = view.summaries.find(path);
    std::vector<std::string> user_names;
    if (auto found = users_of.find(path); found != users_of.end()) {
      // Only the names the cell shows are shortened; the rest are counted.
      for (const auto& [user, count] : found->second->most_common())
        user_names.push_back(user_names.size() < kCardNames ? short_path(pool.text(user)) : std::string());
    }
    auto reaching = tests.find(path);

    out += "| `";
    out += pool.text(path);
    out += "` | ";
    out += lines == view.line_counts.end() ? std::string("?") : std::to_string(lines->second);
    out += " | " + std::to_string(declarations.size()) + " | ";
    out += cell(summary == view.summaries.end() ? std::string_view() : pool.text(summary->second));
    out += " | " + cell(named(most_used(pool, symbols, declarations, fan_in), kCardNames));
    out += " | " + cell(named(user_names, kCardNames));
    out += " | " + cell(named(reaching == tests.end() ? no_names : reaching->second, kCardNames));
    out += " |\n";
  }
  for (std::string_view path : missing) {
    out += "| `";
    out += path;
    out += "` | ? | 0 | not in the index | | | |\n";
  }
  return out;
}

}  // namespace scope
