// Ranking and selection: one order of importance for declarations, each
// file's declarations in that order, citable seeds, the quota of blocks and
// the spread of a best-first name list.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "counter.hpp"
#include "view.hpp"

namespace scope {

inline constexpr std::int64_t kSizeCap = 40;

// Lower sorts first: the page's API, then types and callables, public names,
// more uses from outside (a constant weighs half), longer bodies (capped),
// more uses from inside, earlier lines. The use and size elements are 128-bit
// so that every key is exact whatever 64-bit values the records hold.
struct RankKey {
  bool not_api;
  std::int64_t kind_group;
  bool is_private;
  __int128 outside;
  __int128 size;
  __int128 inside;
  std::int64_t start_line;

  friend auto operator<=>(const RankKey&, const RankKey&) = default;
};

// The fields of a declaration that its key reads.
struct KeyFields {
  std::int64_t id;
  std::string_view kind;
  bool type_or_callable;  // kind is in _TYPE_KINDS or _CALLABLE_KINDS
  std::string_view name;
  std::int64_t start_line;
  std::int64_t end_line;
};
// The production uses of one declaration that its key reads. `entry` only
// matters when `outside` is 0 or less: an outside use already makes it API.
struct KeyUses {
  std::int64_t outside = 0;
  std::int64_t inside = 0;
  bool entry = false;
};
RankKey rank_key(const KeyFields& symbol, const KeyUses& uses);

// The key of one row. Needs symbols id, kind, name, start_line, end_line of
// `table`.
RankKey rank_key(const StringPool& pool, const Table& table, std::size_t row, const Vocab& vocab,
                 const FanInView& fan_in);

// Each file's rows best first; files in order of their first declaration.
using RankedFiles = std::vector<std::pair<StrId, std::vector<std::size_t>>>;
RankedFiles ranked_by_file(const FactsView& view, const Vocab& vocab, const FanInView& fan_in);

// One (start, end) line range per file: its best declaration that starts
// after line 0, else its whole text when it was read and is not empty.
// Needs what ranked_by_file needs plus files path and the line counts.
std::vector<std::pair<StrId, std::pair<std::int64_t, std::int64_t>>> file_seeds(const FactsView& view,
                                                                                const Vocab& vocab,
                                                                                const FanInView& fan_in);

// One file of a quota selection: its declarations are `count` consecutive
// entries of `keys`, starting at `first`, in the caller's order.
struct QuotaFile {
  std::string_view path;
  std::size_t first;
  std::size_t count;
};

// The cap of the first sharing pass: the ceiling of total * max_share in
// double precision, never below floor_each; an infinite share is an
// overflow_error and a NaN a domain_error, as for any ceiling.
std::int64_t quota_cap(std::int64_t total, double max_share, std::int64_t floor_each);

// Up to `total` entries (indices into `keys`), every file's best first, then
// every file's second, and so on. Files with no declarations are ignored.
std::vector<std::size_t> select_with_quota(const std::vector<QuotaFile>& files, const std::vector<RankKey>& keys,
                                           std::int64_t total, std::int64_t floor, double max_share);

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
  std::unordered_map<StrId, std::int64_t> counts_;
};

}  // namespace scope
