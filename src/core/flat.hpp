// Flat containers for the hot loops: an interned string pool, an index that
// numbers 64-bit keys densely in first-seen order, first-seen grouping, and
// a sort of the head of a list.
// All are open-addressing tables or plain arrays: no allocation per element.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace scope {

// What a number is. A row, a slot and a string id are each a 32-bit number
// of something one view holds; each has a type of its own, so that one is
// never taken for another, and one value, `none`, that numbers nothing (the
// largest, so that it fails every bounds test). Vectors by row, slot or
// string id are indexed through index().

// A record's position in one of the view's tables.
enum class Row : std::uint32_t { none = 0xffffffffu };
// A symbol id's number in the view's numbering of ids (FactsView::ids):
// declarations with equal ids, and the references to that id, share a slot.
enum class Slot : std::uint32_t { none = 0xffffffffu };
// An interned string's number in its StringPool. Strings are stored as UTF-8
// (lone surrogates encoded as three bytes, so byte order is code point
// order) and compared by id for equality and by bytes for order.
enum class StrId : std::uint32_t { none = 0xffffffffu };

constexpr std::size_t index(Row row) { return static_cast<std::size_t>(row); }
constexpr std::size_t index(Slot slot) { return static_cast<std::size_t>(slot); }
constexpr std::size_t index(StrId id) { return static_cast<std::size_t>(id); }
// The row, slot or string id (or plain position) numbered `n`, which is below 2^32 - 1.
template <class Number>
constexpr Number nth(std::size_t n) {
  return static_cast<Number>(n);
}

// A position in a list that an algorithm builds (a group, an entry, a
// consumer), or none.
inline constexpr std::uint32_t kNoPosition = 0xffffffffu;

// The rows 0 .. count - 1 in order: `for (Row row : table.all())`.
struct RowRange {
  struct Iterator {
    std::size_t at;
    Row operator*() const { return nth<Row>(at); }
    Iterator& operator++() {
      ++at;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return at != other.at; }
  };
  std::size_t count;
  Iterator begin() const { return {0}; }
  Iterator end() const { return {count}; }
};

// Sorts [first, last) by `before`, which must be a total order, or, when
// fewer than all are wanted, only its first `head` elements (the others
// follow them in no particular order).
template <class It, class Before>
void sort_head(It first, It last, std::size_t head, Before before) {
  if (head < static_cast<std::size_t>(last - first)) {
    std::partial_sort(first, first + static_cast<std::ptrdiff_t>(head), last, before);
  } else {
    std::sort(first, last, before);
  }
}

// Numbers 64-bit keys densely (0, 1, 2, ...) in the order they are first
// added, as `Number`s: slots for symbol ids, plain positions otherwise.
// Keys go to a table with linear probing and a multiplicative hash, but
// keys that tend to lie in a range not much wider than their count (`Narrow`:
// an index's row ids do) are numbered from a plain array at each key's
// offset in that range while they do: one small array to look in, which
// stays in cache while the records are read. Once a key would widen the
// range too far, the numbers move to the hash table.
template <class Number = std::uint32_t, bool Narrow = false>
class DenseIndex {
 public:
  // The number of `key`, and whether it was new.
  std::pair<Number, bool> insert(std::uint64_t key) {
    if (!hashed_) {
      if (key - base_ >= direct_.size() && !widen(key)) return insert_hashed(key);
      std::uint32_t& cell = direct_[key - base_];
      if (cell != kEmpty) return {static_cast<Number>(cell), false};
      cell = static_cast<std::uint32_t>(keys_.size());
      keys_.push_back(key);
      return {static_cast<Number>(cell), true};
    }
    return insert_hashed(key);
  }
  // The number of `key`, or none (Slot::none, kNoPosition) when it was never added.
  Number find(std::uint64_t key) const {
    if (!hashed_) return static_cast<Number>(key - base_ < direct_.size() ? direct_[key - base_] : kEmpty);
    if (cells_.empty()) return static_cast<Number>(kEmpty);
    for (std::size_t at = home(key);; at = (at + 1) & mask_) {
      if (cells_[at] == kEmpty || keys_[cells_[at]] == key) return static_cast<Number>(cells_[at]);
    }
  }
  void reserve(std::size_t count) {
    keys_.reserve(count);
    if (hashed_ && 2 * count > cells_.size()) grow(count);
  }
  std::uint64_t key(Number number) const { return keys_[static_cast<std::size_t>(number)]; }
  std::size_t size() const { return keys_.size(); }
  std::size_t bytes() const { return direct_.capacity() * 4 + cells_.capacity() * 4 + keys_.capacity() * 8; }

 private:
  // A cell that holds no number; as a Number, its none.
  static constexpr std::uint32_t kEmpty = kNoPosition;
  // The widest range kept as an array: this many cells per key, plus a few.
  static constexpr std::uint64_t kCellsPerKey = 4, kFewCells = std::uint64_t{1} << 16;

  // Makes the array's range take in `key`, with as much room again on the
  // side it grew (so that keys added in order cost amortized constant time),
  // unless the range would grow too wide: then the numbers move to the hash
  // table and it returns false.
  bool widen(std::uint64_t key) {
    const bool empty = direct_.empty();
    std::uint64_t low = empty ? key : std::min(base_, key);
    std::uint64_t high = empty ? key : std::max(base_ + (direct_.size() - 1), key);
    if (high - low >= kCellsPerKey * (keys_.size() + 1) + kFewCells) {
      hashed_ = true;
      std::vector<std::uint32_t>().swap(direct_);
      base_ = 0;
      grow(keys_.size() + 1);
      return false;
    }
    const std::uint64_t room = std::max<std::uint64_t>(high - low + 1, 64);
    if (empty || key >= base_)
      high += std::min(room, ~std::uint64_t{0} - high);
    else
      low -= std::min(room, low);
    direct_.assign(static_cast<std::size_t>(high - low + 1), kEmpty);
    base_ = low;
    for (std::uint32_t number = 0; number < keys_.size(); ++number) direct_[keys_[number] - base_] = number;
    return true;
  }

  std::pair<Number, bool> insert_hashed(std::uint64_t key) {
    if (2 * (keys_.size() + 1) > cells_.size()) grow(keys_.size() + 1);
    std::size_t at = home(key);
    while (cells_[at] != kEmpty) {
      if (keys_[cells_[at]] == key) return {static_cast<Number>(cells_[at]), false};
      at = (at + 1) & mask_;
    }
    cells_[at] = static_cast<std::uint32_t>(keys_.size());
    keys_.push_back(key);
    return {static_cast<Number>(cells_[at]), true};
  }
  std::size_t home(std::uint64_t key) const {
    return static_cast<std::size_t>((key * 0x9e3779b97f4a7c15ull) >> shift_);
  }
  // Doubles the hash table until it holds `count` keys at most half full,
  // and places every key in it.
  void grow(std::size_t count) {
    std::size_t size = cells_.empty() ? 16 : 2 * cells_.size();
    while (2 * count > size) size *= 2;
    cells_.assign(size, kEmpty);
    mask_ = size - 1;
    shift_ = 64 - static_cast<unsigned>(std::countr_zero(size));
    for (std::uint32_t number = 0; number < keys_.size(); ++number) {
      std::size_t at = home(keys_[number]);
      while (cells_[at] != kEmpty) at = (at + 1) & mask_;
      cells_[at] = number;
    }
  }

  bool hashed_ = !Narrow;
  std::uint64_t base_ = 0;             // the array's first key
  std::vector<std::uint32_t> direct_;  // by key - base_: its number, or kEmpty
  std::vector<std::uint32_t> cells_;   // the hash table: a key's number, or kEmpty
  std::vector<std::uint64_t> keys_;    // by number
  std::size_t mask_ = 0;
  unsigned shift_ = 64;
};

// Strings interned once each. The caller supplies the hash (the binding the
// one the host's str object already holds, so no text is hashed twice); one
// pool must always be given the same kind of hash.
class StringPool {
 public:
  // The id of `text`, interning a copy when it is new, and whether it was.
  std::pair<StrId, bool> intern(std::string_view text, std::uint64_t hash);
  // With the standard library's hash of the text.
  StrId intern(std::string_view text);
  std::string_view text(StrId id) const { return texts_[index(id)]; }
  std::size_t size() const { return texts_.size(); }
  std::size_t bytes() const;

 private:
  struct Cell {
    std::uint32_t hash;  // the hash's upper half; the lower half chose the cell
    StrId id;            // none: empty
  };
  void grow();
  std::string_view store(std::string_view text);

  std::vector<Cell> cells_;
  std::vector<std::string_view> texts_;  // by id, into blocks_
  std::vector<std::uint64_t> hashes_;    // by id, to place the cells when the table grows
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::size_t block_left_ = 0;
  char* block_at_ = nullptr;
  std::size_t block_bytes_ = 0;
};

// Rows (or other items) grouped by a key, groups in the order their key
// first occurs and items within a group in their own order: `rows` holds the
// groups one after another, group g being rows[start[g] .. start[g + 1]).
template <class Key, class Item>
struct Groups {
  std::vector<Key> key;              // by group
  std::vector<std::uint32_t> start;  // by group, plus the end
  std::vector<Item> rows;
  std::vector<std::uint32_t> group_of_key;  // by key; kNoPosition when the key has no rows

  std::size_t size() const { return key.size(); }
  std::span<const Item> of(std::size_t group) const {
    return {rows.data() + start[group], rows.data() + start[group + 1]};
  }
  // The items of `k`'s group, empty when it has none.
  std::span<const Item> of_key(Key k) const {
    const auto at = static_cast<std::size_t>(k);
    if (at >= group_of_key.size() || group_of_key[at] == kNoPosition) return {};
    return of(group_of_key[at]);
  }
};

// Groups the items 0 .. count - 1 (as `Item`s) by `key_of(item)`, a key
// below `key_count`. Two passes over the items; no allocation per item.
template <class Item, class KeyOf>
auto group_rows(std::size_t count, std::size_t key_count, KeyOf key_of) {
  using Key = decltype(key_of(std::size_t{0}));
  Groups<Key, Item> g;
  g.group_of_key.assign(key_count, kNoPosition);
  std::vector<std::uint32_t> sizes;
  std::vector<std::uint32_t> group_by_item(count);
  for (std::size_t item = 0; item < count; ++item) {
    const Key k = key_of(item);
    std::uint32_t& group = g.group_of_key[static_cast<std::size_t>(k)];
    if (group == kNoPosition) {
      group = static_cast<std::uint32_t>(g.key.size());
      g.key.push_back(k);
      sizes.push_back(0);
    }
    ++sizes[group];
    group_by_item[item] = group;
  }
  g.start.assign(g.key.size() + 1, 0);
  for (std::size_t group = 0; group < g.key.size(); ++group) g.start[group + 1] = g.start[group] + sizes[group];
  g.rows.resize(count);
  std::vector<std::uint32_t> fill(g.start.begin(), g.start.end() - 1);
  for (std::size_t item = 0; item < count; ++item) g.rows[fill[group_by_item[item]]++] = nth<Item>(item);
  return g;
}

}  // namespace scope
