// The flat containers under every hot loop: what Python cannot isolate.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "flat.hpp"
#include "view.hpp"

namespace scope {
namespace {

// Rows, slots and string ids are never taken for one another, nor for a
// plain number, without saying so.
static_assert(!std::is_convertible_v<Row, Slot> && !std::is_convertible_v<Slot, Row>);
static_assert(!std::is_convertible_v<Row, StrId> && !std::is_convertible_v<StrId, Row>);
static_assert(!std::is_convertible_v<Slot, StrId> && !std::is_convertible_v<StrId, Slot>);
static_assert(!std::is_convertible_v<std::uint32_t, Row> && !std::is_convertible_v<Row, std::size_t>);
static_assert(sizeof(Row) == 4 && sizeof(Slot) == 4 && sizeof(StrId) == 4);

TEST(DenseIndex, NumbersKeysInFirstSeenOrderThroughGrowthAndCollisions) {
  DenseIndex<> index;
  std::vector<std::uint64_t> keys;
  // Multiples of a large power of two share their low bits: they collide
  // under a weak hash and force long probe runs as the table grows.
  for (std::uint64_t i = 0; i < 5000; ++i) keys.push_back(i << 40);
  for (std::uint64_t i = 0; i < 5000; ++i) keys.push_back(~i);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    auto [number, fresh] = index.insert(keys[i]);
    ASSERT_TRUE(fresh);
    ASSERT_EQ(number, i);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    ASSERT_EQ(index.insert(keys[i]), (std::pair<std::uint32_t, bool>{static_cast<std::uint32_t>(i), false}));
    ASSERT_EQ(index.find(keys[i]), i);
    ASSERT_EQ(index.key(static_cast<std::uint32_t>(i)), keys[i]);
  }
  EXPECT_EQ(index.find(12345), kNoPosition);
  EXPECT_EQ(DenseIndex<>{}.find(0), kNoPosition);
  // Numbered as slots, an absent key is no slot.
  DenseIndex<Slot> slots;
  EXPECT_EQ(slots.find(1), Slot::none);
  EXPECT_EQ(slots.insert(1).first, Slot{0});
  EXPECT_EQ(slots.find(2), Slot::none);
}

// Keys in a narrow range are numbered from an array (when the index expects
// them narrow); a key that would widen it too far moves every number to the
// hash table. Both keep first-seen numbers, whatever order the keys come in.
TEST(DenseIndex, NumbersAgreeAcrossTheArrayAndTheHashTable) {
  std::vector<std::vector<std::uint64_t>> orders;
  std::vector<std::uint64_t> up, down, shuffled, then_far, edges;
  for (std::uint64_t i = 0; i < 20000; ++i) up.push_back(1000 + i);
  for (std::uint64_t i = 0; i < 20000; ++i) down.push_back(50000 - i);
  for (std::uint64_t i = 0; i < 20000; ++i) shuffled.push_back((i * 7919) % 20011 + 300);
  then_far = shuffled;
  then_far.push_back(std::uint64_t{1} << 50);  // past the array's reach: hashed from here
  for (std::uint64_t i = 0; i < 100; ++i) then_far.push_back(i);
  // The ends of the key space: no range arithmetic may wrap.
  for (std::uint64_t i = 0; i < 50; ++i) edges.push_back(~std::uint64_t{0} - i);
  edges.push_back(0);
  orders = {up, down, shuffled, then_far, edges};
  auto check = [](const std::vector<std::uint64_t>& keys, auto index) {
    std::unordered_map<std::uint64_t, std::uint32_t> expected;  // key -> first-seen number
    for (std::uint64_t key : keys) {
      const auto [at, fresh] = expected.try_emplace(key, static_cast<std::uint32_t>(expected.size()));
      ASSERT_EQ(index.insert(key), (std::pair<std::uint32_t, bool>{at->second, fresh}));
    }
    ASSERT_EQ(index.size(), expected.size());
    for (const auto& [key, number] : expected) {
      ASSERT_EQ(index.find(key), number);
      ASSERT_EQ(index.key(number), key);
    }
    EXPECT_EQ(index.find(25000), kNoPosition);
    EXPECT_EQ(index.find(~std::uint64_t{0} - 60), kNoPosition);
    EXPECT_EQ(index.find(std::uint64_t{1} << 40), kNoPosition);
  };
  for (const auto& keys : orders) {
    check(keys, DenseIndex<std::uint32_t, true>{});
    check(keys, DenseIndex<>{});
  }
}

TEST(StringPool, EqualHashesOfOtherTextsStayApartAndViewsOutliveGrowth) {
  StringPool pool;
  std::vector<std::string_view> views;
  std::vector<std::string> texts;
  for (int i = 0; i < 3000; ++i) texts.push_back("text-" + std::to_string(i) + std::string(i % 97, 'x'));
  texts.push_back(std::string(100000, 'y'));  // larger than a block
  texts.push_back("");
  for (const std::string& text : texts) {
    // Every text under the same hash: equality of the text alone decides.
    auto [id, fresh] = pool.intern(text, 7);
    ASSERT_TRUE(fresh);
    views.push_back(pool.text(id));
  }
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(views[i], texts[i]);
    EXPECT_EQ(pool.intern(texts[i], 7), (std::pair<StrId, bool>{nth<StrId>(i), false}));
  }
  EXPECT_EQ(pool.size(), texts.size());
}

TEST(Groups, KeepFirstSeenOrderOfKeysAndRowsWithinEach) {
  const std::vector<std::uint32_t> keys = {3, 1, 3, 0, 1, 3};
  const auto g = group_rows<std::uint32_t>(keys.size(), 5, [&](std::size_t row) { return keys[row]; });
  EXPECT_EQ(g.key, (std::vector<std::uint32_t>{3, 1, 0}));
  EXPECT_EQ(std::vector<std::uint32_t>(g.of(0).begin(), g.of(0).end()), (std::vector<std::uint32_t>{0, 2, 5}));
  EXPECT_EQ(std::vector<std::uint32_t>(g.of_key(1).begin(), g.of_key(1).end()), (std::vector<std::uint32_t>{1, 4}));
  EXPECT_TRUE(g.of_key(2).empty());
  EXPECT_TRUE(g.of_key(99).empty());
}

TEST(IntColumn, NarrowUntilAValueNeedsSixtyFourBits) {
  IntColumn column;
  const std::vector<std::int64_t> values = {0, -1, INT16_MAX, INT16_MIN, std::int64_t{INT16_MAX} + 1, INT64_MIN, 5};
  for (std::int64_t value : values) column.push(value);
  ASSERT_EQ(column.size(), values.size());
  for (std::size_t row = 0; row < values.size(); ++row) EXPECT_EQ(column[row], values[row]);
}

}  // namespace
}  // namespace scope
