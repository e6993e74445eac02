#include "evidence.hpp"

namespace scope {

bool is_use_row(const FactsView& view, const Vocab& vocab, unsigned resolution, unsigned target_kind,
                unsigned target_path, std::size_t row) {
  const Table& in = view.inbound;
  const StrId r = in.str(resolution, row);
  return is_use([&] { return vocab.has(r, vocab_bit::evidence); }, [&] { return vocab.has(r, vocab_bit::unique); },
                [&] { return view.path_has(in.str(target_path, row), path_bit::import_resolved); },
                [&] { return vocab.has(in.str(target_kind, row), vocab_bit::name_match); });
}

FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab) {
  const Table& in = view.inbound;
  const std::vector<std::uint32_t>& slot_of = view.derived.inbound_slot;
  const std::size_t slots = view.derived.ids.size();
  FanInCounts counts{FanInSlots(slots), {}, {}, std::vector<bool>(slots, false)};
  std::vector<bool> listed[2] = {std::vector<bool>(slots, false), std::vector<bool>(slots, false)};
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const StrId source = in.str(in_f::source_path, row);
    // A test's reference neither counts nor marks its target.
    if (view.path_has(source, path_bit::test_source)) continue;
    const StrId resolution = in.str(in_f::resolution, row);
    const std::uint32_t slot = slot_of[row];
    if (!vocab.has(resolution, vocab_bit::legacy)) counts.referenced[slot] = true;
    if (!counts_toward_fan_in(vocab.has(resolution, vocab_bit::evidence), vocab.has(resolution, vocab_bit::trusted),
                              vocab.has(in.str(in_f::target_kind, row), vocab_bit::name_match)))
      continue;
    const bool inside = view.path_has(source, path_bit::in_page);
    std::vector<std::int64_t>& sums = inside ? counts.uses.inside : counts.uses.outside;
    if (!listed[inside][slot]) {
      listed[inside][slot] = true;
      (inside ? counts.inside_order : counts.outside_order).push_back(slot);
    }
    sums[slot] = checked_add(sums[slot], in.num(in_f::refs, row));
  }
  return counts;
}

std::vector<std::uint32_t> entry_candidates(const FactsView& view, const Vocab& vocab,
                                            const std::vector<bool>& referenced) {
  const Table& symbols = view.symbols;
  const Derived& d = view.derived;
  std::vector<std::uint32_t> rows;
  for (std::size_t row = 0; row < symbols.rows(); ++row) {
    if (!vocab.has(symbols.str(sym_f::kind, row), vocab_bit::callable | vocab_bit::type)) continue;
    if (!symbols.flag(sym_f::is_export, row)) continue;
    if (is_private_name(view.pool.text(symbols.str(sym_f::name, row)))) continue;
    const std::uint32_t slot = d.symbol_slot[row];
    if (slot < referenced.size() && referenced[slot]) continue;
    if (d.member[row]) continue;
    rows.push_back(static_cast<std::uint32_t>(row));
  }
  return rows;
}

}  // namespace scope
