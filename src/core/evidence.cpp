#include "evidence.hpp"

#include <algorithm>
#include <unordered_map>

namespace scope {

std::vector<bool> members(const FactsView& view, const Vocab& vocab) {
  const Table& symbols = view.symbols;
  std::vector<bool> member(symbols.rows, false);
  // Rows of each file's types and of all its declarations.
  std::unordered_map<StrId, std::vector<std::size_t>> types_by_file, rows_by_file;
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    StrId path = symbols.str(sym_f::path, row);
    if (vocab.has(symbols.str(sym_f::kind, row), vocab_bit::type)) types_by_file[path].push_back(row);
  }
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    StrId path = symbols.str(sym_f::path, row);
    if (types_by_file.count(path)) rows_by_file[path].push_back(row);
  }
  auto start = [&](std::size_t row) { return symbols.num(sym_f::start_line, row); };
  auto end = [&](std::size_t row) { return symbols.num(sym_f::end_line, row); };
  auto id = [&](std::size_t row) { return symbols.num(sym_f::id, row); };
  for (auto& [path, types] : types_by_file) {
    std::vector<std::size_t>& rows = rows_by_file[path];
    std::stable_sort(types.begin(), types.end(), [&](auto a, auto b) { return start(a) < start(b); });
    std::stable_sort(rows.begin(), rows.end(), [&](auto a, auto b) { return start(a) < start(b); });
    // Sweep by start line. Among the types that start at or before a
    // declaration, keep the two that reach furthest and have different ids:
    // if the furthest is the declaration itself, the runner-up decides.
    std::size_t next = 0;
    bool have_first = false, have_second = false;
    std::size_t first = 0, second = 0;  // rows, first reaching furthest
    for (std::size_t row : rows) {
      while (next < types.size() && start(types[next]) <= start(row)) {
        std::size_t type = types[next++];
        if (!have_first || end(type) > end(first)) {
          if (have_first && id(first) != id(type)) second = first, have_second = true;
          first = type, have_first = true;
        } else if (id(type) != id(first) && (!have_second || end(type) > end(second))) {
          second = type, have_second = true;
        }
      }
      if (have_first && id(first) != id(row) && end(first) >= end(row)) {
        member[row] = true;
      } else if (have_first && id(first) == id(row) && have_second && end(second) >= end(row)) {
        member[row] = true;
      }
    }
  }
  return member;
}

FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab) {
  FanInCounts counts;
  const Table& in = view.inbound;
  for (std::size_t row = 0; row < in.rows; ++row) {
    StrId source = in.str(in_f::source_path, row);
    // A test's reference neither counts nor marks its target.
    if (view.path_has(source, path_bit::test_source)) continue;
    StrId resolution = in.str(in_f::resolution, row);
    std::int64_t target = in.num(in_f::target_id, row);
    if (!vocab.has(resolution, vocab_bit::legacy)) counts.referenced.insert(target);
    bool counted = vocab.has(resolution, vocab_bit::evidence) ||
                   (vocab.has(resolution, vocab_bit::trusted) &&
                    !vocab.has(in.str(in_f::target_kind, row), vocab_bit::name_match));
    if (!counted) continue;
    auto& into = view.path_has(source, path_bit::in_page) ? counts.inside : counts.outside;
    into.add(target, in.num(in_f::refs, row));
  }
  return counts;
}

std::vector<std::size_t> entry_candidates(const FactsView& view, const Vocab& vocab,
                                          const std::unordered_set<std::int64_t>& referenced) {
  const Table& symbols = view.symbols;
  std::vector<bool> member;
  bool members_known = false;
  std::vector<std::size_t> rows;
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    if (!vocab.has(symbols.str(sym_f::kind, row), vocab_bit::callable | vocab_bit::type)) continue;
    if (!symbols.flag(sym_f::is_export, row)) continue;
    if (view.pool.text(symbols.str(sym_f::name, row)).starts_with('_')) continue;
    if (referenced.count(symbols.num(sym_f::id, row))) continue;
    if (!members_known) member = members(view, vocab), members_known = true;
    if (member[row]) continue;
    rows.push_back(row);
  }
  return rows;
}

}  // namespace scope
