#include "flat.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace scope {

namespace {
constexpr std::size_t kFirstBlockBytes = 512, kBlockBytes = 64 * 1024;
}

std::pair<StrId, bool> StringPool::intern(std::string_view text, std::uint64_t hash) {
  if (2 * (texts_.size() + 1) > cells_.size()) grow();
  const std::size_t mask = cells_.size() - 1;
  const auto check = static_cast<std::uint32_t>(hash >> 32);
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    Cell& cell = cells_[at];
    if (cell.id == StrId::none) {
      if (texts_.size() >= index(StrId::none)) throw std::length_error("too many distinct strings");
      cell = {check, nth<StrId>(texts_.size())};
      texts_.push_back(store(text));
      hashes_.push_back(hash);
      return {cell.id, true};
    }
    if (cell.hash == check && texts_[index(cell.id)] == text) return {cell.id, false};
  }
}

StrId StringPool::intern(std::string_view text) { return intern(text, std::hash<std::string_view>{}(text)).first; }

void StringPool::grow() {
  std::size_t size = cells_.empty() ? 64 : 2 * cells_.size();
  std::vector<Cell> old = std::exchange(cells_, std::vector<Cell>(size, Cell{0, StrId::none}));
  const std::size_t mask = size - 1;
  for (const Cell& cell : old) {
    if (cell.id == StrId::none) continue;
    std::size_t at = hashes_[index(cell.id)] & mask;
    while (cells_[at].id != StrId::none) at = (at + 1) & mask;
    cells_[at] = cell;
  }
}

// Texts live in blocks that never move, so the views stay valid as the pool grows.
std::string_view StringPool::store(std::string_view text) {
  if (text.size() > block_left_) {
    // Blocks grow from small ones, so that a pool of a few paths costs little.
    const std::size_t next = blocks_.empty() ? kFirstBlockBytes : std::min(kBlockBytes, 2 * block_bytes_);
    const std::size_t size = std::max(next, text.size());
    blocks_.emplace_back(new char[size]);
    block_at_ = blocks_.back().get();
    block_left_ = size;
    block_bytes_ += size;
  }
  if (!text.empty()) std::memcpy(block_at_, text.data(), text.size());
  std::string_view stored(block_at_, text.size());
  block_at_ += text.size();
  block_left_ -= text.size();
  return stored;
}

std::size_t StringPool::bytes() const {
  return cells_.capacity() * sizeof(Cell) + texts_.capacity() * sizeof(std::string_view) +
         hashes_.capacity() * sizeof(std::uint64_t) + block_bytes_;
}

}  // namespace scope
