#include "consumers.hpp"

#include <algorithm>

#include "markdown.hpp"

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

// The names that the counted references of each chosen consumer reach, with
// their summed refs, in the order of their first counted reference.
std::vector<std::vector<std::pair<StrId, std::int64_t>>> consumer_names(const FactsView& view,
                                                                        const ConsumerCounts& counts,
                                                                        const std::vector<std::uint32_t>& chosen) {
  const Table& in = view.inbound;
  const auto name = in.strs(in_f::target_name);
  const auto refs = in.ints(in_f::refs);
  std::vector<std::uint32_t> chosen_at(counts.path.size(), kNoPosition);  // consumer -> index in chosen
  for (std::uint32_t i = 0; i < chosen.size(); ++i) chosen_at[chosen[i]] = i;
  std::vector<std::vector<Row>> rows(chosen.size());
  for (std::size_t i = 0; i < counts.counted.size(); ++i)
    if (chosen_at[counts.counted_consumer[i]] != kNoPosition)
      rows[chosen_at[counts.counted_consumer[i]]].push_back(counts.counted[i]);
  std::vector<std::uint32_t> position(view.pool.size(), kNoPosition);  // name -> index among the names
  std::vector<std::vector<std::pair<StrId, std::int64_t>>> names(chosen.size());
  for (std::size_t c = 0; c < chosen.size(); ++c) {
    for (Row row : rows[c]) {
      const StrId target_name = name[index(row)];
      const std::int64_t row_refs = refs[index(row)];
      std::uint32_t& at = position[index(target_name)];
      if (at == kNoPosition) {
        at = static_cast<std::uint32_t>(names[c].size());
        names[c].emplace_back(target_name, row_refs);
      } else {
        names[c][at].second = checked_add(names[c][at].second, row_refs);
      }
    }
    for (const auto& entry : names[c]) position[index(entry.first)] = kNoPosition;
  }
  return names;
}

// The distinct languages of the page's files whose imports the index does
// not resolve, ascending. A file without a language (None or no attribute)
// contributes the empty string, the same as an empty language: the sentence
// then names an empty item rather than dropping the file silently.
std::vector<std::string_view> unresolved_languages(const FactsView& view) {
  std::vector<std::string_view> languages;
  const Table& files = view.files;
  for (Row row : files.all()) {
    if (view.path_has(files.str(file_f::path, row), path_bit::import_resolved)) continue;
    StrId language = files.str(file_f::language, row);
    languages.push_back(language == StrId::none ? std::string_view() : view.pool.text(language));
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
void append_consumer_rows(std::vector<std::string>& lines, const FactsView& view, const ConsumerCounts& counts) {
  const StringPool& pool = view.pool;
  std::vector<std::uint32_t> order(counts.path.size());
  for (std::uint32_t c = 0; c < order.size(); ++c) order[c] = c;
  // Total, then path, then first-counted order: a total order, so the first
  // rows of a stable sort come from a partial one.
  const std::size_t shown = std::min<std::size_t>(order.size(), static_cast<std::size_t>(kConsumerRows));
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(shown), order.end(),
                    [&](std::uint32_t a, std::uint32_t b) {
                      if (counts.total[a] != counts.total[b]) return counts.total[a] > counts.total[b];
                      const std::string_view pa = pool.text(counts.path[a]), pb = pool.text(counts.path[b]);
                      return pa != pb ? pa < pb : a < b;
                    });
  order.resize(shown);
  auto names_of = consumer_names(view, counts, order);
  for (std::size_t i = 0; i < order.size(); ++i) {
    auto& by_count = names_of[i];
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
    row += pool.text(counts.path[order[i]]);
    row += "` uses ";
    row += named(names, kConsumerNames);
    row += " (" + std::to_string(counts.total[order[i]]) + " refs)";
    lines.push_back(std::move(row));
  }
  if (counts.path.size() > shown)
    lines.push_back("- _...and " + std::to_string(counts.path.size() - shown) + " more files_");
}

std::string not_counted_line(const StringPool& pool, const ConsumerCounts& counts) {
  std::vector<StrId> resolutions = counts.left_resolutions;
  std::sort(resolutions.begin(), resolutions.end(), [&](StrId a, StrId b) { return pool.text(a) < pool.text(b); });
  std::vector<std::string> items;
  for (StrId resolution : resolutions)
    items.push_back(std::to_string(counts.left_refs[index(resolution)]) + " `" + std::string(pool.text(resolution)) +
                    "`");
  std::string line = "Not counted: ";
  append_joined(line, items, ", ");
  line += " references from " + std::to_string(counts.left_files) + " other file" + (counts.left_files > 1 ? "s" : "");
  line += kNotCountedEnd;
  return line;
}

std::string unused_line(const FactsView& view, const std::vector<Row>& unused) {
  const Table& symbols = view.symbols;
  const StringPool& pool = view.pool;
  const auto shown = static_cast<std::size_t>(kUnusedNames);
  std::vector<std::string> items;
  for (std::size_t i = 0; i < unused.size() && i < shown; ++i) {
    const Row row = unused[i];
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

std::vector<Row> unused_outside(const FactsView& view, const Vocab& vocab, const std::vector<bool>& used,
                                const FanInSlots& fan_in, std::size_t ordered) {
  const Table& symbols = view.symbols;
  struct Kept {
    bool callable;  // not a type: every type sorts first
    RankKey key;
    std::string_view path;
    Row row;
  };
  std::vector<Kept> kept;
  for (Row row : symbols.all()) {
    if (!public_top_level(view, vocab, row)) continue;
    const Slot slot = symbols.slot(sym_f::id, row);
    if (index(slot) < used.size() && used[index(slot)]) continue;
    kept.push_back({!vocab.has(symbols.str(sym_f::kind, row), vocab_bit::type),
                    rank_key(key_input(view, vocab, fan_in, row)), view.pool.text(symbols.str(sym_f::path, row)), row});
  }
  // Kept is in row order: the row makes the order total, as a stable sort.
  auto before = [](const Kept& a, const Kept& b) {
    if (a.callable != b.callable) return !a.callable;
    if (a.key != b.key) return a.key < b.key;
    if (a.path != b.path) return a.path < b.path;
    return a.row < b.row;
  };
  sort_head(kept.begin(), kept.end(), ordered, before);
  std::vector<Row> rows;
  rows.reserve(kept.size());
  for (const Kept& k : kept) rows.push_back(k.row);
  return rows;
}

ConsumerCounts count_consumers(const FactsView& view) {
  const Table& in = view.inbound;
  const std::size_t strings = view.pool.size();
  const auto source = in.strs(in_f::source_path), resolution = in.strs(in_f::resolution);
  const auto target = in.slots(in_f::target_id);
  const auto refs = in.ints(in_f::refs);
  const std::uint8_t* terms = view.derived.inbound_terms.data();
  ConsumerCounts counts;
  std::vector<std::uint8_t> used(view.ids.size(), 0);
  counts.left_refs.assign(strings, 0);
  std::vector<std::uint32_t> consumer_of(strings, kNoPosition);  // path -> consumer
  std::vector<std::uint8_t> left_file(strings, 0), left_seen(strings, 0);
  for (std::size_t row = 0; row < in.rows(); ++row) {
    // The page's own files and tests are no consumers, and are not reported.
    if (terms[row] & (in_term::from_page | in_term::from_test)) continue;
    if (!(terms[row] & in_term::use)) {
      const StrId r = resolution[row];
      if (!left_seen[index(r)]) left_seen[index(r)] = 1, counts.left_resolutions.push_back(r);
      counts.left_refs[index(r)] = checked_add(counts.left_refs[index(r)], refs[row]);
      if (!left_file[index(source[row])]) left_file[index(source[row])] = 1, ++counts.left_files;
      continue;
    }
    std::uint32_t& consumer = consumer_of[index(source[row])];
    if (consumer == kNoPosition) {
      consumer = static_cast<std::uint32_t>(counts.path.size());
      counts.path.push_back(source[row]);
      counts.total.push_back(0);
    }
    counts.total[consumer] = checked_add(counts.total[consumer], refs[row]);
    counts.counted.push_back(nth<Row>(row));
    counts.counted_consumer.push_back(consumer);
    used[index(target[row])] = 1;
  }
  counts.used.assign(used.begin(), used.end());
  return counts;
}

std::string render_consumers(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in,
                             const ConsumerCounts& counts, std::string_view heading) {
  const std::vector<std::string_view> unresolved = unresolved_languages(view);
  std::vector<std::string> lines;
  lines.emplace_back(heading);
  lines.emplace_back();
  lines.push_back(intro_line(unresolved));
  append_consumer_rows(lines, view, counts);
  if (counts.path.empty())
    lines.push_back(std::string(kNoConsumers) +
                    (unresolved.empty() ? "through an `import` or `local` edge." : "by a unique name."));
  if (!counts.left_resolutions.empty()) lines.push_back(not_counted_line(view.pool, counts));
  const std::vector<Row> unused =
      unused_outside(view, vocab, counts.used, fan_in, static_cast<std::size_t>(kUnusedNames));
  if (!unused.empty()) lines.push_back(unused_line(view, unused));
  std::string text;
  append_joined(text, lines, "\n");
  text += '\n';
  return text;
}

}  // namespace scope
