#include "evidence.hpp"

namespace scope {

FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab) {
  const Table& in = view.inbound;
  const std::size_t slots = view.ids.size();
  FanInCounts counts{FanInSlots(slots), {}, {}, std::vector<bool>(slots, false)};
  const auto source = in.strs(in_f::source_path), resolution = in.strs(in_f::resolution);
  const auto kind = in.strs(in_f::target_kind);
  const auto target = in.ints(in_f::target_id), refs = in.ints(in_f::refs);
  const auto words = vocab.reader();
  const auto paths = view.path_reader();
  // By slot: whether the target is listed yet, outside (bit 0) and inside (bit 1).
  std::vector<std::uint8_t> listed(slots, 0);
  std::vector<std::uint8_t> referenced(slots, 0);
  std::int64_t* sums[2] = {counts.uses.outside.data(), counts.uses.inside.data()};
  std::vector<std::uint32_t>* order[2] = {&counts.outside_order, &counts.inside_order};
  for (std::size_t row = 0; row < in.rows(); ++row) {
    // A test's reference neither counts nor marks its target.
    const std::uint8_t source_bits = source[row] < paths.size ? paths.bits[source[row]] : 0;
    if (source_bits & path_bit::test_source) continue;
    const StrId r = resolution[row];
    const auto slot = static_cast<std::uint32_t>(target[row]);
    if (!words.has(r, vocab_bit::legacy)) referenced[slot] = 1;
    if (!counts_toward_fan_in(words.has(r, vocab_bit::evidence), words.has(r, vocab_bit::trusted),
                              words.has(kind[row], vocab_bit::name_match)))
      continue;
    const int side = (source_bits & path_bit::in_page) ? 1 : 0;
    if (!(listed[slot] & (1 << side))) {
      listed[slot] |= static_cast<std::uint8_t>(1 << side);
      order[side]->push_back(slot);
    }
    sums[side][slot] = checked_add(sums[side][slot], refs[row]);
  }
  counts.referenced.assign(referenced.begin(), referenced.end());
  return counts;
}

std::vector<std::uint32_t> entry_candidates(const FactsView& view, const Vocab& vocab,
                                            const std::vector<bool>& referenced) {
  const Table& symbols = view.symbols;
  std::vector<std::uint32_t> rows;
  for (std::size_t row = 0; row < symbols.rows(); ++row) {
    if (!vocab.has(symbols.str(sym_f::kind, row), vocab_bit::callable | vocab_bit::type)) continue;
    if (!symbols.flag(sym_f::is_export, row)) continue;
    if (is_private_name(view.pool.text(symbols.str(sym_f::name, row)))) continue;
    const std::uint32_t slot = symbols.slot(sym_f::id, row);
    if (slot < referenced.size() && referenced[slot]) continue;
    if (view.derived.member[row]) continue;
    rows.push_back(static_cast<std::uint32_t>(row));
  }
  return rows;
}

}  // namespace scope
