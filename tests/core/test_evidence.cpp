#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <stdexcept>

#include "builders.hpp"
#include "evidence.hpp"

using namespace scope;
using scope::testing::In;
using scope::testing::Page;
using scope::testing::Sym;

TEST(IsUse, TruthTable) {
  Page page;
  page.finish();
  StrId function = page.s("function"), constant = page.s("constant");
  for (bool resolved : {false, true}) {
    EXPECT_TRUE(is_use(page.vocab, page.s("import"), constant, resolved));
    EXPECT_TRUE(is_use(page.vocab, page.s("local"), function, resolved));
    EXPECT_FALSE(is_use(page.vocab, page.s("ambiguous"), function, resolved));
    EXPECT_FALSE(is_use(page.vocab, page.s("legacy"), function, resolved));
    EXPECT_FALSE(is_use(page.vocab, page.s("unique"), constant, resolved));
  }
  EXPECT_TRUE(is_use(page.vocab, page.s("unique"), function, false));
  EXPECT_FALSE(is_use(page.vocab, page.s("unique"), function, true));
  EXPECT_FALSE(is_use(page.vocab, page.s("Unique"), function, false));
}

TEST(Members, ContainmentIsInclusiveAndPerFile) {
  Page page;
  page.symbols({
      {1, "a.py", "K", "class", 10, 20},
      {2, "a.py", "first_line", "method", 10, 10},
      {3, "a.py", "last_line", "method", 20, 20},
      {4, "a.py", "after", "function", 20, 21},
      {5, "b.py", "elsewhere", "function", 12, 13},  // another file's class never contains
      {6, "a.py", "Inner", "class", 11, 19},         // a type in a type is a member
      {7, "a.py", "Twin1", "class", 30, 30},         // equal ranges: each contains the other
      {8, "a.py", "Twin2", "struct", 30, 30},
      {9, "a.py", "Lonely", "class", 40, 41},
  });
  std::vector<bool> member = members(page.view, page.vocab);
  EXPECT_EQ(member, (std::vector<bool>{false, true, true, false, false, true, true, true, false}));
}

TEST(Members, AgreesWithTheQuadraticDefinition) {
  std::mt19937 random(5);
  for (int round = 0; round < 200; ++round) {
    Page page;
    std::vector<Sym> rows;
    int count = 1 + static_cast<int>(random() % 12);
    for (int i = 0; i < count; ++i) {
      std::int64_t start = random() % 8, length = static_cast<std::int64_t>(random() % 6) - 1;
      const char* kind = random() % 3 ? "class" : "method";
      // Repeated ids happen: the same declaration seen twice.
      rows.push_back(
          {static_cast<std::int64_t>(random() % 10), random() % 4 ? "a" : "b", "n", kind, start, start + length});
    }
    page.symbols(rows);
    std::vector<bool> member = members(page.view, page.vocab);
    for (std::size_t s = 0; s < rows.size(); ++s) {
      bool expected = false;
      for (const Sym& t : rows)
        expected |= t.kind == "class" && t.path == rows[s].path && t.id != rows[s].id && t.start <= rows[s].start &&
                    t.end >= rows[s].end;
      EXPECT_EQ(member[s], expected) << "round " << round << " row " << s;
    }
  }
}

TEST(FanIn, CountingRules) {
  Page page;
  page.files({"lib/a.py", "lib/b.py"});
  page.tests({"tests/t.py"});
  page.inbound({
      {"app/x.py", 1, "lib/a.py", "f", "function", "import", 3},
      {"lib/b.py", 1, "lib/a.py", "f", "function", "local", 2},
      {"tests/t.py", 2, "lib/a.py", "g", "function", "import", 9},   // tests never count or mark
      {"app/y.py", 3, "lib/a.py", "h", "function", "legacy", 1},     // neither counts nor marks
      {"app/y.py", 4, "lib/a.py", "k", "function", "ambiguous", 1},  // marks without counting
      {"app/y.py", 5, "lib/a.py", "MAX", "constant", "unique", 4},   // a name match: marks only
      {"app/z.py", 6, "lib/a.py", "run", "function", "unique", 1},   // trusted: counts
      {"app/w.py", 1, "lib/a.py", "f", "function", "import", 1},
  });
  FanInCounts counts = count_fan_in(page.view, page.vocab);
  EXPECT_EQ(counts.outside.entries(), (std::vector<std::pair<std::int64_t, std::int64_t>>{{1, 4}, {6, 1}}));
  EXPECT_EQ(counts.inside.entries(), (std::vector<std::pair<std::int64_t, std::int64_t>>{{1, 2}}));
  EXPECT_EQ(counts.referenced, (std::unordered_set<std::int64_t>{1, 4, 5, 6}));
}

TEST(FanIn, EntryCandidatesPassEveryTestButThePathFilter) {
  Page page;
  page.symbols({
      {1, "a.py", "run", "function"},
      {2, "a.py", "_hidden", "function"},
      {3, "a.py", "unexported", "function", 1, 1, false},
      {4, "a.py", "MAX", "constant"},
      {5, "a.py", "Used", "class", 5, 9},
      {6, "a.py", "method", "method", 6, 7},  // inside Used
      {7, "a.py", "Free", "class", 12, 14},
  });
  EXPECT_EQ(entry_candidates(page.view, page.vocab, {5}), (std::vector<std::size_t>{0, 6}));
}

// Many targets with ids from the whole 64-bit range, against a plain
// recount: sums, first-counted order and the referenced set.
TEST(FanIn, AgreesWithAPlainRecount) {
  const std::vector<std::int64_t> pool = {0, -1, 1, INT64_MIN, INT64_MAX, 64, 128, -64, 1LL << 40};
  const char* resolutions[] = {"import", "local", "unique", "ambiguous", "legacy"};
  const char* kinds[] = {"function", "constant", "class"};
  const char* sources[] = {"lib/a.py", "app/x.py", "app/y.py", "tests/t.py"};
  std::mt19937 random(11);
  for (int round = 0; round < 50; ++round) {
    Page page;
    page.files({"lib/a.py"});
    page.tests({"tests/t.py"});
    std::vector<In> rows;
    int count = static_cast<int>(random() % 400);
    for (int i = 0; i < count; ++i) {
      std::int64_t target = random() % 2 ? pool[random() % pool.size()] : static_cast<std::int64_t>(random() % 300);
      rows.push_back({sources[random() % 4], target, "lib/a.py", "n", kinds[random() % 3], resolutions[random() % 5],
                      static_cast<std::int64_t>(random() % 5)});
    }
    page.inbound(rows);
    FanInCounts counts = count_fan_in(page.view, page.vocab);

    std::vector<std::pair<std::int64_t, std::int64_t>> outside, inside;
    std::unordered_set<std::int64_t> referenced;
    auto add = [](auto& into, std::int64_t id, std::int64_t refs) {
      for (auto& entry : into)
        if (entry.first == id) return void(entry.second += refs);
      into.emplace_back(id, refs);
    };
    for (const In& r : rows) {
      if (r.source == "tests/t.py") continue;
      if (r.resolution != "legacy") referenced.insert(r.target);
      bool counted = r.resolution == "import" || r.resolution == "local" ||
                     (r.resolution == "unique" && r.target_kind != "constant");
      if (counted) add(r.source == "lib/a.py" ? inside : outside, r.target, r.refs);
    }
    EXPECT_EQ(counts.outside.entries(), outside) << "round " << round;
    EXPECT_EQ(counts.inside.entries(), inside) << "round " << round;
    EXPECT_EQ(counts.referenced, referenced) << "round " << round;
  }
}

TEST(FanIn, ASumBeyond64BitsIsAnError) {
  Page page;
  page.inbound({{"app/x.py", 1, "lib/a.py", "f", "function", "import", INT64_MAX},
                {"app/y.py", 1, "lib/a.py", "f", "function", "import", 1}});
  EXPECT_THROW(count_fan_in(page.view, page.vocab), std::overflow_error);
}
