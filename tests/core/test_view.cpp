#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "counter.hpp"
#include "view.hpp"

using namespace scope;
using namespace std::string_literals;

TEST(StringPool, InternsByContentIncludingNulAndSurrogateBytes) {
  StringPool pool;
  StrId a = pool.intern("src/a.py");
  EXPECT_EQ(pool.intern(std::string("src/a.py")), a);
  StrId with_nul = pool.intern("a\0b"s);
  StrId cut = pool.intern("a"s);
  EXPECT_NE(with_nul, cut);
  EXPECT_EQ(pool.text(with_nul), "a\0b"s);
  // A lone surrogate arrives as its three-byte form and comes back the same.
  const std::string surrogate = "\xed\xa0\x80";
  EXPECT_EQ(pool.text(pool.intern(surrogate)), surrogate);
  EXPECT_EQ(pool.find("missing"), kNoStr);
  EXPECT_EQ(pool.find("src/a.py"), a);
}

TEST(StringPool, KeepsTextsValidWhileGrowing) {
  StringPool pool;
  StrId first = pool.intern("x");  // short enough for the small-string buffer
  for (int i = 0; i < 10000; ++i) pool.intern("path/" + std::to_string(i));
  EXPECT_EQ(pool.text(first), "x");
  EXPECT_EQ(pool.find("x"), first);
  EXPECT_EQ(pool.find("path/9999"), pool.size() - 1);
}

TEST(FactsView, PathBitsAreIndependentAndGrowOnDemand) {
  FactsView view;
  StrId a = view.pool.intern("a"), b = view.pool.intern("b");
  view.set_path_bit(b, path_bit::test_source);
  EXPECT_FALSE(view.path_has(a, path_bit::test_source));
  EXPECT_TRUE(view.path_has(b, path_bit::test_source));
  EXPECT_FALSE(view.path_has(b, path_bit::in_page));
  EXPECT_FALSE(view.path_has(12345, path_bit::in_page));
}

TEST(Vocab, LiteralBitsMatchExactTextOnly) {
  StringPool pool;
  Vocab vocab;
  for (const char* text : {"constant", "unique", "legacy", "Unique", " unique", "constants"})
    vocab.set_literals(pool, pool.intern(text));
  EXPECT_TRUE(vocab.has(pool.find("constant"), vocab_bit::constant));
  EXPECT_TRUE(vocab.has(pool.find("unique"), vocab_bit::unique));
  EXPECT_TRUE(vocab.has(pool.find("legacy"), vocab_bit::legacy));
  EXPECT_FALSE(vocab.has(pool.find("Unique"), vocab_bit::unique));
  EXPECT_FALSE(vocab.has(pool.find(" unique"), vocab_bit::unique));
  EXPECT_FALSE(vocab.has(pool.find("constants"), vocab_bit::constant));
  EXPECT_FALSE(vocab.has(kNoStr - 1, vocab_bit::unique));
}

TEST(OrderedCounter, KeepsFirstInsertionOrderAndSums) {
  OrderedCounter<std::string> counter;
  counter.add("b", 1);
  counter.add("a", 3);
  counter.add("b", 2);
  counter.add("c", 3);
  ASSERT_EQ(counter.size(), 3u);
  EXPECT_EQ(counter.entries()[0], (std::pair<std::string, std::int64_t>{"b", 3}));
  EXPECT_EQ(counter.get("missing"), 0);
  EXPECT_EQ(counter.total(), 9);
  // Equal counts keep insertion order: b (3), a (3), c (3).
  auto ranked = counter.most_common();
  EXPECT_EQ(ranked[0].first, "b");
  EXPECT_EQ(ranked[1].first, "a");
  EXPECT_EQ(ranked[2].first, "c");
}

TEST(OrderedCounter, SumBeyondSixtyFourBitsIsAnError) {
  OrderedCounter<int> counter;
  counter.add(1, std::numeric_limits<std::int64_t>::max());
  EXPECT_THROW(counter.add(1, 1), std::overflow_error);
  EXPECT_THROW(checked_add(std::numeric_limits<std::int64_t>::min(), -1), std::overflow_error);
}

TEST(FanInView, ApiFromOutsideAndEntryOnly) {
  FanInView fan_in;
  fan_in.outside = {{1, 2}, {2, 0}};
  fan_in.inside = {{3, 5}};
  fan_in.entry = {4};
  EXPECT_TRUE(fan_in.api(1));
  EXPECT_FALSE(fan_in.api(2));  // an outside entry of 0 is no use
  EXPECT_FALSE(fan_in.api(3));  // inside uses never make API
  EXPECT_TRUE(fan_in.api(4));   // an entry point nothing references
  EXPECT_EQ(fan_in.inside_count(3), 5);
  EXPECT_EQ(fan_in.outside_count(9), 0);
}
