#include "ranking.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>

namespace scope {

KeyInput key_input(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in, Row row) {
  const Table& symbols = view.symbols;
  const Slot slot = symbols.slot(sym_f::id, row);
  const StrId kind = symbols.str(sym_f::kind, row);
  return KeyInput{fan_in.api(slot),
                  vocab.has(kind, vocab_bit::callable | vocab_bit::type),
                  vocab.has(kind, vocab_bit::constant),
                  is_private_name(view.pool.text(symbols.str(sym_f::name, row))),
                  fan_in.outside_of(slot),
                  fan_in.inside_of(slot),
                  symbols.num(sym_f::start_line, row),
                  symbols.num(sym_f::end_line, row)};
}

std::vector<RankKey> rank_keys(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in) {
  std::vector<RankKey> keys;
  keys.reserve(view.symbols.rows());
  for (Row row : view.symbols.all()) keys.push_back(rank_key(key_input(view, vocab, fan_in, row)));
  return keys;
}

Ranking ranked_by_file(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in) {
  const std::vector<RankKey> keys = rank_keys(view, vocab, fan_in);
  const Groups<StrId, Row>& files = view.derived.symbols_by_path;
  Ranking ranking{files.rows};
  for (std::size_t group = 0; group < files.size(); ++group)
    std::stable_sort(ranking.rows.begin() + files.start[group], ranking.rows.begin() + files.start[group + 1],
                     [&](Row a, Row b) { return keys[index(a)] < keys[index(b)]; });
  return ranking;
}

std::vector<Seed> file_seeds(const FactsView& view, const Ranking& ranking) {
  const Table& symbols = view.symbols;
  std::vector<Seed> seeds;
  std::vector<bool> seeded(view.pool.size(), false);
  const Groups<StrId, Row>& files = view.derived.symbols_by_path;
  for (std::size_t group = 0; group < files.size(); ++group) {
    for (Row row : ranking.of(files, group)) {
      std::int64_t start = symbols.num(sym_f::start_line, row);
      if (start <= 0) continue;  // line 0 cannot be cited
      StrId path = files.key[group];
      seeds.push_back({path, start, std::max(start, symbols.num(sym_f::end_line, row))});
      seeded[index(path)] = true;
      break;
    }
  }
  for (Row row : view.files.all()) {
    StrId path = view.files.str(file_f::path, row);
    std::int64_t lines = view.line_count(path);
    if (lines > 0 && !seeded[index(path)]) {
      seeds.push_back({path, 1, lines});
      seeded[index(path)] = true;
    }
  }
  return seeds;
}

std::int64_t quota_cap(std::int64_t total, Share share, std::int64_t floor_each) {
  if (share.exact) return share.at_least_one ? std::max(floor_each, total) : floor_each;
  double product = static_cast<double>(total) * share.value;
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

namespace {

// The state of one quota selection: the files that take part and how many
// of each file's first declarations are taken.
class Quota {
 public:
  Quota(const std::vector<QuotaFile>& all, const std::vector<RankKey>& keys, std::int64_t total) : keys_(keys) {
    for (const QuotaFile& file : all)
      if (file.count > 0) files_.push_back(file);
    taken_.assign(files_.size(), 0);
    budget_ = total;
  }
  bool empty() const { return files_.empty(); }
  std::int64_t file_count() const { return static_cast<std::int64_t>(files_.size()); }

  // Floor stage: files by the key of their first declaration, each taking
  // up to `floor_each` while the budget lasts.
  void take_floors(std::int64_t floor_each) {
    std::vector<std::size_t> order(files_.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return key(a, 0) < key(b, 0); });
    for (std::size_t file : order) {
      taken_[file] = std::min({floor_each, length(file), budget_});
      budget_ -= taken_[file];
    }
  }

  // Sharing stage: two walks over the rest in (key, path) order, the first
  // holding every file to `cap`, the second to the total. A declaration is
  // taken only as the next of its file, so each file's selection is a
  // leading run of its sequence. Both walks act only while budget is left,
  // so the order is produced only as far as they get.
  void share(std::int64_t cap, std::int64_t total) {
    RestOrder rest(*this);
    for (std::int64_t limit : {cap, total}) {
      for (std::size_t step = 0; budget_ > 0; ++step) {
        const Pending* pending = rest.at(step);
        if (pending == nullptr) break;
        std::int64_t& count = taken_[pending->file];
        if (count == pending->index && count < limit) {
          ++count;
          --budget_;
        }
      }
    }
  }

  // Every file's best, then every file's second, ...: indices into keys.
  std::vector<std::size_t> interleaved() const {
    struct Pick {
      std::int64_t index;
      std::size_t file;
    };
    std::vector<Pick> picked;
    for (std::size_t file = 0; file < files_.size(); ++file)
      for (std::int64_t index = 0; index < taken_[file]; ++index) picked.push_back({index, file});
    std::stable_sort(picked.begin(), picked.end(), [&](const Pick& a, const Pick& b) {
      if (a.index != b.index) return a.index < b.index;
      const RankKey &ka = key(a.file, a.index), &kb = key(b.file, b.index);
      if (ka != kb) return ka < kb;
      return files_[a.file].path < files_[b.file].path;
    });
    std::vector<std::size_t> result;
    result.reserve(picked.size());
    for (const Pick& pick : picked) result.push_back(files_[pick.file].first + static_cast<std::size_t>(pick.index));
    return result;
  }

 private:
  struct Pending {
    std::size_t file;
    std::int64_t index;
  };
  const RankKey& key(std::size_t file, std::int64_t index) const {
    return keys_[files_[file].first + static_cast<std::size_t>(index)];
  }
  std::int64_t length(std::size_t file) const { return static_cast<std::int64_t>(files_[file].count); }

  // The declarations the floor stage left, ascending by (key, path), ties in
  // file order and then index order (the order of a stable sort), produced
  // on demand from a heap. When every file's rest is already best first (as
  // ranked_by_file gives it), the heap holds one declaration per file and
  // the order is a merge of the files' runs; otherwise it holds them all.
  class RestOrder {
   private:
    // std heaps put the largest first: "later" compares as larger.
    struct Later {
      const RestOrder* order;
      bool operator()(const Pending& a, const Pending& b) const {
        const Quota& quota = order->quota_;
        const std::vector<std::size_t>& rank = order->path_rank_;
        const RankKey &ka = quota.key(a.file, a.index), &kb = quota.key(b.file, b.index);
        if (ka != kb) return kb < ka;
        if (rank[a.file] != rank[b.file]) return rank[b.file] < rank[a.file];
        if (a.file != b.file) return b.file < a.file;
        return b.index < a.index;
      }
    };

   public:
    explicit RestOrder(const Quota& quota) : quota_(quota), path_rank_(quota.path_ranks()) {
      bool runs_sorted = true;
      for (std::size_t file = 0; file < quota.files_.size() && runs_sorted; ++file)
        for (std::int64_t index = quota.taken_[file] + 1; index < quota.length(file) && runs_sorted; ++index)
          runs_sorted = !(quota.key(file, index) < quota.key(file, index - 1));
      runs_sorted_ = runs_sorted;
      for (std::size_t file = 0; file < quota.files_.size(); ++file) {
        const std::int64_t end =
            runs_sorted ? std::min(quota.taken_[file] + 1, quota.length(file)) : quota.length(file);
        for (std::int64_t index = quota.taken_[file]; index < end; ++index) heap_.push_back({file, index});
      }
      std::make_heap(heap_.begin(), heap_.end(), Later{this});
    }
    // The step-th declaration of the order, or null past its end.
    const Pending* at(std::size_t step) {
      while (walked_.size() <= step) {
        if (heap_.empty()) return nullptr;
        std::pop_heap(heap_.begin(), heap_.end(), Later{this});
        Pending next = heap_.back();
        heap_.pop_back();
        if (runs_sorted_ && next.index + 1 < quota_.length(next.file)) {
          heap_.push_back({next.file, next.index + 1});
          std::push_heap(heap_.begin(), heap_.end(), Later{this});
        }
        walked_.push_back(next);
      }
      return &walked_[step];
    }

   private:
    const Quota& quota_;
    std::vector<std::size_t> path_rank_;
    bool runs_sorted_ = true;
    std::vector<Pending> heap_, walked_;
  };

  // Each file's rank among the paths in code point order; equal paths share one.
  std::vector<std::size_t> path_ranks() const {
    std::vector<std::size_t> by_path(files_.size()), rank(files_.size());
    std::iota(by_path.begin(), by_path.end(), 0);
    std::stable_sort(by_path.begin(), by_path.end(),
                     [&](std::size_t a, std::size_t b) { return files_[a].path < files_[b].path; });
    for (std::size_t i = 0; i < by_path.size(); ++i)
      rank[by_path[i]] = i > 0 && files_[by_path[i]].path == files_[by_path[i - 1]].path ? rank[by_path[i - 1]] : i;
    return rank;
  }

  const std::vector<RankKey>& keys_;
  std::vector<QuotaFile> files_;
  std::vector<std::int64_t> taken_;
  std::int64_t budget_ = 0;
};

}  // namespace

std::vector<std::size_t> select_with_quota(const std::vector<QuotaFile>& files, const std::vector<RankKey>& keys,
                                           std::int64_t total, std::int64_t floor, Share share) {
  Quota quota(files, keys, total);
  if (quota.empty() || total <= 0) return {};
  const std::int64_t floor_each = std::max<std::int64_t>(1, std::min(floor, total / quota.file_count()));
  quota.take_floors(floor_each);
  quota.share(quota_cap(total, share, floor_each), total);
  return quota.interleaved();
}

bool Spreader::offer(StrId path) {
  if (index(path) >= counts_.size()) counts_.resize(index(path) + 1, 0);
  std::int64_t& count = counts_[index(path)];
  if (count >= per_file_) return false;
  ++count;
  ++taken_;
  return true;
}

}  // namespace scope
