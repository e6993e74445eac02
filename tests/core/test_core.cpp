// What the module cannot reach or isolate: the view's tables, which grow on
// demand (the binding sizes the vocabulary in advance), and the counter.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "counter.hpp"
#include "view.hpp"

using namespace scope;
using namespace std::string_literals;

TEST(View, TablesGrowOnDemandAndKeepWhatTheyHold) {
  StringPool pool;
  const StrId first = pool.intern("x"), nul = pool.intern("a\0b"s);
  for (int i = 0; i < 10000; ++i) pool.intern("path/" + std::to_string(i));
  EXPECT_EQ(pool.text(first), "x");
  EXPECT_EQ(pool.text(nul), "a\0b"s);
  EXPECT_EQ(pool.find("a"), kNoStr);
  EXPECT_EQ(pool.intern("path/9999"), pool.size() - 1);

  Vocab vocab;
  vocab.set(70, vocab_bit::type);
  vocab.set(3, vocab_bit::evidence);
  vocab.set(70, vocab_bit::callable);
  EXPECT_TRUE(vocab.has(70, vocab_bit::type) && vocab.has(70, vocab_bit::callable) &&
              vocab.has(3, vocab_bit::evidence));
  EXPECT_FALSE(vocab.has(3, vocab_bit::type) || vocab.has(71, vocab_bit::type) || vocab.has(kNoStr, vocab_bit::type));

  FactsView view;
  view.set_path_bit(70, path_bit::test_source);
  view.set_path_bit(70, path_bit::in_page);
  EXPECT_TRUE(view.path_has(70, path_bit::test_source) && view.path_has(70, path_bit::in_page));
  EXPECT_FALSE(view.path_has(69, path_bit::in_page) || view.path_has(kNoStr, path_bit::in_page));
}

TEST(OrderedCounter, SumsInFirstInsertionOrderAndRanksTiesInIt) {
  OrderedCounter<int> counter;
  for (auto [key, amount] : {std::pair{2, 1}, {1, 3}, {2, 2}, {3, 3}, {6, 9}}) counter.add(key, amount);
  using Entries = std::vector<std::pair<int, std::int64_t>>;
  EXPECT_EQ(counter.entries(), (Entries{{2, 3}, {1, 3}, {3, 3}, {6, 9}}));
  EXPECT_EQ(counter.most_common(), (Entries{{6, 9}, {2, 3}, {1, 3}, {3, 3}}));
  EXPECT_EQ(counter.get(9), 0);
  counter.add(4, std::numeric_limits<std::int64_t>::max());
  EXPECT_THROW(counter.add(4, 1), std::overflow_error);
}
