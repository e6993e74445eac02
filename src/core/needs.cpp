#include "needs.hpp"

#include <algorithm>

namespace scope {

namespace {

// Which declarations lie inside a type of their own file (bounds inclusive, a
// type never containing itself), by row. Files are swept by start line.
std::vector<bool> find_members(const FactsView& view, const Vocab& vocab) {
  const Table& symbols = view.symbols;
  std::vector<bool> member(symbols.rows(), false);
  std::vector<std::uint32_t> types, rows;
  auto by_start = [&](std::uint32_t a, std::uint32_t b) {
    return symbols.num(sym_f::start_line, a) < symbols.num(sym_f::start_line, b);
  };
  const Groups& by_path = view.derived.symbols_by_path;
  for (std::size_t group = 0; group < by_path.size(); ++group) {
    std::span<const std::uint32_t> file = by_path.of(group);
    types.clear();
    for (std::uint32_t row : file)
      if (vocab.has(symbols.str(sym_f::kind, row), vocab_bit::type)) types.push_back(row);
    if (types.empty()) continue;
    // Declarations usually come in source order: a sorted file is left as it is.
    rows.assign(file.begin(), file.end());
    if (!std::is_sorted(types.begin(), types.end(), by_start)) std::stable_sort(types.begin(), types.end(), by_start);
    if (!std::is_sorted(rows.begin(), rows.end(), by_start)) std::stable_sort(rows.begin(), rows.end(), by_start);
    // Among the types that start at or before a declaration, keep the two
    // that reach furthest and have different ids: if the furthest is the
    // declaration itself, the runner-up decides.
    std::size_t next = 0;
    bool have_first = false, have_second = false;
    std::uint32_t first = 0, second = 0;
    auto end = [&](std::uint32_t row) { return symbols.num(sym_f::end_line, row); };
    auto id = [&](std::uint32_t row) { return symbols.slot(sym_f::id, row); };
    for (std::uint32_t row : rows) {
      for (; next < types.size() && !by_start(row, types[next]); ++next) {
        std::uint32_t type = types[next];
        if (!have_first || end(type) > end(first)) {
          if (have_first && id(first) != id(type)) second = first, have_second = true;
          first = type, have_first = true;
        } else if (id(type) != id(first) && (!have_second || end(type) > end(second))) {
          second = type, have_second = true;
        }
      }
      if (!have_first) continue;
      if (id(first) != id(row)) {
        member[row] = end(first) >= end(row);
      } else {
        member[row] = have_second && end(second) >= end(row);
      }
    }
  }
  return member;
}

}  // namespace

void derive(FactsView& view, const Vocab& vocab, const Needs& needs) {
  Derived& d = view.derived;
  if (view.path_bits.size() < view.pool.size()) view.path_bits.resize(view.pool.size(), 0);
  const std::uint8_t wanted = needs.complete().derived;
  auto missing = [&](std::uint8_t which) { return (wanted & which) && !(d.ready & which); };
  if (missing(derived::by_path)) {
    const Table& symbols = view.symbols;
    d.symbols_by_path =
        group_rows(symbols.rows(), view.pool.size(), [&](std::size_t row) { return symbols.str(sym_f::path, row); });
  }
  d.ready |= wanted & derived::by_path;
  if ((wanted & derived::members) && (!(d.ready & derived::members) || !(d.members_vocab == vocab))) {
    d.member = find_members(view, vocab);
    d.members_vocab = vocab;
    d.ready |= derived::members;
  }
}

Allowed::Allowed(const FactsView& view, const Needs& needs) : view_(view) {
  const Table* tables[] = {&view.files, &view.symbols, &view.inbound, &view.outbound};
  const Mask masks[] = {needs.files, needs.symbols, needs.inbound, needs.outbound};
  for (int i = 0; i < 4; ++i) {
    previous_[i] = tables[i]->allowed();
    tables[i]->allow(masks[i]);
  }
}

Allowed::~Allowed() {
  const Table* tables[] = {&view_.files, &view_.symbols, &view_.inbound, &view_.outbound};
  for (int i = 0; i < 4; ++i) tables[i]->allow(previous_[i]);
}

}  // namespace scope
