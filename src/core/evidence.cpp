#include "evidence.hpp"

namespace scope {

FanInCounts count_fan_in(const FactsView& view, const Vocab&) {
  const Table& in = view.inbound;
  const std::size_t slots = view.ids.size();
  const std::uint8_t* terms = view.derived.inbound_terms.data();
  const auto target = in.slots(in_f::target_id);
  const auto refs = in.ints(in_f::refs);
  // Everything a reference changes of its target, side by side: one cache
  // line a reference, as targets come in no useful order.
  struct Target {
    std::int64_t sums[2];  // outside, inside
    std::uint8_t listed;   // bit 0: in the outside order, bit 1: in the inside order
    std::uint8_t referenced;
  };
  std::vector<Target> by_slot(slots, Target{{0, 0}, 0, 0});
  FanInCounts counts;
  std::vector<std::uint32_t>* order[2] = {&counts.outside_order, &counts.inside_order};
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const std::uint8_t term = terms[row];
    if (term & in_term::from_test) continue;  // a test neither counts nor marks its target
    Target& t = by_slot[static_cast<std::uint32_t>(target[row])];
    t.referenced |= static_cast<std::uint8_t>((term & in_term::marks) != 0);
    if (!(term & in_term::counted)) continue;
    const int side = (term & in_term::from_page) != 0;
    if (!(t.listed & (1 << side))) {
      t.listed |= static_cast<std::uint8_t>(1 << side);
      order[side]->push_back(static_cast<std::uint32_t>(target[row]));
    }
    t.sums[side] = checked_add(t.sums[side], refs[row]);
  }
  counts.uses = FanInSlots(slots);
  counts.referenced.resize(slots);
  for (std::size_t slot = 0; slot < slots; ++slot) {
    counts.uses.outside[slot] = by_slot[slot].sums[0];
    counts.uses.inside[slot] = by_slot[slot].sums[1];
    counts.referenced[slot] = by_slot[slot].referenced != 0;
  }
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
