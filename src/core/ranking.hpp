// Ranking and selection: one order of importance for declarations, each
// file's declarations in that order, citable seeds, the quota of blocks and
// the spread of a best-first name list.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "evidence.hpp"
#include "needs.hpp"
#include "rules.hpp"

namespace scope {

// The key of every declaration of the view, by row.
inline constexpr Needs kRankKeyNeeds{.symbols =
                                         bits(sym_f::id, sym_f::kind, sym_f::name, sym_f::start_line, sym_f::end_line)};
KeyInput key_input(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in, Row row);
std::vector<RankKey> rank_keys(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in);

// Each file's declarations best first (stable), files in the order of their
// first declaration: the groups of symbols_by_path, each sorted by key.
struct Ranking {
  std::vector<Row> rows;  // the rows of symbols_by_path, each group sorted best first
  std::span<const Row> of(const Groups<StrId, Row>& by_path, std::size_t group) const {
    return {rows.data() + by_path.start[group], rows.data() + by_path.start[group + 1]};
  }
};
inline constexpr Needs kRankedNeeds = kRankKeyNeeds | Needs{.derived = derived::by_path};
Ranking ranked_by_file(const FactsView& view, const Vocab& vocab, const FanInSlots& fan_in);

// One (start, end) line range per file: its best declaration that starts
// after line 0, else its whole text when it was read and is not empty.
struct Seed {
  StrId path;
  std::int64_t start, end;
};
inline constexpr Needs kSeedNeeds = kRankedNeeds | Needs{.files = bit(file_f::path), .line_counts = true};
std::vector<Seed> file_seeds(const FactsView& view, const Ranking& ranking);

// One file of a quota selection: its declarations are `count` consecutive
// entries of `keys`, starting at `first`, in the caller's order.
struct QuotaFile {
  std::string_view path;
  std::size_t first;
  std::size_t count;
};

// The largest share of the total that one file may take in the first
// sharing pass. An int share multiplies exactly: any int of 1 or more lets a
// file take the whole total, any of 0 or less holds it to its floor.
struct Share {
  double value = 0;
  bool exact = false;  // an int: only `at_least_one` matters
  bool at_least_one = false;
};

// The cap of the first sharing pass: the ceiling of total * share in double
// precision, never below floor_each. An infinite product is an
// overflow_error, a NaN one a domain_error, as for any ceiling.
std::int64_t quota_cap(std::int64_t total, Share share, std::int64_t floor_each);

// Up to `total` entries (indices into `keys`), every file's best first, then
// every file's second, and so on. Files with no declarations are ignored.
std::vector<std::size_t> select_with_quota(const std::vector<QuotaFile>& files, const std::vector<RankKey>& keys,
                                           std::int64_t total, std::int64_t floor, Share share);

// The walk of a best-first (name, path) list: at most `limit` names, at most
// `per_file` of them from one path. Feed paths with `offer` while `full()`
// is false.
class Spreader {
 public:
  Spreader(std::int64_t limit, std::int64_t per_file) : limit_(limit), per_file_(per_file) {}
  bool full() const { return taken_ >= limit_; }
  // Whether the name with this path is taken.
  bool offer(StrId path);

 private:
  std::int64_t limit_, per_file_, taken_ = 0;
  std::vector<std::int64_t> counts_;  // by StrId
};

}  // namespace scope
