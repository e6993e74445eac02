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
    if (!public_top_level(view, vocab, row)) continue;
    const std::uint32_t slot = symbols.slot(sym_f::id, row);
    if (slot < referenced.size() && referenced[slot]) continue;
    rows.push_back(static_cast<std::uint32_t>(row));
  }
  return rows;
}

FileUsers file_users(const FactsView& view, const Vocab&) {
  const Table& in = view.inbound;
  const std::size_t strings = view.pool.size();
  FileUsers result;
  result.entry_of.assign(strings, FileUsers::kNone);
  // The counted rows, bucketed by target in first-counted order (each bucket
  // in row order), then summed per user within each bucket.
  const auto source = in.strs(in_f::source_path), target = in.strs(in_f::target_path);
  const std::uint8_t* terms = view.derived.inbound_terms.data();
  std::vector<std::uint32_t> counted;
  for (std::size_t row = 0; row < in.rows(); ++row) {
    const std::uint8_t term = terms[row];
    if (!counts_as_file_user(term & in_term::use, term & in_term::from_test, term & in_term::to_itself)) continue;
    std::uint32_t& entry = result.entry_of[target[row]];
    if (entry == FileUsers::kNone) {
      entry = static_cast<std::uint32_t>(result.target.size());
      result.target.push_back(target[row]);
    }
    counted.push_back(static_cast<std::uint32_t>(row));
  }
  Groups buckets = group_rows(counted.size(), result.target.size(),
                              [&](std::size_t i) { return result.entry_of[target[counted[i]]]; });
  std::vector<std::uint32_t> position(strings, FileUsers::kNone);  // user path -> index among the entry's users
  result.start.push_back(0);
  for (std::size_t entry = 0; entry < result.target.size(); ++entry) {
    const std::size_t first = result.users.size();
    for (std::uint32_t i : buckets.of(entry)) {
      const std::uint32_t row = counted[i];
      const std::int64_t refs = in.num(in_f::refs, row);
      std::uint32_t& at = position[source[row]];
      if (at == FileUsers::kNone) {
        at = static_cast<std::uint32_t>(result.users.size() - first);
        result.users.emplace_back(source[row], refs);
      } else {
        auto& sum = result.users[first + at].second;
        sum = checked_add(sum, refs);
      }
    }
    for (std::size_t i = first; i < result.users.size(); ++i) position[result.users[i].first] = FileUsers::kNone;
    result.start.push_back(static_cast<std::uint32_t>(result.users.size()));
  }
  result.users.shrink_to_fit();  // kept on the facts
  return result;
}

}  // namespace scope
