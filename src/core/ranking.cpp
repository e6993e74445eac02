#include "ranking.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <unordered_map>

namespace scope {

RankKey rank_key(const KeyFields& symbol, const KeyUses& uses) {
  const __int128 weight = symbol.kind == "constant" ? 1 : 2;
  const __int128 size = __int128{symbol.end_line} - symbol.start_line;
  return RankKey{
      !(uses.outside > 0 || uses.entry),  // as FanIn.api
      symbol.type_or_callable ? 0 : 1,     symbol.name.starts_with('_'), -(weight * uses.outside),
      -std::min<__int128>(size, kSizeCap), -(weight * uses.inside),      symbol.start_line,
  };
}

RankKey rank_key(const StringPool& pool, const Table& table, std::size_t row, const Vocab& vocab,
                 const FanInView& fan_in) {
  const std::int64_t id = table.num(sym_f::id, row);
  const StrId kind = table.str(sym_f::kind, row);
  KeyUses uses{fan_in.outside_count(id), fan_in.inside_count(id), false};
  uses.entry = uses.outside <= 0 && fan_in.entry.count(id) != 0;
  return rank_key(KeyFields{id, pool.text(kind), vocab.has(kind, vocab_bit::callable | vocab_bit::type),
                            pool.text(table.str(sym_f::name, row)), table.num(sym_f::start_line, row),
                            table.num(sym_f::end_line, row)},
                  uses);
}

RankedFiles ranked_by_file(const FactsView& view, const Vocab& vocab, const FanInView& fan_in) {
  const Table& symbols = view.symbols;
  RankedFiles ranked;
  std::unordered_map<StrId, std::size_t> slot;
  for (std::size_t row = 0; row < symbols.rows; ++row) {
    auto [found, fresh] = slot.try_emplace(symbols.str(sym_f::path, row), ranked.size());
    if (fresh) ranked.emplace_back(symbols.str(sym_f::path, row), std::vector<std::size_t>{});
    ranked[found->second].second.push_back(row);
  }
  std::vector<RankKey> keys;
  keys.reserve(symbols.rows);
  for (std::size_t row = 0; row < symbols.rows; ++row) keys.push_back(rank_key(view.pool, symbols, row, vocab, fan_in));
  for (auto& [path, rows] : ranked)
    std::stable_sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
  return ranked;
}

std::vector<std::pair<StrId, std::pair<std::int64_t, std::int64_t>>> file_seeds(const FactsView& view,
                                                                                const Vocab& vocab,
                                                                                const FanInView& fan_in) {
  const Table& symbols = view.symbols;
  std::vector<std::pair<StrId, std::pair<std::int64_t, std::int64_t>>> seeds;
  std::unordered_map<StrId, bool> seeded;
  for (const auto& [path, rows] : ranked_by_file(view, vocab, fan_in)) {
    for (std::size_t row : rows) {
      std::int64_t start = symbols.num(sym_f::start_line, row);
      if (start <= 0) continue;  // line 0 cannot be cited
      seeds.push_back({path, {start, std::max(start, symbols.num(sym_f::end_line, row))}});
      seeded[path] = true;
      break;
    }
  }
  for (std::size_t row = 0; row < view.files.rows; ++row) {
    StrId path = view.files.str(file_f::path, row);
    auto count = view.line_counts.find(path);
    std::int64_t lines = count == view.line_counts.end() ? 0 : count->second;
    if (lines > 0 && !seeded[path]) {
      seeds.push_back({path, {1, lines}});
      seeded[path] = true;
    }
  }
  return seeds;
}

std::int64_t quota_cap(std::int64_t total, double max_share, std::int64_t floor_each) {
  double product = static_cast<double>(total) * max_share;
  if (std::isnan(product)) throw std::domain_error("max_share: ceil(total * max_share) of NaN is not an integer");
  if (std::isinf(product))
    throw std::overflow_error("max_share: ceil(total * max_share) of infinity is not an integer");
  double ceiling = std::ceil(product);
  // Any cap at or beyond the total behaves alike; clamp instead of
  // overflowing. Every whole double in [-2^63, 2^63) converts exactly.
  constexpr double kTwo63 = 0x1p63;
  std::int64_t cap = ceiling >= kTwo63   ? std::numeric_limits<std::int64_t>::max()
                     : ceiling < -kTwo63 ? std::numeric_limits<std::int64_t>::min()
                                         : static_cast<std::int64_t>(ceiling);
  return std::max(floor_each, cap);
}

std::vector<std::size_t> select_with_quota(const std::vector<QuotaFile>& all_files, const std::vector<RankKey>& keys,
                                           std::int64_t total, std::int64_t floor, double max_share) {
  std::vector<QuotaFile> files;
  for (const QuotaFile& file : all_files)
    if (file.count > 0) files.push_back(file);
  if (files.empty() || total <= 0) return {};
  const auto file_count = static_cast<std::int64_t>(files.size());
  const std::int64_t floor_each = std::max<std::int64_t>(1, std::min(floor, total / file_count));
  std::vector<std::int64_t> taken(files.size(), 0);
  std::int64_t budget = total;
  auto key_of = [&](std::size_t file, std::int64_t index) -> const RankKey& {
    return keys[files[file].first + static_cast<std::size_t>(index)];
  };
  auto length = [&](std::size_t file) { return static_cast<std::int64_t>(files[file].count); };

  // Floor stage: files by the key of their first declaration.
  std::vector<std::size_t> order(files.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return key_of(a, 0) < key_of(b, 0); });
  for (std::size_t file : order) {
    taken[file] = std::min({floor_each, length(file), budget});
    budget -= taken[file];
  }

  // The rest, walked in ascending (key, path) order, ties in file and index
  // order. Both passes only act while budget is left, so the order is
  // produced lazily from a heap and only as far as the passes get.
  std::vector<std::size_t> path_rank(files.size());
  {
    std::vector<std::size_t> by_path(files.size());
    std::iota(by_path.begin(), by_path.end(), 0);
    std::stable_sort(by_path.begin(), by_path.end(),
                     [&](std::size_t a, std::size_t b) { return files[a].path < files[b].path; });
    for (std::size_t rank = 0; rank < by_path.size(); ++rank)
      path_rank[by_path[rank]] =
          rank == 0 || files[by_path[rank]].path != files[by_path[rank - 1]].path ? rank : path_rank[by_path[rank - 1]];
  }
  struct Pending {
    const RankKey* key;
    std::size_t path_rank;
    std::size_t file;
    std::int64_t index;
  };
  // std heaps put the largest first: "later" compares as larger. Equal keys
  // and paths fall back to file order, then index order: the stable order.
  auto later = [](const Pending& a, const Pending& b) {
    if (*a.key != *b.key) return *b.key < *a.key;
    if (a.path_rank != b.path_rank) return b.path_rank < a.path_rank;
    if (a.file != b.file) return b.file < a.file;
    return b.index < a.index;
  };
  // When every file's remaining declarations are already best first (as
  // ranked_by_file gives them), the order is a merge of the files: the heap
  // then holds one declaration per file. Otherwise it holds them all.
  bool runs_sorted = true;
  for (std::size_t file = 0; file < files.size() && runs_sorted; ++file)
    for (std::int64_t index = taken[file]; index + 1 < length(file) && runs_sorted; ++index)
      runs_sorted = !(key_of(file, index + 1) < key_of(file, index));
  std::vector<Pending> heap;
  for (std::size_t file = 0; file < files.size(); ++file)
    for (std::int64_t index = taken[file];
         index < (runs_sorted ? std::min(taken[file] + 1, length(file)) : length(file)); ++index)
      heap.push_back({&key_of(file, index), path_rank[file], file, index});
  std::make_heap(heap.begin(), heap.end(), later);
  std::vector<Pending> walked;  // the part of the order produced so far
  auto next = [&](std::size_t step) -> const Pending* {
    if (step < walked.size()) return &walked[step];
    if (heap.empty()) return nullptr;
    std::pop_heap(heap.begin(), heap.end(), later);
    Pending popped = heap.back();
    heap.pop_back();
    if (runs_sorted && popped.index + 1 < length(popped.file)) {
      heap.push_back({&key_of(popped.file, popped.index + 1), popped.path_rank, popped.file, popped.index + 1});
      std::push_heap(heap.begin(), heap.end(), later);
    }
    walked.push_back(popped);
    return &walked.back();
  };

  const std::int64_t cap = quota_cap(total, max_share, floor_each);
  for (std::int64_t limit : {cap, total}) {
    for (std::size_t step = 0; budget > 0; ++step) {
      const Pending* pending = next(step);
      if (pending == nullptr) break;
      std::int64_t& count = taken[pending->file];
      if (count == pending->index && count < limit) {
        ++count;
        --budget;
      }
    }
  }

  // Interleave: every file's best, then every file's second, ...
  struct Pick {
    std::int64_t index;
    std::size_t file;
  };
  std::vector<Pick> picked;
  for (std::size_t file = 0; file < files.size(); ++file)
    for (std::int64_t index = 0; index < taken[file]; ++index) picked.push_back({index, file});
  std::stable_sort(picked.begin(), picked.end(), [&](const Pick& a, const Pick& b) {
    if (a.index != b.index) return a.index < b.index;
    const RankKey &ka = key_of(a.file, a.index), &kb = key_of(b.file, b.index);
    if (ka != kb) return ka < kb;
    return files[a.file].path < files[b.file].path;
  });
  std::vector<std::size_t> result;
  result.reserve(picked.size());
  for (const Pick& pick : picked) result.push_back(files[pick.file].first + static_cast<std::size_t>(pick.index));
  return result;
}

bool Spreader::offer(StrId path) {
  std::int64_t& count = counts_[path];
  if (count >= per_file_) return false;
  ++count;
  ++taken_;
  return true;
}

}  // namespace scope
