// Insertion-ordered counters and exact integer sums.
#pragma once

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace scope {

// Sums of `refs` are exact: a sum that leaves the 64-bit range is an error,
// never a wrapped value.
inline std::int64_t checked_add(std::int64_t a, std::int64_t b) {
  std::int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) throw std::overflow_error("a sum of refs does not fit in 64 bits");
  return sum;
}

// A map from key to count that remembers the order in which keys were first
// added, like the host's insertion-ordered counters.
template <class Key, class Hash = std::hash<Key>>
class OrderedCounter {
 public:
  void add(const Key& key, std::int64_t amount) {
    auto [slot, fresh] = index_.try_emplace(key, entries_.size());
    if (fresh) {
      entries_.emplace_back(key, amount);
    } else {
      auto& count = entries_[slot->second].second;
      count = checked_add(count, amount);
    }
  }
  std::int64_t get(const Key& key) const {
    auto found = index_.find(key);
    return found == index_.end() ? 0 : entries_[found->second].second;
  }
  bool contains(const Key& key) const { return index_.count(key) != 0; }
  const std::vector<std::pair<Key, std::int64_t>>& entries() const { return entries_; }
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }

  // Entries by count, highest first; equal counts keep insertion order.
  std::vector<std::pair<Key, std::int64_t>> most_common() const {
    auto sorted = entries_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    return sorted;
  }
  std::int64_t total() const {
    std::int64_t sum = 0;
    for (const auto& entry : entries_) sum = checked_add(sum, entry.second);
    return sum;
  }

 private:
  std::vector<std::pair<Key, std::int64_t>> entries_;
  std::unordered_map<Key, std::size_t, Hash> index_;
};

// Production uses per symbol id, as the algorithms read a fan-in.
struct FanInView {
  std::unordered_map<std::int64_t, std::int64_t> outside;
  std::unordered_map<std::int64_t, std::int64_t> inside;
  std::unordered_set<std::int64_t> entry;

  std::int64_t outside_count(std::int64_t id) const {
    auto found = outside.find(id);
    return found == outside.end() ? 0 : found->second;
  }
  std::int64_t inside_count(std::int64_t id) const {
    auto found = inside.find(id);
    return found == inside.end() ? 0 : found->second;
  }
  // API: some counted use from outside the page, or an entry point.
  bool api(std::int64_t id) const { return outside_count(id) > 0 || entry.count(id) != 0; }
};

}  // namespace scope
