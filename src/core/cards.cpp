#include "cards.hpp"

#include <algorithm>
#include <numeric>

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

// Indices of the `k` entries with the highest counts, highest first, equal
// counts in entry order: the head of a stable sort by count, found without
// sorting the whole list.
std::vector<std::size_t> first_by_count(std::span<const std::pair<StrId, std::int64_t>> entries, std::size_t k) {
  std::vector<std::size_t> order(entries.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  k = std::min(k, order.size());
  // Count, then position: a total order, so the partial sort is stable.
  sort_head(order.begin(), order.end(), k, [&](std::size_t a, std::size_t b) {
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

std::vector<std::string> most_used(const FactsView& view, const FanInSlots& fan_in, std::span<const Row> rows,
                                   std::size_t limit, std::size_t& count) {
  const Table& symbols = view.symbols;
  struct Used {
    Row row;
    std::uint32_t at;  // position among the used: equal counts keep it
    std::int64_t count;
  };
  std::vector<Used> used;
  bool inside = false;
  for (bool from_inside : {false, true}) {
    for (Row row : rows) {
      const Slot slot = symbols.slot(sym_f::id, row);
      std::int64_t uses = from_inside ? fan_in.inside_of(slot) : fan_in.outside_of(slot);
      if (uses > 0) used.push_back({row, static_cast<std::uint32_t>(used.size()), uses});
    }
    if (!used.empty()) {
      inside = from_inside;
      break;
    }
  }
  count = used.size();
  // By count, highest first, equal counts in order (as a stable sort); only
  // the `limit` shown need be in order.
  sort_head(used.begin(), used.end(), limit,
            [](const Used& a, const Used& b) { return a.count != b.count ? a.count > b.count : a.at < b.at; });
  std::vector<std::string> items;
  for (std::size_t i = 0; i < used.size() && i < limit; ++i) {
    // "`name` L<line> (<label><count>)"
    std::string item(1, '`');
    item += view.pool.text(symbols.str(sym_f::name, used[i].row));
    item += "` L";
    item += std::to_string(symbols.num(sym_f::start_line, used[i].row));
    item += inside ? " (in-page " : " (";
    item += std::to_string(used[i].count);
    item += ')';
    items.push_back(std::move(item));
  }
  return items;
}

std::string render_file_cards(const FactsView& view, const FileUsers& users, const FanInSlots& fan_in,
                              std::string_view heading, std::span<const std::string> missing,
                              std::span<const NameList> tests) {
  const StringPool& pool = view.pool;
  const auto card_names = static_cast<std::size_t>(kCardNames);
  std::string out;
  out.reserve(heading.size() + kCardsParagraph.size() + 200 * (view.files.rows() + missing.size() + 2));
  out += heading;
  out += "\n\n";
  out += kCardsParagraph;
  out += "\n\n";
  out += kCardsHeader;
  out += '\n';
  out += kCardsSeparator;
  out += '\n';

  std::vector<std::string> shown;
  for (Row row : view.files.all()) {
    const StrId path = view.files.str(file_f::path, row);
    const std::span<const Row> declarations = view.derived.symbols_by_path.of_key(path);
    out += "| `";
    out += pool.text(path);
    out += "` | ";
    const std::int64_t lines = view.line_count(path);
    out += lines == FactsView::kNoLines ? std::string("?") : std::to_string(lines);
    out += " | ";
    out += std::to_string(declarations.size());
    const StrId summary = view.summary(path);
    append_cell(out, summary == StrId::none ? std::string_view() : pool.text(summary));

    std::size_t count = 0;
    shown = most_used(view, fan_in, declarations, card_names, count);
    append_cell(out, named(shown, count, kCardNames));

    // Used by: the users with the highest counts, as short paths.
    shown.clear();
    std::size_t user_count = 0;
    if (index(path) < users.entry_of.size() && users.entry_of[index(path)] != kNoPosition) {
      auto entries = users.of(users.entry_of[index(path)]);
      user_count = entries.size();
      for (std::size_t i : first_by_count(entries, card_names))
        shown.push_back(short_path(pool.text(entries[i].first)));
    }
    append_cell(out, named(shown, user_count, kCardNames));

    const NameList& reaching = tests[index(row)];
    append_cell(out, reaching.total == 0 ? std::string() : named(reaching.head, reaching.total, kCardNames));
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
