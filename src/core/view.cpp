#include "view.hpp"

#include <stdexcept>

namespace scope {

StrId StringPool::intern(std::string_view text) {
  auto found = index_.find(text);
  if (found != index_.end()) return found->second;
  if (strings_.size() >= kNoStr) throw std::length_error("too many distinct strings");
  auto id = static_cast<StrId>(strings_.size());
  const std::string& stored = strings_.emplace_back(text);
  index_.emplace(std::string_view(stored), id);
  return id;
}

StrId StringPool::find(std::string_view text) const {
  auto found = index_.find(text);
  return found == index_.end() ? kNoStr : found->second;
}

void FactsView::set_path_bit(StrId path, std::uint8_t which) {
  if (path >= path_bits.size()) path_bits.resize(std::size_t{path} + 1, 0);
  path_bits[path] |= which;
}

namespace {
bool first_sight(std::vector<bool>& seen, StrId id) {
  if (id >= seen.size()) seen.resize(std::size_t{id} + 1, false);
  if (seen[id]) return false;
  seen[id] = true;
  return true;
}
}  // namespace

void FactsView::note_kind(StrId id) {
  if (first_sight(kinds_seen_, id)) kind_ids.push_back(id);
}

void FactsView::note_resolution(StrId id) {
  if (first_sight(resolutions_seen_, id)) resolution_ids.push_back(id);
}

void Vocab::set(StrId id, std::uint16_t which) {
  if (id >= bits.size()) bits.resize(std::size_t{id} + 1, 0);
  bits[id] |= which;
}

void Vocab::set_literals(const StringPool& pool, StrId id) {
  std::string_view text = pool.text(id);
  if (text == "constant") set(id, vocab_bit::constant);
  if (text == "unique") set(id, vocab_bit::unique);
  if (text == "legacy") set(id, vocab_bit::legacy);
}

}  // namespace scope
