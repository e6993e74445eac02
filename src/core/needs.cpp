#include "needs.hpp"

#include <algorithm>

#include "rules.hpp"

namespace scope {

namespace {

// Which declarations lie inside a type of their own file (bounds inclusive, a
// type never containing itself), by row. Files are swept by start line.
std::vector<bool> find_members(const FactsView& view, const Vocab& vocab) {
  const Table& symbols = view.symbols;
  std::vector<bool> member(symbols.rows(), false);
  std::vector<Row> types, rows;
  auto by_start = [&](Row a, Row b) { return symbols.num(sym_f::start_line, a) < symbols.num(sym_f::start_line, b); };
  const Groups<StrId, Row>& by_path = view.derived.symbols_by_path;
  for (std::size_t group = 0; group < by_path.size(); ++group) {
    std::span<const Row> file = by_path.of(group);
    types.clear();
    for (Row row : file)
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
    Row first = Row::none, second = Row::none;
    auto end = [&](Row row) { return symbols.num(sym_f::end_line, row); };
    auto id = [&](Row row) { return symbols.slot(sym_f::id, row); };
    for (Row row : rows) {
      for (; next < types.size() && !by_start(row, types[next]); ++next) {
        Row type = types[next];
        if (!have_first || end(type) > end(first)) {
          if (have_first && id(first) != id(type)) second = first, have_second = true;
          first = type, have_first = true;
        } else if (id(type) != id(first) && (!have_second || end(type) > end(second))) {
          second = type, have_second = true;
        }
      }
      if (!have_first) continue;
      if (id(first) != id(row)) {
        member[index(row)] = end(first) >= end(row);
      } else {
        member[index(row)] = have_second && end(second) >= end(row);
      }
    }
  }
  return member;
}

std::vector<std::uint8_t> inbound_terms(const FactsView& view, const Vocab& vocab) {
  const Table& in = view.inbound;
  const auto source = in.strs(in_f::source_path);
  const auto resolution = in.strs(in_f::resolution), kind = in.strs(in_f::target_kind);
  const auto words = vocab.reader();
  const auto paths = view.path_reader();
  std::vector<std::uint8_t> terms(in.rows());
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const std::uint16_t r = words.get(resolution[row]);
    const bool name_match_kind = words.has(kind[row], vocab_bit::name_match);
    const std::uint8_t from = paths.get(source[row]);
    terms[row] = static_cast<std::uint8_t>(
        ((from & path_bit::test_source) ? in_term::from_test : 0) |
        ((from & path_bit::in_page) ? in_term::from_page : 0) |
        (counts_toward_fan_in(r & vocab_bit::evidence, r & vocab_bit::trusted, name_match_kind) ? in_term::counted
                                                                                                : 0) |
        ((r & vocab_bit::legacy) ? 0 : in_term::marks) |
        (is_name_match(r & vocab_bit::unique, name_match_kind) ? in_term::name_match : 0));
  }
  return terms;
}

// Adds the use and to_itself bits to the terms.
void add_inbound_uses(const FactsView& view, const Vocab& vocab, std::vector<std::uint8_t>& terms) {
  const Table& in = view.inbound;
  const auto source = in.strs(in_f::source_path), target = in.strs(in_f::target_path);
  const auto resolution = in.strs(in_f::resolution), kind = in.strs(in_f::target_kind);
  const auto words = vocab.reader();
  const auto paths = view.path_reader();
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const std::uint16_t r = words.get(resolution[row]);
    const bool use =
        is_use([&] { return (r & vocab_bit::evidence) != 0; }, [&] { return (r & vocab_bit::unique) != 0; },
               [&] { return paths.has(target[row], path_bit::import_resolved); },
               [&] { return words.has(kind[row], vocab_bit::name_match); });
    terms[row] |=
        static_cast<std::uint8_t>((use ? in_term::use : 0) | (source[row] == target[row] ? in_term::to_itself : 0));
  }
}

std::vector<std::uint8_t> outbound_terms(const FactsView& view, const Vocab& vocab) {
  const Table& out = view.outbound;
  const auto target = out.strs(out_f::target_path);
  const auto resolution = out.strs(out_f::resolution), kind = out.strs(out_f::target_kind);
  const auto words = vocab.reader();
  const auto paths = view.path_reader();
  std::vector<std::uint8_t> terms(out.rows());
  for (std::size_t row = 0; row < out.rows(); ++row) {
    const std::uint16_t r = words.get(resolution[row]);
    const bool name_match_kind = words.has(kind[row], vocab_bit::name_match);
    terms[row] =
        static_cast<std::uint8_t>((paths.has(target[row], path_bit::in_page) ? out_term::to_page : 0) |
                                  (is_outbound_use(r & vocab_bit::evidence, name_match_kind) ? out_term::use : 0) |
                                  (is_name_match(r & vocab_bit::unique, name_match_kind) ? out_term::name_match : 0));
  }
  return terms;
}

}  // namespace

void derive(FactsView& view, const Vocab& vocab, const Needs& needs) {
  Derived& d = view.derived;
  if (view.path_bits.size() < view.pool.size()) view.path_bits.resize(view.pool.size(), 0);
  const std::uint8_t wanted = needs.complete().derived;
  // What was made with another vocabulary is made again.
  if (!vocab.extends(d.vocab)) d.ready &= ~derived::kOfVocabulary;
  d.vocab = vocab;
  auto missing = [&](std::uint8_t which) { return (wanted & which) && !(d.ready & which); };
  if (missing(derived::by_path)) {
    const Table& symbols = view.symbols;
    const auto paths = symbols.strs(sym_f::path);
    d.symbols_by_path = group_rows<Row>(symbols.rows(), view.pool.size(), [&](std::size_t row) { return paths[row]; });
  }
  if (missing(derived::members)) d.member = find_members(view, vocab);
  if (missing(derived::inbound_terms)) {
    d.inbound_terms = inbound_terms(view, vocab);
    d.ready &= ~derived::inbound_uses;
  }
  if (missing(derived::inbound_uses)) add_inbound_uses(view, vocab, d.inbound_terms);
  if (missing(derived::outbound_terms)) d.outbound_terms = outbound_terms(view, vocab);
  d.ready |= needs.complete().derived;
}

namespace {
// The innermost permission of this thread's running calls.
thread_local const Allowed* innermost = nullptr;
}  // namespace

Allowed::Allowed(const FactsView& view, const Needs& needs)
    : tables_{&view.files, &view.symbols, &view.inbound, &view.outbound},
      masks_{needs.files, needs.symbols, needs.inbound, needs.outbound},
      outer_(innermost) {
  innermost = this;
}

Allowed::~Allowed() { innermost = outer_; }

bool permitted(const Table& table, unsigned field) {
  // The innermost call of this thread that declared anything of this view
  // decides; a table no running call declared (conversion) is readable.
  for (const Allowed* allowed = innermost; allowed != nullptr; allowed = allowed->outer_)
    for (int i = 0; i < 4; ++i)
      if (allowed->tables_[i] == &table) return (allowed->masks_[i] & bit(field)) != 0;
  return true;
}

}  // namespace scope
