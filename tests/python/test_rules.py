"""The rules, one table each, checked on the module and on the plain implementation alike: use evidence, type
members, the fan-in, rank keys, seeds, the quota, the spread, the text helpers, file cards, consumers, neighbours
and name-match counts."""

import pytest

import pyscope
import scope
from conftest import inref, make_facts, outref, sym

BOTH = pytest.mark.parametrize("m", [scope, pyscope], ids=["scope", "pyscope"])


@pytest.mark.parametrize("resolution, kind, resolved, expected", [
    ("import", "constant", True, True), ("local", "attribute", False, True), ("unique", "function", False, True),
    ("unique", "function", True, False), ("unique", "constant", False, False), ("unique", "field", False, False),
    ("ambiguous", "function", False, False), ("legacy", "function", False, False), ("Import", "function", False, False),
    ("unique ", "function", False, False), ("unique", "Constant", False, True), ("unique", "function", [], True),
    ("unique", "function", "no", False), (None, 3, None, False),
])
def test_is_use(resolution, kind, resolved, expected):
    assert scope.is_use(resolution, kind, resolved) is pyscope.is_use(resolution, kind, resolved) is expected


@pytest.mark.parametrize("rows, expected", [
    ([("a", "class", 5, 10), ("a", "method", 5, 5), ("a", "method", 10, 10), ("a", "function", 5, 10)], {1, 2, 3}),
    ([("a", "class", 5, 10), ("a", "method", 4, 6), ("a", "method", 9, 11)], set()),  # overlap is no containment
    ([("a", "class", 1, 20), ("a", "enum", 2, 9), ("a", "method", 3, 4)], {1, 2}),  # a type in a type
    ([("a", "class", 7, 7), ("a", "struct", 7, 7)], {0, 1}),  # equal ranges: each in the other
    ([("a", "class", 1, 50), ("b", "function", 2, 3), ("a", "function", 1, 9), ("a", "function", 2, 3)], {2, 3}),
    ([("a", "method", 12, 13), ("a", "class", 10, 20), ("a", "class", 1, 5), ("a", "method", 2, 2)], {0, 3}),
])
def test_members(rows, expected):
    facts = make_facts(symbols=[sym(i, path, "n", kind, start, end) for i, (path, kind, start, end) in enumerate(rows)])
    assert scope._members(facts) == pyscope._members(facts) == expected
    assert scope._members(make_facts(symbols=[sym(9, "a", "K", "class")] * 2)) == set()  # a type never contains itself
    twice = [sym(1, "a", "A", "class", 1, 5), sym(2, "a", "B", "class", 1, 9), sym(2, "a", "B", "class", 2, 4)]
    assert scope._members(make_facts(symbols=twice)) == {1, 2}  # one declaration seen twice, once inside another type


RUN, MAX, HELP = sym(1, "lib/a.py", "run"), sym(2, "lib/a.py", "MAX", "constant"), sym(3, "lib/b.py", "help")


@BOTH
@pytest.mark.parametrize("source, target, resolution, outside, inside, marks", [
    ("app/x.py", RUN, "import", {1: 3}, {}, True), ("app/x.py", RUN, "local", {1: 3}, {}, True),
    ("lib/b.py", RUN, "import", {}, {1: 3}, True), ("lib/a.py", RUN, "local", {}, {1: 3}, True),
    ("tests/t.py", RUN, "import", {}, {}, False), ("app/x.py", RUN, "legacy", {}, {}, False),
    ("app/x.py", RUN, "ambiguous", {}, {}, True), ("app/x.py", RUN, "unique", {1: 3}, {}, True),
    ("app/x.py", MAX, "unique", {}, {}, True), ("app/x.py", MAX, "import", {2: 3}, {}, True),
    ("app/x.py", RUN, "Import", {}, {}, True),
])
def test_fan_in_counts_one_reference(m, source, target, resolution, outside, inside, marks):
    facts = make_facts(["lib/a.py", "lib/b.py"], [RUN, MAX], [inref(source, target, resolution, 3)],
                       tests=["tests/t.py"])
    fan_in = m.production_fan_in(facts)
    assert (fan_in.outside, fan_in.inside, 1 in fan_in.entry) == (outside, inside, not (marks and target is RUN))


@BOTH
def test_fan_in_sums_in_first_counted_order(m):
    fan_in = m.production_fan_in(make_facts(["lib/a.py", "lib/b.py"], [RUN, MAX, HELP], [
        inref("app/x.py", HELP, "ambiguous", 9), inref("app/x.py", MAX, "import"), inref("lib/b.py", RUN, "local", 2),
        inref("app/x.py", RUN, "import", 3), inref("app/y.py", HELP, "unique"), inref("app/y.py", RUN, "import", 4),
        inref("lib/a.py", HELP, "import", 5), inref("lib/a.py", RUN, "import")]))
    assert [list(fan_in.outside.items()), list(fan_in.inside.items()), fan_in.entry] == [
        [(2, 1), (1, 7), (3, 1)], [(1, 3), (3, 5)], frozenset()]


def start(name="start", kind="function", path="lib/a.py", **fields):
    return sym(9, path, name, kind, **fields)


@BOTH
@pytest.mark.parametrize("symbol, reference, entry", [
    (start(), None, True), (start(kind="interface"), None, True), (start(kind="constant"), None, False),
    (start(export=False), None, False), (start("_start"), None, False), (start(), ("app/x.py", "ambiguous"), False),
    (start(), ("lib/b.py", "import"), False), (start(), ("a.py", "legacy"), True),
    (start(), ("tests/t.py", "import"), True),
    (start(start=12, end=13), None, False), (start(path="tests/test_a.py"), None, False),  # in a type; in a test file
])
def test_entry_points(m, symbol, reference, entry):
    refs = [inref(reference[0], symbol, reference[1])] if reference else []
    facts = make_facts(["lib/a.py", "tests/test_a.py"], [sym(8, "lib/a.py", "_K", "class", 10, 20), symbol], refs,
                       tests=["tests/t.py"])
    assert m.production_fan_in(facts).entry == ({9} if entry else set())


def test_the_path_filter_is_asked_last_for_each_candidate_and_its_errors_propagate(monkeypatch):
    symbols = [sym(1, "b", "run"), sym(2, "a", "_private"), sym(3, "a", "hidden", export=False), MAX,
               sym(4, "a", "K", "class", 10, 20), sym(5, "a", "method", "method", 11, 12), sym(6, "t/x", "test"),
               sym(7, "b", "used")]
    facts = make_facts(["a", "b"], symbols, [inref("app/x.py", symbols[7], "unique")])
    calls = []
    monkeypatch.setattr(scope, "is_test_path", lambda path: calls.append(path) or path.startswith("t/"))
    assert scope.production_fan_in(facts).entry == {1, 4} and calls == ["b", "a", "t/x"]
    monkeypatch.setattr(scope, "is_test_path", lambda path: {}[path])
    with pytest.raises(KeyError):
        scope.production_fan_in(facts)


@BOTH
def test_rank_key(m):
    fan_in = scope.FanIn({1: 4, 2: 2, 6: 0}, {1: 3, 2: 3}, frozenset({5}))
    symbols = [sym(1, "a", "MAX", "constant", 10, 50), sym(2, "a", "run", "function", 10, 49),
               sym(5, "a", "_E", "class", 7, 7), sym(6, "a", "__d", "method", 9, 3), sym(7, "a", "_", "field", 10, 400),
               sym(8, "a", "f", start=10, end=51)]
    assert [m.rank_key(s, fan_in) for s in symbols] == [
        (False, 1, False, -4, -40, -3, 10), (False, 0, False, -4, -39, -6, 10), (False, 0, True, 0, 0, 0, 7),
        (True, 0, True, 0, 6, 0, 9), (True, 1, True, 0, -40, 0, 10), (True, 0, False, 0, -40, 0, 10)]
    huge = sym(1, "a", "f", start=-(2**63), end=2**63 - 1)
    assert m.rank_key(huge, scope.FanIn({1: 2**63 - 1}))[3:5] == (2 - 2**64, -40)


@BOTH
@pytest.mark.parametrize("files, symbols, line_counts, seeds", [
    (["a.py"], [("a.py", 5, 3), ("a.py", 0, 99)], {}, {"a.py": (5, 5)}),  # line 0 is no seed; end at least start
    (["a.py", "b.py"], [("b.py", 0, 4)], {"a.py": 12, "b.py": 30}, {"a.py": (1, 12), "b.py": (1, 30)}),
    (["a.py", "b.py", "c.py"], [], {"a.py": 0, "c.py": 2}, {"c.py": (1, 2)}),
    ([], [("x.py", 7, 9), ("y.py", 2, 2)], {"x.py": 10}, {"x.py": (7, 9), "y.py": (2, 2)}),  # declarations, no files
    (["b.py", "a.py"], [("a.py", 3, 4), ("b.py", 8, 8)], {"b.py": 10}, {"a.py": (3, 4), "b.py": (8, 8)}),
])
def test_file_seeds(m, files, symbols, line_counts, seeds):
    records = [sym(i, path, "f", "function", start, end) for i, (path, start, end) in enumerate(symbols)]
    facts = make_facts(files, records, line_counts=line_counts)
    assert list(m.file_seeds(facts, scope.FanIn({1: 9})).items()) == list(seeds.items())


def ranked_in(order, files):
    """Declarations ranked as `order` lists their names, best first, grouped as `files` lists them."""
    return {path: [sym(order.index(n), path, n, start=order.index(n) + 1) for n in names]
            for path, names in files.items()}


A6, ABC = ["a1", "a2", "a3", "a4", "a5", "a6"], "a1 c1 a2 a3 a4 b1 c2 a5 c3 a6".split()


@BOTH
@pytest.mark.parametrize("files, order, total, floor, share, expected", [
    ({"A": A6, "B": ["b1"], "C": ["c1", "c2", "c3"]}, ABC, 6, 1, 0.5, "a1 c1 b1 a2 c2 a3"),
    ({"A": A6, "B": ["b1"], "C": ["c1", "c2", "c3"]}, ABC, 6, 1, 1.0, "a1 c1 b1 a2 a3 a4"),
    ({"A": A6, "B": ["b1"], "C": ["c1"]}, "a1 c1 a2 a3 a4 b1 a5 a6".split(), 7, 1, 0.5, "a1 c1 b1 a2 a3 a4 a5"),
    ({"A": ["a1"], "B": ["b1"], "C": ["c1"]}, ["c1", "a1", "b1"], 2, 5, 0.5, "c1 a1"),
    ({"A": ["a1", "a2", "a3"], "B": ["b1", "b2"]}, "a1 a2 a3 b1 b2".split(), 4, -3, 0.0, "a1 b1 a2 a3"),
    ({"A": [], "B": ["b1"]}, ["b1"], 3, 1, 1, "b1"),
    # 50 * 0.14 is 7.000000000000001: a cap of 8 leaves G two blocks, a cap of 7 would leave it seven.
    ({p: [f"{p}{i}" for i in range(9)] for p in "ABCDEFG"}, [f"{p}{i}" for p in "ABCDEFG" for i in range(9)], 50, 1,
     0.14, "G: 2"),
])
def test_select_with_quota(m, files, order, total, floor, share, expected):
    chosen = [s.name for s in m.select_with_quota(ranked_in(order, files), scope.FanIn({}), total, floor, share)]
    assert (" ".join(chosen) if len(chosen) < 10 else f"G: {sum(name[0] == 'G' for name in chosen)}") == expected


@BOTH
@pytest.mark.parametrize("scored, limit, per_file, expected, pulled", [
    ("fa ga hb kc hd", 3, 1, "fhk", 4), ("fa ga hb", 2, 2, "fg", 2), ("fa ga", 0, 5, "", 0), ("fa ga", -1, 5, "", 0),
    ("fa gb", 5, 0, "", 2), ("fa fa fb", 5, 2, "fff", 3),
])
def test_pick_spread(m, scored, limit, per_file, expected, pulled):
    pairs = [tuple(pair) for pair in scored.split()]
    taken = []  # nothing is pulled from the iterable once the result is full
    assert "".join(m.pick_spread((taken.append(p) or p for p in pairs), limit, per_file)) == expected
    assert len(taken) == pulled


@pytest.mark.parametrize("helper, args, expected", [
    ("_short_path", ("src/pkg/mod.py",), "pkg/mod.py"), ("_short_path", ("mod.py",), "mod.py"),
    ("_short_path", ("/mod.py",), "/mod.py"), ("_short_path", ("a/b/",), "b/"), ("_short_path", ("a//b",), "/b"),
    ("_short_path", ("x\\y/z",), "x\\y/z"), ("_short_path", ("",), ""), ("_cell", ("a|b\nc",), "a\\|b c"),
    ("_cell", ("cr\r\nlf",), "cr\r lf"), ("_cell", ("\\|",), "\\\\|"), ("_named", ([],), ""),
    ("_named", (["a", "b", "c"],), "a, b, c"), ("_named", (list("abcdef"),), "a, b, c +3"),
    ("_named", (list("abcdef"), 4), "a, b, c, d +2"), ("_named", (["a", "b"], 0), " +2"),
    ("_named", (["a", "b", "c"], -1), "a, b +4"), ("_named", (["a"], -(2**63)), " +9223372036854775809"),
    ("_named", (["a", 2, None], 1), "a +2"),
])
def test_text_helpers(helper, args, expected):
    assert getattr(scope, helper)(*args) == getattr(pyscope, helper)(*args) == expected


STORE = [sym(1, "lib/store.py", "open", start=10), sym(2, "lib/store.py", "close", start=20),
         sym(3, "lib/store.py", "Store", "class", 30), sym(4, "lib/store.py", "load", start=40),
         sym(5, "lib/store.py", "save", start=50), sym(6, "lib/store.py", "_lock", start=60)]
CACHE = [sym(10, "lib/cache.py", "Cache", "class", 3), sym(11, "lib/cache.py", "get", "method", 5)]
WIRE = [sym(20, "go/wire.go", "Encode", start=1), sym(21, "go/wire.go", "MAX", "constant", 9)]
CARD_FILES = ["lib/store.py", "lib/cache.py", "lib/empty.py", "go/wire.go", "lib/a|b.py"]
CARDS = make_facts(CARD_FILES, STORE + CACHE + WIRE, [
    inref("app/main.py", STORE[3], "import", 3), inref("svc/app/main.py", STORE[0], "import", 3),  # one short path
    inref("tests/test_store.py", STORE[0], "import", 9),  # a test is never a user
    inref("lib/cache.py", STORE[1], "import", 2),  # another page file is a user
    inref("lib/store.py", STORE[2], "local", 7),  # a file never uses itself
    inref("web/main.py", STORE[3], "local", 1), inref("lib/cache.py", STORE[4], "local", 2),
    inref("web/main.py", STORE[4], "import", 2), inref("app/cli.py", STORE[0], "ambiguous", 5),  # a name match only
    inref("lib/store.py", CACHE[0], "import", 1), inref("go/wire.go", CACHE[1], "unique", 1),  # imports resolved
    inref("app/main.py", WIRE[0], "unique", 2),  # ...and not here
    inref("web/main.py", WIRE[1], "unique", 4),  # a constant's name collides
    inref("svc/x.go", WIRE[0], "legacy", 1), inref("tests/test_store.py", WIRE[0], "unique", 1),
    inref("app/main.py", STORE[5], "Import", 1)], resolved=set(CARD_FILES) - {"go/wire.go"},
    tests=["tests/test_store.py"],
    line_counts={"lib/store.py": 120, "lib/empty.py": 0, "go/wire.go": 7},
    summaries={"lib/store.py": "Stores | loads\nrecords.", "lib/cache.py": "Cache of\r\nparsed", "go/wire.go": ""})


@BOTH
def test_file_cards(m, monkeypatch):
    reaching = {"lib/store.py": ["tests/test_store.py"], "lib/cache.py": ("tests/x|y.py", "t/b", "t/c", "t/d")}
    monkeypatch.setattr(m, "tests_reaching", lambda facts: (None, reaching))
    fan_in = scope.FanIn({3: 2, 2: 2, 4: 9, 1: 1, 5: 1, 6: 0, 20: 4}, {6: 50, 10: 3, 11: 3})
    assert m.render_file_cards(CARDS, fan_in, "## Files", ["lib/gone.py", "lib/cache.py"]) == (
        "## Files\n\n" + pyscope.CARDS_HEAD + "\n"
        "| `lib/store.py` | 120 | 6 | Stores \\| loads records. | `load` L40 (9), `close` L20 (2), `Store` L30 (2) +2 "
        "| lib/cache.py, app/main.py, app/main.py +1 | tests/test_store.py |\n"
        "| `lib/cache.py` | ? | 2 | Cache of\r parsed | `Cache` L3 (in-page 3), `get` L5 (in-page 3) "
        "| lib/store.py | tests/x\\|y.py, t/b, t/c +1 |\n"
        "| `lib/empty.py` | 0 | 0 |  |  |  |  |\n| `go/wire.go` | 7 | 2 |  | `Encode` L1 (4) | app/main.py |  |\n"
        "| `lib/a|b.py` | ? | 0 |  |  |  |  |\n| `lib/gone.py` | ? | 0 | not in the index | | | |\n"
        "| `lib/cache.py` | ? | 0 | not in the index | | | |\n")
    assert m.render_file_cards(make_facts(), fan_in, "") == "\n\n" + pyscope.CARDS_HEAD + "\n"


F, G = sym(1, "lib/a.py", "f"), sym(2, "lib/b.py", "G", "struct")
BY_IMPORT = pyscope.NO_CONSUMERS + "through an `import` or `local` edge."
BY_UNIQUE = pyscope.NO_CONSUMERS + "by a unique name."
UNUSED_F_G = pyscope.UNUSED.format("`G` (struct, `lib/b.py:L1`), `f` (function, `lib/a.py:L1`)")


@BOTH
@pytest.mark.parametrize("files, refs, resolved, languages, expected", [
    (["lib/a.py", "lib/b.py"], [inref("app/x.py", F, "import", 3), inref("app/x.py", F), inref("app/y.py", G, refs=5),
                                inref("app/x.py", G, "local", 2), inref("tools/z.py", G, "ambiguous", 2),
                                inref("tools/w.py", F, "unique")], None, None,
     [pyscope.RESOLVED_INTRO, "- `app/x.py` uses `f`, `G` (6 refs)", "- `app/y.py` uses `G` (5 refs)",
      pyscope.NOT_COUNTED.format("2 `ambiguous`, 1 `unique`", "2 other files")]),
    (["lib/a.py", "lib/b.py"], [inref("lib/b.py", F), inref("tests/t.py", G), inref("lib/a.py", G, "ambiguous")], None,
     None, [pyscope.RESOLVED_INTRO, BY_IMPORT, UNUSED_F_G]),  # the page and tests are no consumers
    (["a.rs", "lib/a.py", "c.go", "lib/b.py"], [inref("x.go", F, "ambiguous"), inref("y.go", G, "legacy", 0)],
     ["lib/a.py"], {"a.rs": "rust", "c.go": "go", "lib/b.py": None},
     [pyscope.UNRESOLVED_INTRO.format(", go, rust"), BY_UNIQUE,
      pyscope.NOT_COUNTED.format("1 `ambiguous`, 0 `legacy`", "2 other files"), UNUSED_F_G]),
])
def test_consumers(m, files, refs, resolved, languages, expected):
    facts = make_facts(files, [F, G], refs, resolved=resolved, tests=["tests/t.py"], languages=languages)
    assert m.render_consumers(facts, scope.FanIn({}), "## C") == "\n".join(["## C", "", *expected, ""])


@BOTH
@pytest.mark.parametrize("count", [12, 13])
def test_consumers_name_twelve_files_and_eight_unused_declarations(m, count):
    symbols = [sym(i, "lib/a.py", f"f{i}", start=i + 1) for i in range(count)]
    refs = [inref(f"app/m{i:02}.py", symbols[0], "unique", i) for i in range(count)]
    lines = m.render_consumers(make_facts(["lib/a.py"], symbols, refs, resolved=[]), scope.FanIn({}), "#").split("\n")
    assert [line for line in lines if line.startswith("- ")] == [
        f"- `app/m{i:02}.py` uses `f0` ({i} refs)" for i in range(count - 1, count - 13, -1)
    ] + ["- _...and 1 more files_"] * (count - 12)
    named = ", ".join(f"`f{i}` (function, `lib/a.py:L{i + 1}`)" for i in range(1, 9))
    assert lines[-2] == pyscope.UNUSED.format(named + f" and {count - 9} more")
    facts = make_facts(["lib/a.py"], symbols)
    assert m._unused_outside(facts, iter([3, "3", 2**70]), scope.FanIn({})) == symbols[:3] + symbols[4:]


HELPER = sym(10, "util/h.py", "helper", fqn="util.h.helper")
LIMIT = sym(11, "util/h.py", "LIMIT", "constant", fqn="util.h.LIMIT")
FIELD = sym(14, "util/h.py", "field", "attribute", fqn="util.h.K.field")
OWN = sym(30, "lib/a.py", "MAX", "constant")


@BOTH
def test_neighbours_and_name_match_counts(m):
    facts = make_facts(["lib/a.py", "lib/b.py"], inbound=[
        inref("tests/t.py", OWN, "unique", 2), inref("lib/b.py", OWN, "unique"), inref("app/x.py", OWN, "ambiguous", 7),
        inref("app/x.py", OWN, "import", 7), inref("app/x.py", sym(31, "lib/a.py", "run"), "unique", 7)], outbound=[
        outref("lib/a.py", HELPER, "import", 2), outref("lib/b.py", HELPER, "unique", 3),  # unique: a function counts
        outref("lib/a.py", LIMIT, "unique", 5), outref("lib/a.py", LIMIT, "local", 1),  # only evidence to a constant
        outref("lib/a.py", sym(12, "lib/b.py", "own"), "import", 9),  # the page is no neighbour, nor is a test
        outref("lib/a.py", sym(13, "tests/fix.py", "fixture"), "import", 9), outref("lib/a.py", FIELD, "ambiguous"),
        outref("lib/a.py", FIELD, "unique", 4), outref("lib/b.py", OWN, "unique", 3), outref("lib/a.py", OWN, "unique"),
    ])
    assert [m.neighbours(facts, n) for n in (10, 1, 0, -3)] == [[(HELPER, 5), (LIMIT, 1)], [(HELPER, 5)], [], []]
    assert list(m.name_match_counts(facts).items()) == [
        (("tests/t.py", "lib/a.py"), 2), (("lib/b.py", "lib/a.py"), 4), (("lib/a.py", "util/h.py"), 9),
        (("lib/a.py", "lib/a.py"), 1)]


@BOTH
def test_neighbours_tie_by_fqn_then_first_counted_and_keep_the_last_record(m):
    b, a, c1, c2 = (sym(20 + i, f"x/{i}.py", "n", fqn=f"pkg.{name}") for i, name in enumerate("bacc"))
    again = sym(21, "x/1.py", "n", fqn="pkg.a")  # equal to a, but another object
    facts = make_facts(["lib/a.py"], outbound=[outref("lib/a.py", t, refs=1) for t in (b, c2, a, c1)] + [
        outref("lib/a.py", again, refs=0)])
    result = m.neighbours(facts, 10)
    assert [(s.id, n) for s, n in result] == [(21, 1), (20, 1), (23, 1), (22, 1)] and result[0][0] is again
