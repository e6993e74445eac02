// Flat containers for the hot loops: an interned string pool, an index that
// numbers 64-bit keys densely in first-seen order, and first-seen grouping.
// All are open-addressing tables or plain arrays: no allocation per element.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace scope {

// Index of an interned string. Strings are stored as UTF-8 (lone surrogates
// encoded as three bytes, so byte order is code point order) and compared by
// id for equality and by bytes for order.
using StrId = std::uint32_t;
inline constexpr StrId kNoStr = 0xffffffffu;

// Numbers 64-bit keys densely (0, 1, 2, ...) in the order they are first
// added: a table with linear probing and a multiplicative hash.
class DenseIndex {
 public:
  static constexpr std::uint32_t kAbsent = 0xffffffffu;

  // The number of `key`, and whether it was new.
  std::pair<std::uint32_t, bool> insert(std::uint64_t key) {
    if (2 * (keys_.size() + 1) > cells_.size()) grow();
    std::size_t at = home(key);
    while (cells_[at] != kAbsent) {
      if (keys_[cells_[at]] == key) return {cells_[at], false};
      at = (at + 1) & mask_;
    }
    cells_[at] = static_cast<std::uint32_t>(keys_.size());
    keys_.push_back(key);
    return {cells_[at], true};
  }
  // The number of `key`, or kAbsent.
  std::uint32_t find(std::uint64_t key) const {
    if (cells_.empty()) return kAbsent;
    for (std::size_t at = home(key);; at = (at + 1) & mask_) {
      if (cells_[at] == kAbsent || keys_[cells_[at]] == key) return cells_[at];
    }
  }
  void reserve(std::size_t count) {
    while (2 * count > cells_.size()) grow();
    keys_.reserve(count);
  }
  std::uint64_t key(std::uint32_t number) const { return keys_[number]; }
  std::size_t size() const { return keys_.size(); }
  std::size_t bytes() const { return cells_.capacity() * 4 + keys_.capacity() * 8; }

 private:
  std::size_t home(std::uint64_t key) const {
    return static_cast<std::size_t>((key * 0x9e3779b97f4a7c15ull) >> shift_);
  }
  void grow() {
    std::size_t size = cells_.empty() ? 16 : 2 * cells_.size();
    cells_.assign(size, kAbsent);
    mask_ = size - 1;
    shift_ = 64 - static_cast<unsigned>(std::countr_zero(size));
    for (std::uint32_t number = 0; number < keys_.size(); ++number) {
      std::size_t at = home(keys_[number]);
      while (cells_[at] != kAbsent) at = (at + 1) & mask_;
      cells_[at] = number;
    }
  }

  std::vector<std::uint32_t> cells_;  // a key's number, or kAbsent
  std::vector<std::uint64_t> keys_;   // by number
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
  std::string_view text(StrId id) const { return texts_[id]; }
  std::size_t size() const { return texts_.size(); }
  std::size_t bytes() const;

 private:
  struct Cell {
    std::uint32_t hash;  // the hash's upper half; the lower half chose the cell
    StrId id;            // kNoStr: empty
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

// Rows grouped by a key, groups in the order their key first occurs and
// rows within a group in their own order: `rows` holds the groups one after
// another, group g being rows[start[g] .. start[g + 1]).
struct Groups {
  std::vector<std::uint32_t> key;    // by group
  std::vector<std::uint32_t> start;  // by group, plus the end
  std::vector<std::uint32_t> rows;
  std::vector<std::uint32_t> group_of_key;  // by key; kNone when the key has no rows

  static constexpr std::uint32_t kNone = 0xffffffffu;
  std::size_t size() const { return key.size(); }
  std::span<const std::uint32_t> of(std::size_t group) const {
    return {rows.data() + start[group], rows.data() + start[group + 1]};
  }
  // The rows of `key`'s group, empty when it has none.
  std::span<const std::uint32_t> of_key(std::uint32_t k) const {
    if (k >= group_of_key.size() || group_of_key[k] == kNone) return {};
    return of(group_of_key[k]);
  }
};

// Groups the rows 0 .. row_count - 1 by `key_of(row)`, a key below
// `key_count`. Two passes over the rows; no allocation per row.
template <class KeyOf>
Groups group_rows(std::size_t row_count, std::size_t key_count, KeyOf key_of) {
  Groups g;
  g.group_of_key.assign(key_count, Groups::kNone);
  std::vector<std::uint32_t> sizes;
  std::vector<std::uint32_t> group_by_row(row_count);
  for (std::size_t row = 0; row < row_count; ++row) {
    std::uint32_t k = key_of(row);
    std::uint32_t& group = g.group_of_key[k];
    if (group == Groups::kNone) {
      group = static_cast<std::uint32_t>(g.key.size());
      g.key.push_back(k);
      sizes.push_back(0);
    }
    ++sizes[group];
    group_by_row[row] = group;
  }
  g.start.assign(g.key.size() + 1, 0);
  for (std::size_t group = 0; group < g.key.size(); ++group) g.start[group + 1] = g.start[group] + sizes[group];
  g.rows.resize(row_count);
  std::vector<std::uint32_t> fill(g.start.begin(), g.start.end() - 1);
  for (std::size_t row = 0; row < row_count; ++row) g.rows[fill[group_by_row[row]]++] = static_cast<std::uint32_t>(row);
  return g;
}

}  // namespace scope
