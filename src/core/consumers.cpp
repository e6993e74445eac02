#include "consumers.hpp"

#include <algorithm>

#include "evidence.hpp"
#include "ranking.hpp"
#include "text.hpp"

namespace scope {

namespace {

constexpr std::string_view kResolvedIntro =
    "Production files outside this page that use its code, counted from `import` and `local` edges only "
    "(evidence); `unique` and `ambiguous` edges match a name and are not counted.";
constexpr std::string_view kUnresolvedIntroStart = "The index does not resolve imports for ";
constexpr std::string_view kUnresolvedIntroEnd =
    ", so the files below reference this page's code by a `unique` name (the only production declaration of "
    "that name): likely uses, not proven ones. Attribute and constant names are not counted.";
constexpr std::string_view kNoConsumers =
    "0 production consumers: no production file outside this page reaches its code ";
constexpr std::string_view kNotCountedEnd =
    " that match a name only (an attribute or a call that shares a name with a declaration here).";
constexpr std::string_view kUnusedStart = "Used by no production file outside this page: ";
constexpr std::string_view kUnusedEnd =
    " (code used inside the page, entry points, and code reached dynamically or by name can still be live).";

void append_joined(std::string& out, const std::vector<std::string>& items, std::string_view separator) {
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i) out += separator;
    out += items[i];
  }
}

}  // namespace

ConsumerCounts count_consumers(const FactsView& view, const Vocab& vocab) {
  ConsumerCounts counts;
  std::unordered_map<StrId, std::size_t> slot;  // consumer path -> index in counts.uses
  const Table& in = view.inbound;
  for (std::size_t row = 0; row < in.rows; ++row) {
    StrId source = in.str(in_f::source_path, row);
    // The page's own files and tests are no consumers, and are not reported.
    if (view.path_has(source, path_bit::in_page | path_bit::test_source)) continue;
    StrId resolution = in.str(in_f::resolution, row);
    bool resolved = view.path_has(in.str(in_f::target_path, row), path_bit::import_resolved);
    std::int64_t refs = in.num(in_f::refs, row);
    if (is_use(vocab, resolution, in.str(in_f::target_kind, row), resolved)) {
      auto [found, fresh] = slot.try_emplace(source, counts.uses.size());
      if (fresh) counts.uses.emplace_back(source, OrderedCounter<StrId>{});
      counts.uses[found->second].second.add(in.str(in_f::target_name, row), refs);
      counts.used.insert(in.num(in_f::target_id, row));
    } else {
      auto& sum = counts.left_out[resolution];
      sum = checked_add(sum, refs);
      counts.left_files.insert(source);
    }
  }
  return counts;
}

std::vector<std::string_view> unresolved_languages(const FactsView& view) {
  std::vector<std::string_view> languages;
  const Table& files = view.files;
  for (std::size_t row = 0; row < files.rows; ++row) {
    if (view.path_has(files.str(file_f::path, row), path_bit::import_resolved)) continue;
    StrId language = files.str(file_f::language, row);
    languages.push_back(language == kNoStr ? std::string_view() : view.pool.text(language));
  }
  std::sort(languages.begin(), languages.end());
  languages.erase(std::unique(languages.begin(), languages.end()), languages.end());
  return languages;
}

std::vector<std::size_t> unused_outside(const FactsView& view, const Vocab& vocab,
                                        const std::unordered_set<std::int64_t>& used, const FanInView& fan_in) {
  const Table& symbols = view.symbols;
  std::vector<bool> member = members(view, vocab);
  struct Kept {
    bool callable;  // not a type: every type sorts first
    RankKey key;
    std::string_view path;
    std::size_t row;
  };
  std::vector<Kept> kept;
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    StrId kind = symbols.str(sym_f::kind, row);
    if (!vocab.has(kind, vocab_bit::type | vocab_bit::callable)) continue;
    if (used.count(symbols.num(sym_f::id, row))) continue;
    if (!symbols.flag(sym_f::is_export, row)) continue;
    if (view.pool.text(symbols.str(sym_f::name, row)).starts_with('_')) continue;
    if (member[row]) continue;
    kept.push_back({!vocab.has(kind, vocab_bit::type), rank_key(view.pool, symbols, row, vocab, fan_in),
                    view.pool.text(symbols.str(sym_f::path, row)), row});
  }
  std::stable_sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) {
    if (a.callable != b.callable) return !a.callable;
    if (a.key != b.key) return a.key < b.key;
    return a.path < b.path;
  });
  std::vector<std::size_t> rows;
  rows.reserve(kept.size());
  for (const Kept& k : kept) rows.push_back(k.row);
  return rows;
}

std::string render_consumers(const FactsView& view, const Vocab& vocab, const FanInView& fan_in,
                             std::string_view heading) {
  ConsumerCounts counts = count_consumers(view, vocab);
  std::vector<std::string_view> unresolved = unresolved_languages(view);
  const StringPool& pool = view.pool;

  std::vector<std::string> lines;
  lines.emplace_back(heading);
  lines.emplace_back();
  if (unresolved.empty()) {
    lines.emplace_back(kResolvedIntro);
  } else {
    std::string intro(kUnresolvedIntroStart);
    for (std::size_t i = 0; i < unresolved.size(); ++i) {
      if (i) intro += ", ";
      intro += unresolved[i];
    }
    intro += kUnresolvedIntroEnd;
    lines.push_back(std::move(intro));
  }

  // Best consumer first: highest total, then path.
  struct Consumer {
    std::int64_t total;
    std::string_view path;
    const OrderedCounter<StrId>* names;
  };
  std::vector<Consumer> ranked;
  ranked.reserve(counts.uses.size());
  for (const auto& [path, names] : counts.uses) ranked.push_back({names.total(), pool.text(path), &names});
  std::stable_sort(ranked.begin(), ranked.end(), [](const Consumer& a, const Consumer& b) {
    return a.total != b.total ? a.total > b.total : a.path < b.path;
  });
  for (std::size_t i = 0; i < ranked.size() && i < kConsumerRows; ++i) {
    std::vector<std::string> names;
    for (const auto& [name, count] : ranked[i].names->most_common()) {
      std::string quoted(1, '`');
      quoted += pool.text(name);
      quoted += '`';
      names.push_back(std::move(quoted));
    }
    std::string row = "- `";
    row += ranked[i].path;
    row += "` uses ";
    row += named(names, kConsumerNames);
    row += " (" + std::to_string(ranked[i].total) + " refs)";
    lines.push_back(std::move(row));
  }
  if (ranked.size() > kConsumerRows)
    lines.push_back("- _...and " + std::to_string(ranked.size() - kConsumerRows) + " more files_");
  if (ranked.empty()) {
    lines.push_back(std::string(kNoConsumers) +
                    (unresolved.empty() ? "through an `import` or `local` edge." : "by a unique name."));
  }

  if (!counts.left_out.empty()) {
    std::vector<std::pair<std::string_view, std::int64_t>> mix;
    for (const auto& [resolution, count] : counts.left_out) mix.emplace_back(pool.text(resolution), count);
    std::sort(mix.begin(), mix.end());
    std::vector<std::string> items;
    for (const auto& [resolution, count] : mix)
      items.push_back(std::to_string(count) + " `" + std::string(resolution) + "`");
    std::string line = "Not counted: ";
    append_joined(line, items, ", ");
    std::size_t files = counts.left_files.size();
    line += " references from " + std::to_string(files) + " other file" + (files > 1 ? "s" : "");
    line += kNotCountedEnd;
    lines.push_back(std::move(line));
  }

  std::vector<std::size_t> unused = unused_outside(view, vocab, counts.used, fan_in);
  if (!unused.empty()) {
    const Table& symbols = view.symbols;
    std::vector<std::string> items;
    for (std::size_t i = 0; i < unused.size() && i < kUnusedNames; ++i) {
      std::size_t row = unused[i];
      std::string item = "`";
      item += pool.text(symbols.str(sym_f::name, row));
      item += "` (";
      item += pool.text(symbols.str(sym_f::kind, row));
      item += ", `";
      item += pool.text(symbols.str(sym_f::path, row));
      item += ":L" + std::to_string(symbols.num(sym_f::start_line, row)) + "`)";
      items.push_back(std::move(item));
    }
    std::string line(kUnusedStart);
    append_joined(line, items, ", ");
    if (unused.size() > kUnusedNames) line += " and " + std::to_string(unused.size() - kUnusedNames) + " more";
    line += kUnusedEnd;
    lines.push_back(std::move(line));
  }

  std::string text;
  append_joined(text, lines, "\n");
  text += '\n';
  return text;
}

}  // namespace scope
