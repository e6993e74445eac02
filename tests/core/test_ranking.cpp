#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "builders.hpp"
#include "ranking.hpp"

using namespace scope;
using scope::testing::Page;

namespace {

// Keys that rank entry i of `order` i-th best.
RankKey nth(std::int64_t i) { return RankKey{true, 0, false, 0, 0, 0, i}; }

// Files of names like "a1"; `order` lists every name best first.
std::vector<std::string> select(const std::vector<std::pair<std::string, std::vector<std::string>>>& files,
                                const std::vector<std::string>& order, std::int64_t total, std::int64_t floor,
                                double share) {
  std::vector<QuotaFile> quota;
  std::vector<RankKey> keys;
  std::vector<std::string> names;
  for (const auto& [path, members] : files) {
    quota.push_back({path, keys.size(), members.size()});
    for (const auto& name : members) {
      keys.push_back(nth(std::find(order.begin(), order.end(), name) - order.begin()));
      names.push_back(name);
    }
  }
  std::vector<std::string> chosen;
  for (std::size_t index : select_with_quota(quota, keys, total, floor, share)) chosen.push_back(names[index]);
  return chosen;
}

}  // namespace

TEST(Quota, WorkedExamples) {
  EXPECT_EQ(select({{"A", {"a1", "a2", "a3", "a4", "a5", "a6"}}, {"B", {"b1"}}, {"C", {"c1", "c2", "c3"}}},
                   {"a1", "c1", "a2", "a3", "a4", "b1", "c2", "a5", "c3", "a6"}, 6, 1, 0.5),
            (std::vector<std::string>{"a1", "c1", "b1", "a2", "c2", "a3"}));
  EXPECT_EQ(select({{"A", {"a1", "a2", "a3", "a4", "a5", "a6"}}, {"B", {"b1"}}, {"C", {"c1"}}},
                   {"a1", "c1", "a2", "a3", "a4", "b1", "a5", "a6"}, 7, 1, 0.5),
            (std::vector<std::string>{"a1", "c1", "b1", "a2", "a3", "a4", "a5"}));
}

TEST(Quota, NothingToSelect) {
  EXPECT_TRUE(select({{"A", {"a1"}}}, {"a1"}, 0, 1, NAN).empty());
  EXPECT_TRUE(select({{"A", {}}}, {}, 3, 1, NAN).empty());
  EXPECT_THROW(select({{"A", {"a1"}}}, {"a1"}, 1, 1, NAN), std::domain_error);
  EXPECT_THROW(select({{"A", {"a1"}}}, {"a1"}, 1, 1, INFINITY), std::overflow_error);
}

TEST(Quota, CapIsTheCeilingOfTheDoubleProduct) {
  EXPECT_EQ(quota_cap(50, 0.14, 1), 8);  // 7.000000000000001
  EXPECT_EQ(quota_cap(10, 0.0, 2), 2);   // never below floor_each
  EXPECT_EQ(quota_cap(10, -1e300, 2), 2);
  EXPECT_EQ(quota_cap(10, 1e300, 2), std::numeric_limits<std::int64_t>::max());
  // Below 2^63 the ceiling converts exactly; from 2^63 on it is clamped.
  EXPECT_EQ(quota_cap(1'000'000'000'000'000'000, 9.0, 1), 9'000'000'000'000'000'000);
  EXPECT_EQ(quota_cap(std::numeric_limits<std::int64_t>::max(), 1.0, 1), std::numeric_limits<std::int64_t>::max());
}

TEST(RankKey, OrderAndExactness) {
  Page page;
  page.symbols({{1, "a", "MAX", "constant", 10, 50},
                {2, "a", "run", "function", 10, 49},
                {3, "a", "_f", "function", 5, 3},
                {4, "a", "huge", "function", INT64_MIN, INT64_MAX}});
  FanInView fan_in;
  fan_in.outside = {{1, 4}, {2, 2}, {4, INT64_MAX}};
  fan_in.inside = {{1, 3}, {2, 3}};
  auto key = [&](std::size_t row) { return rank_key(page.view.pool, page.view.symbols, row, page.vocab, fan_in); };
  EXPECT_EQ(key(0), (RankKey{false, 1, false, -4, -40, -3, 10}));
  EXPECT_EQ(key(1), (RankKey{false, 0, false, -4, -39, -6, 10}));
  EXPECT_EQ(key(2), (RankKey{true, 0, true, 0, 2, 0, 5}));
  EXPECT_EQ(key(3).outside, -2 * static_cast<__int128>(INT64_MAX));
  EXPECT_LT(key(1), key(0));  // the kind group decides before the uses
}

TEST(RankKey, ApiIsAnOutsideUseOrAnEntryPoint) {
  Page page;
  page.symbols({{1, "a", "entry", "function"}, {2, "a", "zero", "function"}, {3, "a", "used", "function"}});
  FanInView fan_in;
  fan_in.outside = {{2, 0}, {3, 1}};
  fan_in.inside = {{2, 9}};
  fan_in.entry = {1};
  auto not_api = [&](std::size_t row) {
    return rank_key(page.view.pool, page.view.symbols, row, page.vocab, fan_in).not_api;
  };
  EXPECT_FALSE(not_api(0));  // an entry point nothing references
  EXPECT_TRUE(not_api(1));   // an outside count of 0 is no use; inside uses never make API
  EXPECT_FALSE(not_api(2));
}

TEST(Spreader, CountsPerPathAndStopsAtTheLimit) {
  Spreader spreader(3, 1);
  EXPECT_TRUE(spreader.offer(1));
  EXPECT_FALSE(spreader.offer(1));
  EXPECT_TRUE(spreader.offer(2));
  EXPECT_FALSE(spreader.full());
  EXPECT_TRUE(spreader.offer(3));
  EXPECT_TRUE(spreader.full());
  EXPECT_TRUE(Spreader(0, 5).full());
}
