#include "view.hpp"

#include <cstdio>
#include <cstdlib>

#include "rules.hpp"

namespace scope {

void check_failed(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "scope: %s:%d: check failed: %s\n", file, line, condition);
  std::abort();
}

void Table::mark(unsigned field, std::size_t rows) {
  rows_ = rows;
  loaded_ |= bit(field);
}

void Table::commit(unsigned field, std::size_t rows, IntColumn column) {
  ints_[field] = std::move(column);
  mark(field, rows);
}

void Table::commit(unsigned field, std::size_t rows, StrColumn column) {
  strs_[field] = std::move(column);
  mark(field, rows);
}

std::size_t Table::bytes() const {
  std::size_t total = 0;
  for (const IntColumn& column : ints_) total += column.bytes();
  for (const StrColumn& column : strs_) total += column.bytes();
  return total;
}

void Vocab::set(StrId id, std::uint16_t which) {
  if (index(id) >= bits.size()) bits.resize(index(id) + 1, 0);
  bits[index(id)] |= which;
}

void Vocab::set_literals(const StringPool& pool, StrId id) {
  std::string_view text = pool.text(id);
  if (text == kConstantKind) set(id, vocab_bit::constant);
  if (text == kUniqueResolution) set(id, vocab_bit::unique);
  if (text == kLegacyResolution) set(id, vocab_bit::legacy);
}

void FactsView::set_path_bit(StrId path, std::uint8_t which) {
  if (index(path) >= path_bits.size()) path_bits.resize(index(path) + 1, 0);
  path_bits[index(path)] |= which;
}

namespace {
void note_distinct(const Table& table, unsigned field, std::vector<bool>& seen, std::vector<StrId>& ids) {
  const IdReader<StrId> column = table.strs(field);
  for (std::size_t row = 0; row < table.rows(); ++row) {
    const StrId id = column[row];
    if (id == StrId::none) continue;
    if (index(id) >= seen.size()) seen.resize(index(id) + 1, false);
    if (seen[index(id)]) continue;
    seen[index(id)] = true;
    ids.push_back(id);
  }
}
}  // namespace

void FactsView::note_kinds(const Table& table, unsigned field) { note_distinct(table, field, kinds_seen_, kind_ids); }

void FactsView::note_resolutions(const Table& table, unsigned field) {
  note_distinct(table, field, resolutions_seen_, resolution_ids);
}

std::size_t FactsView::bytes() const {
  const Groups<StrId, Row>& by_path = derived.symbols_by_path;
  return pool.bytes() + ids.bytes() + files.bytes() + symbols.bytes() + inbound.bytes() + outbound.bytes() +
         path_bits.capacity() + line_counts.capacity() * 8 + summaries.capacity() * 4 +
         (by_path.rows.capacity() + by_path.group_of_key.capacity()) * 4 + derived.member.capacity() / 8;
}

}  // namespace scope
