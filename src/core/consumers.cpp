#include "consumers.hpp"

#include <algorithm>

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

// What the references from production files outside the page say.
struct ConsumerCounts {
  // Per consumer file, in first-counted order: its path and total, and the
  // summed refs of its counted references by target name, names in
  // first-counted order (names[start[c] .. start[c + 1])).
  std::vector<StrId> path;
  std::vector<std::int64_t> total;
  std::vector<std::uint32_t> start;
  std::vector<std::pair<StrId, std::int64_t>> names;
  std::vector<bool> used;  // by slot: reached by some counted reference
  // References that are no evidence: summed refs by resolution (resolutions
  // in first-seen order), and how many files they come from.
  std::vector<StrId> left_resolutions;
  std::vector<std::int64_t> left_refs;  // by StrId
  std::size_t left_files = 0;
};

ConsumerCounts count_consumers(const FactsView& view, const Vocab& vocab) {
  const Table& in = view.inbound;
  const std::size_t strings = view.pool.size();
  ConsumerCounts counts;
  counts.used.assign(view.derived.ids.size(), false);
  counts.left_refs.assign(strings, 0);
  std::vector<std::uint32_t> consumer_of(strings, Groups::kNone);  // path -> consumer
  std::vector<bool> left_file(strings, false), left_seen(strings, false);
  // Every (consumer, name) pair, numbered in first-counted order.
  DenseIndex pairs;
  std::vector<std::uint32_t> pair_consumer;
  std::vector<std::pair<StrId, std::int64_t>> pair_sum;
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const StrId source = in.str(in_f::source_path, row);
    // The page's own files and tests are no consumers, and are not reported.
    if (view.path_has(source, path_bit::in_page | path_bit::test_source)) continue;
    const std::int64_t refs = in.num(in_f::refs, row);
    if (!is_use_row(view, vocab, in_f::resolution, in_f::target_kind, in_f::target_path, row)) {
      const StrId resolution = in.str(in_f::resolution, row);
      if (!left_seen[resolution]) left_seen[resolution] = true, counts.left_resolutions.push_back(resolution);
      counts.left_refs[resolution] = checked_add(counts.left_refs[resolution], refs);
      if (!left_file[source]) left_file[source] = true, ++counts.left_files;
      continue;
    }
    std::uint32_t& consumer = consumer_of[source];
    if (consumer == Groups::kNone) {
      consumer = static_cast<std::uint32_t>(counts.path.size());
      counts.path.push_back(source);
      counts.total.push_back(0);
    }
    counts.total[consumer] = checked_add(counts.total[consumer], refs);
    const StrId name = in.str(in_f::target_name, row);
    auto [pair, fresh] = pairs.insert((std::uint64_t{consumer} << 32) | name);
    if (fresh) pair_consumer.push_back(consumer), pair_sum.emplace_back(name, 0);
    pair_sum[pair].second = checked_add(pair_sum[pair].second, refs);
    counts.used[view.derived.inbound_slot[row]] = true;
  }
  Groups by_consumer =
      group_rows(pair_sum.size(), counts.path.size(), [&](std::size_t pair) { return pair_consumer[pair]; });
  counts.start.assign(counts.path.size() + 1, 0);
  for (std::size_t c = 0; c < counts.path.size(); ++c) {
    std::span<const std::uint32_t> own = by_consumer.of_key(static_cast<std::uint32_t>(c));
    counts.start[c + 1] = counts.start[c] + static_cast<std::uint32_t>(own.size());
    for (std::uint32_t pair : own) counts.names.push_back(pair_sum[pair]);
  }
  return counts;
}

// The distinct languages of the page's files whose imports the index does
// not resolve, ascending. A file without a language (None or no attribute)
// contributes the empty string, the same as an empty language: the sentence
// then names an empty item rather than dropping the file silently.
std::vector<std::string_view> unresolved_languages(const FactsView& view) {
  std::vector<std::string_view> languages;
  const Table& files = view.files;
  for (std::size_t row = 0; row < files.rows(); ++row) {
    if (view.path_has(files.str(file_f::path, row), path_bit::import_resolved)) continue;
    StrId language = files.str(file_f::language, row);
    languages.push_back(language == kNoStr ? std::string_view() : view.pool.text(language));
  }
  std::sort(languages.begin(), languages.end());
  languages.erase(std::unique(languages.begin(), languages.end()), languages.end());
  return languages;
}

std::string intro_line(const std::vector<std::string_view>& unresolved) {
  if (unresolved.empty()) return std::string(kResolvedIntro);
  std::string intro(kUnresolvedIntroStart);
  for (std::size_t i = 0; i < unresolved.size(); ++i) {
    if (i) intro += ", ";
    intro += unresolved[i];
  }
  intro += kUnresolvedIntroEnd;
  return intro;
}

// The best consumers first (highest total, then path), at most
// kConsumerRows rows, then the overflow row.
void append_consumer_rows(std::vector<std::string>& lines, const StringPool& pool, const ConsumerCounts& counts) {
  std::vector<std::uint32_t> order(counts.path.size());
  for (std::uint32_t c = 0; c < order.size(); ++c) order[c] = c;
  std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    return counts.total[a] != counts.total[b] ? counts.total[a] > counts.total[b]
                                              : pool.text(counts.path[a]) < pool.text(counts.path[b]);
  });
  const auto rows = static_cast<std::size_t>(kConsumerRows);
  for (std::size_t i = 0; i < order.size() && i < rows; ++i) {
    const std::uint32_t c = order[i];
    std::vector<std::pair<StrId, std::int64_t>> by_count(counts.names.begin() + counts.start[c],
                                                         counts.names.begin() + counts.start[c + 1]);
    std::stable_sort(by_count.begin(), by_count.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::vector<std::string> names;
    for (const auto& [name, count] : by_count) {
      std::string quoted(1, '`');
      quoted += pool.text(name);
      quoted += '`';
      names.push_back(std::move(quoted));
    }
    std::string row = "- `";
    row += pool.text(counts.path[c]);
    row += "` uses ";
    row += named(names, kConsumerNames);
    row += " (" + std::to_string(counts.total[c]) + " refs)";
    lines.push_back(std::move(row));
  }
  if (order.size() > rows) lines.push_back("- _...and " + std::to_string(order.size() - rows) + " more files_");
}

std::string not_counted_line(const StringPool& pool, const ConsumerCounts& counts) {
  std::vector<StrId> resolutions = counts.left_resolutions;
  std::sort(resolutions.begin(), resolutions.end(), [&](StrId a, StrId b) { return pool.text(a) < pool.text(b); });
  std::vector<std::string> items;
  for (StrId resolution : resolutions)
    items.push_back(std::to_string(counts.left_refs[resolution]) + " `" + std::string(pool.text(resolution)) + "`");
  std::string line = "Not counted: ";
  append_joined(line, items, ", ");
  line += " references from " + std::to_string(counts.left_files) + " other file" + (counts.left_files > 1 ? "s" : "");
  line += kNotCountedEnd;
  return line;
}

std::string unused_line(const FactsView& view, const std::vector<std::uint32_t>& unused) {
  const Table& symbols = view.symbols;
  const StringPool& pool = view.pool;
  const auto shown = static_cast<std::size_t>(kUnusedNames);
  std::vector<std::string> items;
  for (std::size_t i = 0; i < unused.size() && i < shown; ++i) {
    const std::uint32_t row = unused[i];
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
  if (unused.size() > shown) line += " and " + std::to_string(unused.size() - shown) + " more";
  line += kUnusedEnd;
  return line;
}

}  // namespace

std::vector<std::uint32_t> unused_outside(const FactsView& view, const Vocab& vocab, const std::vector<bool>& used,
                                          const FanInSlots& fan_in) {
  const Table& symbols = view.symbols;
  const Derived& d = view.derived;
  struct Kept {
    bool callable;  // not a type: every type sorts first
    RankKey key;
    std::string_view path;
    std::uint32_t row;
  };
  std::vector<Kept> kept;
  for (std::size_t row = 0; row < symbols.rows(); ++row) {
    const StrId kind = symbols.str(sym_f::kind, row);
    if (!vocab.has(kind, vocab_bit::type | vocab_bit::callable)) continue;
    const std::uint32_t slot = d.symbol_slot[row];
    if (slot < used.size() && used[slot]) continue;
    if (!symbols.flag(sym_f::is_export, row)) continue;
    if (is_private_name(view.pool.text(symbols.str(sym_f::name, row)))) continue;
    if (d.member[row]) continue;
    kept.push_back({!vocab.has(kind, vocab_bit::type), rank_key(key_input(view, vocab, fan_in, row)),
                    view.pool.text(symbols.str(sym_f::path, row)), static_cast<std::uint32_t>(row)});
  }
  std::stable_sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) {
    if (a.callable != b.callable) return !a.callable;
    if (a.key != b.key) return a.key < b.key;
    return a.path < b.path;
  });
  std::vector<std::uint32_t> rows;
  rows.reserve(kept.size());
  for (const Kept& k : kept) rows.push_back(k.row);
  return rows;
}

std::string render_consumers(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in,
                             std::string_view heading) {
  const ConsumerCounts counts = count_consumers(view, vocab);
  const std::vector<std::string_view> unresolved = unresolved_languages(view);
  std::vector<std::string> lines;
  lines.emplace_back(heading);
  lines.emplace_back();
  lines.push_back(intro_line(unresolved));
  append_consumer_rows(lines, view.pool, counts);
  if (counts.path.empty())
    lines.push_back(std::string(kNoConsumers) +
                    (unresolved.empty() ? "through an `import` or `local` edge." : "by a unique name."));
  if (!counts.left_resolutions.empty()) lines.push_back(not_counted_line(view.pool, counts));
  const std::vector<std::uint32_t> unused = unused_outside(view, vocab, counts.used, fan_in);
  if (!unused.empty()) lines.push_back(unused_line(view, unused));
  std::string text;
  append_joined(text, lines, "\n");
  text += '\n';
  return text;
}

}  // namespace scope
