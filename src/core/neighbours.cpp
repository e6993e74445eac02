#include "neighbours.hpp"

#include <algorithm>

#include "rules.hpp"

namespace scope {

NeighbourRanking::NeighbourRanking(const FactsView& view) : view_(view) {
  const Table& out = view.outbound;
  const std::uint8_t* terms = view.derived.outbound_terms.data();
  const auto target = out.slots(out_f::target_id);
  const auto refs = out.ints(out_f::refs);
  // By slot: the summed refs and the last counted row; slots in first-counted order.
  std::vector<std::int64_t> sums(view.ids.size(), 0);
  std::vector<Row> last(view.ids.size(), Row::none);
  std::vector<Slot> order;
  for (std::size_t row = 0; row < out.rows(); ++row) {
    // Not a declaration of the page itself, and no mere name match.
    if ((terms[row] & (out_term::to_page | out_term::use)) != out_term::use) continue;
    const Slot slot = target[row];
    if (last[index(slot)] == Row::none) order.push_back(slot);
    sums[index(slot)] = checked_add(sums[index(slot)], refs[row]);
    last[index(slot)] = nth<Row>(row);
  }
  // Targets numbered in first-counted order, so that the number breaks ties.
  for (Slot slot : order) sums_.push_back(sums[index(slot)]), last_.push_back(last[index(slot)]);
  heap_.resize(order.size());
  for (std::uint32_t i = 0; i < heap_.size(); ++i) heap_[i] = i;
  std::make_heap(heap_.begin(), heap_.end(), [this](std::uint32_t a, std::uint32_t b) { return later(a, b); });
}

// std heaps put the largest first: "later" compares as larger. Count, fqn
// and first-counted order make a total order.
bool NeighbourRanking::later(std::uint32_t a, std::uint32_t b) const {
  if (sums_[a] != sums_[b]) return sums_[a] < sums_[b];
  const auto fqn = view_.outbound.strs(out_f::target_fqn);
  const StrId fa = fqn[index(last_[a])], fb = fqn[index(last_[b])];
  if (fa != fb) {
    const std::string_view ta = view_.pool.text(fa), tb = view_.pool.text(fb);
    if (ta != tb) return ta > tb;
  }
  return a > b;
}

bool NeighbourRanking::next(Neighbour& neighbour) {
  if (heap_.empty()) return false;
  std::pop_heap(heap_.begin(), heap_.end(), [this](std::uint32_t a, std::uint32_t b) { return later(a, b); });
  const std::uint32_t best = heap_.back();
  heap_.pop_back();
  neighbour = {last_[best], sums_[best], view_.outbound.str(out_f::target_path, last_[best])};
  return true;
}

std::vector<PathPairCount> name_match_counts(const FactsView& view) {
  std::vector<PathPairCount> counts;
  DenseIndex<> pairs;  // numbers the (source, target) pairs as positions in `counts`
  auto add = [&](const Table& table, const std::vector<std::uint8_t>& terms, std::uint8_t name_match, unsigned source,
                 unsigned target, unsigned refs) {
    for (Row row : table.all()) {
      if (!(terms[index(row)] & name_match)) continue;
      const StrId from = table.str(source, row), to = table.str(target, row);
      auto [pair, fresh] = pairs.insert((static_cast<std::uint64_t>(from) << 32) | static_cast<std::uint64_t>(to));
      if (fresh) counts.push_back({from, to, 0});
      counts[pair].count = checked_add(counts[pair].count, table.num(refs, row));
    }
  };
  add(view.inbound, view.derived.inbound_terms, in_term::name_match, in_f::source_path, in_f::target_path, in_f::refs);
  add(view.outbound, view.derived.outbound_terms, out_term::name_match, out_f::source_path, out_f::target_path,
      out_f::refs);
  return counts;
}

}  // namespace scope
