#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <random>

#include "builders.hpp"
#include "text.hpp"

using namespace scope;
using scope::testing::In;
using scope::testing::Page;
using scope::testing::Sym;

namespace {

struct TextCase {
  const char* input;
  const char* expected;
};

struct NamedCase {
  std::vector<std::string> names;
  std::int64_t limit;
  const char* expected;
};

}  // namespace

TEST(Text, ShortPath) {
  const TextCase cases[] = {
      {"src/pkg/mod.py", "pkg/mod.py"},
      {"a/b/c/d", "c/d"},
      {"mod.py", "mod.py"},
      {"a/b", "a/b"},
      {"", ""},
      {"/mod.py", "/mod.py"},  // the first segment is empty
      {"a/b/", "b/"},          // the last segment is empty
      {"a/b/c/", "c/"},
      {"a//b", "/b"},
      {"x/a//b", "/b"},
      {"/", "/"},
      {"//", "/"},
      {"x\\y/z", "x\\y/z"},  // a backslash separates nothing
      {"d\xc3\xa9p/\xed\xa0\x80/f", "\xed\xa0\x80/f"},
  };
  for (const TextCase& c : cases) EXPECT_EQ(short_path(c.input), c.expected) << '"' << c.input << '"';
}

TEST(Text, Cell) {
  const TextCase cases[] = {
      {"plain text", "plain text"}, {"a|b", "a\\|b"}, {"||", "\\|\\|"},
      {"one\ntwo", "one two"},      {"\n\n", "  "},   {"cr\r\nlf", "cr\r lf"},
      {"lone\rcr", "lone\rcr"},     {"\\|", "\\\\|"},  // an escaped bar gets one more backslash
      {" `x` ", " `x` "},           {"", ""},
  };
  for (const TextCase& c : cases) EXPECT_EQ(cell(c.input), c.expected) << '"' << c.input << '"';
}

TEST(Text, Named) {
  const std::vector<std::string> six = {"a", "b", "c", "d", "e", "f"};
  const NamedCase cases[] = {
      {{}, 3, ""},
      {{"a"}, 3, "a"},
      {{"a", "b", "c"}, 3, "a, b, c"},
      {{"a", "b", "c", "d"}, 3, "a, b, c +1"},
      {six, 3, "a, b, c +3"},
      {six, 4, "a, b, c, d +2"},
      {{"z", "a"}, 5, "z, a"},  // never sorted
      {{"a", "b"}, 0, " +2"},
      {{}, 0, ""},
      // A negative limit slices from the end and counts length minus limit.
      {{"a", "b", "c"}, -1, "a, b +4"},
      {{"a", "b"}, -5, " +7"},
      {{}, -1, " +1"},
      {{"a"}, std::numeric_limits<std::int64_t>::min(), " +9223372036854775809"},
      {{"a"}, std::numeric_limits<std::int64_t>::max(), "a"},
  };
  for (const NamedCase& c : cases) EXPECT_EQ(named(c.names, c.limit), c.expected) << "limit " << c.limit;
}

TEST(Text, NamedCountsNamesItWasNotGiven) {
  const std::vector<std::string> head = {"x", "y", "z"};
  EXPECT_EQ(named(head, 40, 3), "x, y, z +37");
  EXPECT_EQ(named(std::span(head).first(2), 2, 3), "x, y");
  EXPECT_EQ(named_shown(40, 3), 3u);
  EXPECT_EQ(named_shown(2, 3), 2u);
  EXPECT_EQ(named_shown(5, -2), 3u);
  EXPECT_EQ(named_shown(5, -9), 0u);
}

namespace {

// file_users as the rules read, one map lookup per reference.
std::vector<FileUsers> plain_file_users(const FactsView& view, const Vocab& vocab) {
  std::vector<FileUsers> result;
  std::map<StrId, std::size_t> slot;
  const Table& in = view.inbound;
  for (std::size_t row = 0; row < in.rows; ++row) {
    StrId source = in.str(in_f::source_path, row), target = in.str(in_f::target_path, row);
    if (source == target || view.path_has(source, path_bit::test_source)) continue;
    StrId resolution = in.str(in_f::resolution, row);
    bool evidence = vocab.has(resolution, vocab_bit::evidence) ||
                    (view.pool.text(resolution) == "unique" && !view.path_has(target, path_bit::import_resolved) &&
                     !vocab.has(in.str(in_f::target_kind, row), vocab_bit::name_match));
    if (!evidence) continue;
    auto [at, fresh] = slot.try_emplace(target, result.size());
    if (fresh) result.push_back({target, {}});
    auto& users = result[at->second].users;
    auto user = std::find_if(users.begin(), users.end(), [&](const auto& u) { return u.first == source; });
    if (user == users.end()) {
      users.emplace_back(source, in.num(in_f::refs, row));
    } else {
      user->second += in.num(in_f::refs, row);
    }
  }
  return result;
}

// What the file cards page exercises: every rule of every cell.
struct CardsPage : Page {
  FanInView fan_in;
  std::unordered_map<StrId, NameList> reaching;
  std::vector<std::string> missing = {"lib/gone.py", "lib/cache.py"};

  CardsPage() {
    files({"lib/store.py", "lib/cache.py", "lib/empty.py"});
    files({"go/wire.go"}, false);  // the index resolves no imports here
    files({"lib/a|b.py"});
    tests({"tests/test_store.py"});
    symbols({
        {1, "lib/store.py", "open", "function", 10, 12},
        {2, "lib/store.py", "close", "function", 20, 22},
        {3, "lib/store.py", "Store", "class", 30, 39},
        {4, "lib/store.py", "load", "function", 40, 44},
        {5, "lib/store.py", "save", "function", 50, 55},
        {6, "lib/store.py", "_lock", "function", 60, 61},
        {10, "lib/cache.py", "Cache", "class", 3, 9},
        {11, "lib/cache.py", "get", "method", 5, 6},
        {20, "go/wire.go", "Encode", "function", 1, 8},
        {21, "go/wire.go", "MAX", "constant", 9, 9},
    });
    inbound({
        {"app/main.py", 4, "lib/store.py", "load", "function", "import", 3},
        {"svc/app/main.py", 1, "lib/store.py", "open", "function", "import", 3},
        {"tests/test_store.py", 1, "lib/store.py", "open", "function", "import", 9},  // a test
        {"lib/cache.py", 2, "lib/store.py", "close", "function", "import", 2},        // a page file
        {"lib/store.py", 3, "lib/store.py", "Store", "class", "local", 7},            // itself
        {"web/main.py", 4, "lib/store.py", "load", "function", "local", 1},
        {"lib/cache.py", 5, "lib/store.py", "save", "function", "local", 2},
        {"web/main.py", 5, "lib/store.py", "save", "function", "import", 2},
        {"app/cli.py", 1, "lib/store.py", "open", "function", "ambiguous", 5},  // a name match
        {"lib/store.py", 10, "lib/cache.py", "Cache", "class", "import", 1},
        {"go/wire.go", 11, "lib/cache.py", "get", "method", "unique", 1},      // imports resolved there
        {"app/main.py", 20, "go/wire.go", "Encode", "function", "unique", 2},  // the best there is
        {"web/main.py", 21, "go/wire.go", "MAX", "constant", "unique", 4},     // a constant's name
        {"svc/x.go", 20, "go/wire.go", "Encode", "function", "legacy", 1},
        {"tests/test_store.py", 20, "go/wire.go", "Encode", "function", "unique", 1},
        {"app/main.py", 6, "lib/store.py", "_lock", "function", "Import", 1},  // not "import"
    });
    view.line_counts = {{s("lib/store.py"), 120}, {s("lib/empty.py"), 0}, {s("go/wire.go"), 7}};
    view.summaries = {{s("lib/store.py"), s("Stores | loads\nrecords.")},
                      {s("lib/cache.py"), s("Cache of\r\nparsed files")},
                      {s("go/wire.go"), s("")}};
    fan_in.outside = {{3, 2}, {2, 2}, {4, 9}, {1, 1}, {5, 1}, {6, 0}, {20, 4}};
    fan_in.inside = {{6, 50}, {10, 3}, {11, 3}};
    reaching[s("lib/store.py")] = {{"tests/test_store.py"}, 1};
    reaching[s("lib/cache.py")] = {{"tests/x|y.py", "t/b", "t/c"}, 4};
  }
};

constexpr std::string_view kHead =
    "## Files\n\nEvery file of this page, from the index. Lines and the summary come from the file; the most used "
    "declarations are ranked by the references production code outside the page makes to them (line, "
    "references; `in-page` when only the page's own files use them); users are the other production files "
    "that reference the file through evidence-backed edges.\n\n"
    "| File | Lines | Declarations | Summary | Most used | Used by | Tests |\n"
    "|---|---|---|---|---|---|---|\n";

}  // namespace

TEST(FileUsers, CountsEvidenceFromOtherProductionFiles) {
  CardsPage page;
  auto s = [&](const char* text) { return page.s(text); };
  std::vector<FileUsers> users = file_users(page.view, page.vocab);
  ASSERT_EQ(users.size(), 3u);
  EXPECT_EQ(users[0].target, s("lib/store.py"));
  EXPECT_EQ(users[0].users,
            (std::vector<std::pair<StrId, std::int64_t>>{
                {s("app/main.py"), 3}, {s("svc/app/main.py"), 3}, {s("lib/cache.py"), 4}, {s("web/main.py"), 3}}));
  EXPECT_EQ(users[1].target, s("lib/cache.py"));
  EXPECT_EQ(users[1].users, (std::vector<std::pair<StrId, std::int64_t>>{{s("lib/store.py"), 1}}));
  EXPECT_EQ(users[2].target, s("go/wire.go"));
  EXPECT_EQ(users[2].users, (std::vector<std::pair<StrId, std::int64_t>>{{s("app/main.py"), 2}}));
}

TEST(FileUsers, SumsBeyond64BitsAreErrors) {
  Page page;
  page.files({"a.py"});
  const std::int64_t big = std::numeric_limits<std::int64_t>::max();
  page.inbound({{"b.py", 1, "a.py", "f", "function", "import", big}, {"b.py", 1, "a.py", "f", "function", "local", 1}});
  EXPECT_THROW(file_users(page.view, page.vocab), std::overflow_error);
}

TEST(FileUsers, AgreesWithThePlainRules) {
  std::mt19937 random(7);
  const char* paths[] = {"a.py", "b.py", "c.go", "x/a.py", "t/test_a.py", "d.go"};
  const char* resolutions[] = {"import", "local", "unique", "ambiguous", "legacy"};
  const char* kinds[] = {"function", "class", "constant", "field", "method"};
  for (int round = 0; round < 300; ++round) {
    Page page;
    page.files({"a.py", "b.py"});
    page.files({"c.go"}, false);
    page.tests({"t/test_a.py"});
    std::vector<In> rows;
    int count = static_cast<int>(random() % 40);
    for (int i = 0; i < count; ++i)
      rows.push_back({paths[random() % 6], 1, paths[random() % 6], "n", kinds[random() % 5], resolutions[random() % 5],
                      static_cast<std::int64_t>(random() % 5)});
    page.inbound(rows);
    std::vector<FileUsers> ours = file_users(page.view, page.vocab), plain = plain_file_users(page.view, page.vocab);
    ASSERT_EQ(ours.size(), plain.size()) << "round " << round;
    for (std::size_t i = 0; i < ours.size(); ++i) {
      EXPECT_EQ(ours[i].target, plain[i].target) << "round " << round;
      EXPECT_EQ(ours[i].users, plain[i].users) << "round " << round;
    }
  }
}

TEST(MostUsed, OutsideUsesFirstThenInPage) {
  Page page;
  page.symbols({{1, "a.py", "f", "function", 3}, {2, "a.py", "g", "function", 4}, {3, "a.py", "h", "function", 5}});
  const std::vector<std::size_t> rows = {0, 1, 2};
  auto items = [&](FanInView fan_in) { return most_used(page.view.pool, page.view.symbols, rows, fan_in); };
  using Items = std::vector<std::string>;
  // Equal counts keep the declarations' order; a count of 0 is no use.
  EXPECT_EQ(items({{{3, 4}, {2, 4}, {1, 0}}, {{1, 9}}, {}}), (Items{"`g` L4 (4)", "`h` L5 (4)"}));
  EXPECT_EQ(items({{}, {{1, 9}, {3, 10}}, {}}), (Items{"`h` L5 (in-page 10)", "`f` L3 (in-page 9)"}));
  EXPECT_EQ(items({{{1, 0}}, {{2, 0}}, {1, 2}}), Items{});
  EXPECT_EQ(most_used(page.view.pool, page.view.symbols, {}, FanInView{{{1, 1}}, {}, {}}), Items{});
}

TEST(FileCards, Golden) {
  CardsPage page;
  std::string text = render_file_cards(page.view, page.vocab, page.fan_in, "## Files", page.missing, page.reaching);
  EXPECT_EQ(text, std::string(kHead) +
                      "| `lib/store.py` | 120 | 6 | Stores \\| loads records. "
                      "| `load` L40 (9), `close` L20 (2), `Store` L30 (2) +2 "
                      "| lib/cache.py, app/main.py, app/main.py +1 | tests/test_store.py |\n"
                      "| `lib/cache.py` | ? | 2 | Cache of\r parsed files "
                      "| `Cache` L3 (in-page 3), `get` L5 (in-page 3) | lib/store.py | tests/x\\|y.py, t/b, t/c +1 |\n"
                      "| `lib/empty.py` | 0 | 0 |  |  |  |  |\n"
                      "| `go/wire.go` | 7 | 2 |  | `Encode` L1 (4) | app/main.py |  |\n"
                      "| `lib/a|b.py` | ? | 0 |  |  |  |  |\n"
                      "| `lib/gone.py` | ? | 0 | not in the index | | | |\n"
                      "| `lib/cache.py` | ? | 0 | not in the index | | | |\n");
}

TEST(FileCards, EmptyPage) {
  Page page;
  page.finish();
  EXPECT_EQ(render_file_cards(page.view, page.vocab, {}, "## Files", {}, {}), kHead);
  const std::vector<std::string> missing = {"x"};
  EXPECT_EQ(render_file_cards(page.view, page.vocab, {}, "", missing, {}),
            std::string(kHead.substr(8)) + "| `x` | ? | 0 | not in the index | | | |\n");
}
