#include "evidence.hpp"

#include <algorithm>
#include <bit>
#include <unordered_map>

namespace scope {

namespace {

// Dense slots for symbol ids, numbered in first-seen order: an open-addressing
// table with linear probing and a multiplicative hash, since the fan-in asks
// it once per reference.
class SlotMap {
 public:
  // The slot of `id`, and whether it was new.
  std::pair<std::uint32_t, bool> insert(std::int64_t id) {
    if (2 * (ids_.size() + 1) > cells_.size()) grow();
    std::size_t at = home(id);
    while (cells_[at] != kNone) {
      if (ids_[cells_[at]] == id) return {cells_[at], false};
      at = (at + 1) & mask_;
    }
    cells_[at] = static_cast<std::uint32_t>(ids_.size());
    ids_.push_back(id);
    return {cells_[at], true};
  }
  const std::vector<std::int64_t>& ids() const { return ids_; }

 private:
  std::size_t home(std::int64_t id) const {
    return static_cast<std::size_t>((static_cast<std::uint64_t>(id) * 0x9e3779b97f4a7c15ull) >> shift_);
  }
  void grow() {
    std::size_t size = cells_.empty() ? 64 : 2 * cells_.size();
    cells_.assign(size, kNone);
    mask_ = size - 1;
    shift_ = 64 - static_cast<unsigned>(std::countr_zero(size));
    for (std::uint32_t slot = 0; slot < ids_.size(); ++slot) {
      std::size_t at = home(ids_[slot]);
      while (cells_[at] != kNone) at = (at + 1) & mask_;
      cells_[at] = slot;
    }
  }

  static constexpr std::uint32_t kNone = 0xffffffffu;

  std::vector<std::uint32_t> cells_;  // slot, or kNone for an empty cell
  std::vector<std::int64_t> ids_;     // by slot
  std::size_t mask_ = 0;
  unsigned shift_ = 64;
};

}  // namespace

std::vector<bool> members(const FactsView& view, const Vocab& vocab) {
  const Table& symbols = view.symbols;
  std::vector<bool> member(symbols.rows, false);
  // Rows of each file's types, then of every declaration of a file that has
  // a type, grouped by dense file index.
  std::unordered_map<StrId, std::size_t> group_of;  // path -> index of its group
  std::vector<std::vector<std::size_t>> types, rows;
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    if (!vocab.has(symbols.str(sym_f::kind, row), vocab_bit::type)) continue;
    auto [slot, fresh] = group_of.try_emplace(symbols.str(sym_f::path, row), types.size());
    if (fresh) types.emplace_back();
    types[slot->second].push_back(row);
  }
  if (types.empty()) return member;
  rows.resize(types.size());
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    auto found = group_of.find(symbols.str(sym_f::path, row));
    if (found != group_of.end()) rows[found->second].push_back(row);
  }
  // The start line is the sort key, stored in its column; declarations
  // usually come in source order, so a sorted group is left as it is.
  const std::vector<std::int64_t>& start = symbols.cols[sym_f::start_line];
  const std::vector<std::int64_t>& end = symbols.cols[sym_f::end_line];
  const std::vector<std::int64_t>& id = symbols.cols[sym_f::id];
  auto by_start = [&](std::size_t a, std::size_t b) { return start[a] < start[b]; };
  auto sort_by_start = [&](std::vector<std::size_t>& group) {
    if (!std::is_sorted(group.begin(), group.end(), by_start)) std::stable_sort(group.begin(), group.end(), by_start);
  };
  for (std::size_t group = 0; group < types.size(); ++group) {
    std::vector<std::size_t>& file_types = types[group];
    std::vector<std::size_t>& file_rows = rows[group];
    sort_by_start(file_types);
    sort_by_start(file_rows);
    // Sweep by start line. Among the types that start at or before a
    // declaration, keep the two that reach furthest and have different ids:
    // if the furthest is the declaration itself, the runner-up decides.
    std::size_t next = 0;
    bool have_first = false, have_second = false;
    std::size_t first = 0, second = 0;  // rows, first reaching furthest
    for (std::size_t row : file_rows) {
      for (; next < file_types.size() && start[file_types[next]] <= start[row]; ++next) {
        std::size_t type = file_types[next];
        if (!have_first || end[type] > end[first]) {
          if (have_first && id[first] != id[type]) second = first, have_second = true;
          first = type, have_first = true;
        } else if (id[type] != id[first] && (!have_second || end[type] > end[second])) {
          second = type, have_second = true;
        }
      }
      if (!have_first) continue;
      if (id[first] != id[row]) {
        member[row] = end[first] >= end[row];
      } else {
        member[row] = have_second && end[second] >= end[row];
      }
    }
  }
  return member;
}

FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab) {
  const Table& in = view.inbound;
  // One hash lookup per reference: each target gets a dense slot, and the
  // sums, the first-counted order and the referenced marks live in arrays
  // indexed by slot until the end.
  // Side 0 is outside the page, side 1 inside.
  SlotMap slot_of;
  std::vector<std::int64_t> sums[2];
  std::vector<bool> listed[2];          // whether the slot is in order[side] yet
  std::vector<std::uint32_t> order[2];  // slots in first-counted order
  std::vector<bool> marked;             // referenced by production code
  for (std::size_t row = 0; row < in.rows; ++row) {
    StrId source = in.str(in_f::source_path, row);
    // A test's reference neither counts nor marks its target.
    if (view.path_has(source, path_bit::test_source)) continue;
    StrId resolution = in.str(in_f::resolution, row);
    bool marks = !vocab.has(resolution, vocab_bit::legacy);
    bool counted = vocab.has(resolution, vocab_bit::evidence) ||
                   (vocab.has(resolution, vocab_bit::trusted) &&
                    !vocab.has(in.str(in_f::target_kind, row), vocab_bit::name_match));
    if (!marks && !counted) continue;
    auto [slot, fresh] = slot_of.insert(in.num(in_f::target_id, row));
    if (fresh) {
      marked.push_back(false);
      for (int side : {0, 1}) sums[side].push_back(0), listed[side].push_back(false);
    }
    if (marks) marked[slot] = true;
    if (!counted) continue;
    int side = view.path_has(source, path_bit::in_page) ? 1 : 0;
    if (!listed[side][slot]) listed[side][slot] = true, order[side].push_back(slot);
    sums[side][slot] = checked_add(sums[side][slot], in.num(in_f::refs, row));
  }
  const std::vector<std::int64_t>& ids = slot_of.ids();
  FanInCounts counts;
  for (std::uint32_t slot : order[0]) counts.outside.add(ids[slot], sums[0][slot]);
  for (std::uint32_t slot : order[1]) counts.inside.add(ids[slot], sums[1][slot]);
  counts.referenced.reserve(ids.size());
  for (std::uint32_t slot = 0; slot < ids.size(); ++slot)
    if (marked[slot]) counts.referenced.insert(ids[slot]);
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
