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
  std::vector<Slot>* order[2] = {&counts.outside_order, &counts.inside_order};
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const std::uint8_t term = terms[row];
    if (term & in_term::from_test) continue;  // a test neither counts nor marks its target
    Target& t = by_slot[index(target[row])];
    t.referenced |= static_cast<std::uint8_t>((term & in_term::marks) != 0);
    if (!(term & in_term::counted)) continue;
    const int side = (term & in_term::from_page) != 0;
    if (!(t.listed & (1 << side))) {
      t.listed |= static_cast<std::uint8_t>(1 << side);
      order[side]->push_back(target[row]);
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

std::vector<Row> entry_candidates(const FactsView& view, const Vocab& vocab, const std::vector<bool>& referenced) {
  const Table& symbols = view.symbols;
  std::vector<Row> rows;
  for (Row row : symbols.all()) {
    if (!public_top_level(view, vocab, row)) continue;
    const Slot slot = symbols.slot(sym_f::id, row);
    if (index(slot) < referenced.size() && referenced[index(slot)]) continue;
    rows.push_back(row);
  }
  return rows;
}

FileUsers file_users(const FactsView& view, const Vocab&) {
  const Table& in = view.inbound;
  const std::size_t strings = view.pool.size();
  FileUsers result;
  result.entry_of.assign(strings, kNoPosition);
  // The counted rows, bucketed by target in first-counted order (each bucket
  // in row order), then summed per user within each bucket.
  const auto source = in.strs(in_f::source_path), target = in.strs(in_f::target_path);
  const std::uint8_t* terms = view.derived.inbound_terms.data();
  std::vector<Row> counted;
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const std::uint8_t term = terms[row];
    if (!counts_as_file_user(term & in_term::use, term & in_term::from_test, term & in_term::to_itself)) continue;
    std::uint32_t& entry = result.entry_of[index(target[row])];
    if (entry == kNoPosition) {
      entry = static_cast<std::uint32_t>(result.target.size());
      result.target.push_back(target[row]);
    }
    counted.push_back(nth<Row>(row));
  }
  // Positions in `counted`, bucketed by entry.
  const auto buckets = group_rows<std::uint32_t>(counted.size(), result.target.size(), [&](std::size_t i) {
    return result.entry_of[index(target[index(counted[i])])];
  });
  std::vector<std::uint32_t> position(strings, kNoPosition);  // user path -> index among the entry's users
  result.start.push_back(0);
  for (std::size_t entry = 0; entry < result.target.size(); ++entry) {
    const std::size_t first = result.users.size();
    for (std::uint32_t i : buckets.of(entry)) {
      const Row row = counted[i];
      const std::int64_t refs = in.num(in_f::refs, row);
      const StrId user = source[index(row)];
      std::uint32_t& at = position[index(user)];
      if (at == kNoPosition) {
        at = static_cast<std::uint32_t>(result.users.size() - first);
        result.users.emplace_back(user, refs);
      } else {
        auto& sum = result.users[first + at].second;
        sum = checked_add(sum, refs);
      }
    }
    for (std::size_t i = first; i < result.users.size(); ++i) position[index(result.users[i].first)] = kNoPosition;
    result.start.push_back(static_cast<std::uint32_t>(result.users.size()));
  }
  result.users.shrink_to_fit();  // kept on the facts
  return result;
}

}  // namespace scope
