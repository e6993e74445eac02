"""Markdown helpers, file users and the file cards table."""

import random
from collections import Counter, OrderedDict, defaultdict
from collections.abc import Mapping
from types import MappingProxyType, SimpleNamespace

import pytest

import pages
import pyscope
import scope
from conftest import inref, make_facts, sym

HEAD = ("## Files\n\nEvery file of this page, from the index. Lines and the summary come from the file; the most "
        "used declarations are ranked by the references production code outside the page makes to them (line, "
        "references; `in-page` when only the page's own files use them); users are the other production files "
        "that reference the file through evidence-backed edges.\n\n"
        "| File | Lines | Declarations | Summary | Most used | Used by | Tests |\n|---|---|---|---|---|---|---|\n")


class Names:
    """A sequence that is only indexable and sized, as `_named` requires."""

    def __init__(self, *names):
        self.names = names

    def __len__(self):
        return len(self.names)

    def __getitem__(self, index):
        return self.names[index]


@pytest.mark.parametrize("helper, args, expected", [
    ("_short_path", ("src/pkg/mod.py",), "pkg/mod.py"),
    ("_short_path", ("a/b/c/d",), "c/d"),
    ("_short_path", ("mod.py",), "mod.py"),
    ("_short_path", ("a/b",), "a/b"),
    ("_short_path", ("",), ""),
    ("_short_path", ("/mod.py",), "/mod.py"),
    ("_short_path", ("a/b/",), "b/"),
    ("_short_path", ("a//b",), "/b"),
    ("_short_path", ("/",), "/"),
    ("_short_path", ("//",), "/"),
    ("_short_path", ("x\\y/z",), "x\\y/z"),
    ("_short_path", ("é/\ud800/ü\x00",), "\ud800/ü\x00"),
    ("_cell", ("plain text",), "plain text"),
    ("_cell", ("a|b",), "a\\|b"),
    ("_cell", ("one\ntwo",), "one two"),
    ("_cell", ("cr\r\nlf",), "cr\r lf"),
    ("_cell", ("lone\rcr",), "lone\rcr"),
    ("_cell", ("\\|",), "\\\\|"),
    ("_cell", (" `x` ",), " `x` "),
    ("_cell", ("",), ""),
    ("_cell", ("\udfff|\U0001f600",), "\udfff\\|\U0001f600"),
    ("_named", ([],), ""),
    ("_named", (["a"],), "a"),
    ("_named", (["a", "b", "c"],), "a, b, c"),
    ("_named", (list("abcd"),), "a, b, c +1"),
    ("_named", (list("abcdef"),), "a, b, c +3"),
    ("_named", (list("abcdef"), 4), "a, b, c, d +2"),
    ("_named", (["a", "b"], 0), " +2"),
    ("_named", ([], 0), ""),
    ("_named", (("z", "a"), 5), "z, a"),
    ("_named", (Names("z", "y", "x", "w"),), "z, y, x +1"),
    ("_named", ("abcd",), "a, b, c +1"),
    ("_named", (["a", "b", "c"], -1), "a, b +4"),
    ("_named", (["a", "b"], -5), " +7"),
    ("_named", (["a"], -2**63), " +9223372036854775809"),
    ("_named", (["a"], True), "a"),
    ("_named", (["a", 2, None], 1), "a +2"),  # names past the limit are only counted
    ("_named", (["\ud800", "b"], 1), "\ud800 +1"),
])
def test_helpers(helper, args, expected):
    assert getattr(scope, helper)(*args) == expected
    assert getattr(pyscope, helper)(*args) == expected


@pytest.mark.parametrize("call, error, message", [
    (lambda: scope._short_path(b"a/b"), TypeError, r"_short_path\(\) argument 'path' must be str"),
    (lambda: scope._cell(None), TypeError, r"_cell\(\) argument 'text' must be str"),
    (lambda: scope._named(5), TypeError, r"_named\(\) argument 'names' must be a sequence of str"),
    (lambda: scope._named({"a"}), TypeError, "'names' must be a sequence"),
    (lambda: scope._named(iter(["a"])), TypeError, "'names' must be a sequence"),
    (lambda: scope._named(["a", 2]), TypeError, "_named.*'names'.*must be str, not int"),
    (lambda: scope._named(["a"], "3"), TypeError, "'limit' must be int"),
    (lambda: scope._named(["a"], 2**64), OverflowError, "limit"),
    (lambda: scope.render_file_cards(make_facts(), scope.FanIn({}), b"#"), TypeError,
     r"render_file_cards\(\) argument 'heading' must be str"),
    (lambda: scope.render_file_cards(make_facts(), scope.FanIn({}), "#", "a/b.py"), TypeError,
     "'missing' must be a sequence of str"),
    (lambda: scope.render_file_cards(make_facts(), scope.FanIn({}), "#", ["a", 1]), TypeError,
     "render_file_cards.*'missing'.*must be str"),
    (lambda: scope._most_used(5, scope.FanIn({})), TypeError, r"_most_used\(\) argument 'declarations'"),
])
def test_wrong_types(call, error, message):
    with pytest.raises(error, match=message):
        call()


# A page that exercises every rule of every cell.
STORE = [sym(1, "lib/store.py", "open", start=10), sym(2, "lib/store.py", "close", start=20),
         sym(3, "lib/store.py", "Store", "class", 30), sym(4, "lib/store.py", "load", start=40),
         sym(5, "lib/store.py", "save", start=50), sym(6, "lib/store.py", "_lock", start=60)]
CACHE = [sym(10, "lib/cache.py", "Cache", "class", 3), sym(11, "lib/cache.py", "get", "method", 5)]
WIRE = [sym(20, "go/wire.go", "Encode", start=1), sym(21, "go/wire.go", "MAX", "constant", 9)]
FILES = ["lib/store.py", "lib/cache.py", "lib/empty.py", "go/wire.go", "lib/a|b.py"]
INBOUND = [
    inref("app/main.py", STORE[3], "import", 3),
    inref("svc/app/main.py", STORE[0], "import", 3),   # another folder, the same short path
    inref("tests/test_store.py", STORE[0], "import", 9),  # a test is never a user
    inref("lib/cache.py", STORE[1], "import", 2),       # another page file is a user
    inref("lib/store.py", STORE[2], "local", 7),        # a file never uses itself
    inref("web/main.py", STORE[3], "local", 1),
    inref("lib/cache.py", STORE[4], "local", 2),
    inref("web/main.py", STORE[4], "import", 2),
    inref("app/cli.py", STORE[0], "ambiguous", 5),      # a name match only
    inref("lib/store.py", CACHE[0], "import", 1),
    inref("go/wire.go", CACHE[1], "unique", 1),         # imports are resolved for the target
    inref("app/main.py", WIRE[0], "unique", 2),         # ...and here they are not
    inref("web/main.py", WIRE[1], "unique", 4),         # a constant's name collides
    inref("svc/x.go", WIRE[0], "legacy", 1),
    inref("tests/test_store.py", WIRE[0], "unique", 1),
    inref("app/main.py", STORE[5], "Import", 1),        # resolutions compare exactly
]
FAN_IN = scope.FanIn({3: 2, 2: 2, 4: 9, 1: 1, 5: 1, 6: 0, 20: 4}, {6: 50, 10: 3, 11: 3})
REACHING = (frozenset({"tests/test_store.py"}),
            {"lib/store.py": ["tests/test_store.py"], "lib/cache.py": ("tests/x|y.py", "t/b", "t/c", "t/d")})
ROWS = (
    "| `lib/store.py` | 120 | 6 | Stores \\| loads records. | `load` L40 (9), `close` L20 (2), `Store` L30 (2) +2 "
    "| lib/cache.py, app/main.py, app/main.py +1 | tests/test_store.py |\n"
    "| `lib/cache.py` | ? | 2 | Cache of\r parsed files | `Cache` L3 (in-page 3), `get` L5 (in-page 3) "
    "| lib/store.py | tests/x\\|y.py, t/b, t/c +1 |\n"
    "| `lib/empty.py` | 0 | 0 |  |  |  |  |\n"
    "| `go/wire.go` | 7 | 2 |  | `Encode` L1 (4) | app/main.py |  |\n"
    "| `lib/a|b.py` | ? | 0 |  |  |  |  |\n"
    "| `lib/gone.py` | ? | 0 | not in the index | | | |\n"
    "| `lib/cache.py` | ? | 0 | not in the index | | | |\n")


def card_facts(**changes):
    fields = dict(symbols=STORE + CACHE + WIRE, inbound=INBOUND, resolved=set(FILES) - {"go/wire.go"},
                  tests=["tests/test_store.py"],
                  line_counts={"lib/store.py": 120, "lib/empty.py": 0, "go/wire.go": 7},
                  summaries={"lib/store.py": "Stores | loads\nrecords.", "lib/cache.py": "Cache of\r\nparsed files",
                             "go/wire.go": ""})
    fields.update(changes)
    return make_facts(FILES, **fields)


@pytest.fixture
def reaching(monkeypatch):
    """tests_reaching answers REACHING (or what a test sets) on both sides."""
    answer = {"value": REACHING}
    for module in (scope, pyscope):
        monkeypatch.setattr(module, "tests_reaching", lambda facts: answer["value"])
    return answer


def test_file_cards_golden(reaching):
    facts = card_facts()
    missing = ["lib/gone.py", "lib/cache.py"]
    assert scope.render_file_cards(facts, FAN_IN, "## Files", missing) == HEAD + ROWS
    assert scope.render_file_cards(facts=facts, fan_in=FAN_IN, heading="## Files", missing=tuple(missing)) == \
        HEAD + ROWS  # again, from the converted view
    assert pyscope.render_file_cards(facts, FAN_IN, "## Files", missing) == HEAD + ROWS


def test_file_cards_of_an_empty_page(reaching):
    assert scope.render_file_cards(make_facts(), scope.FanIn({}), "## Files") == HEAD
    assert scope.render_file_cards(make_facts(), scope.FanIn({}), "", ["x"]) == \
        HEAD[len("## Files"):] + "| `x` | ? | 0 | not in the index | | | |\n"


def test_file_users():
    users = scope.file_users(card_facts())
    assert type(users) is dict and all(type(counter) is Counter for counter in users.values())
    assert [(target, list(counter.items())) for target, counter in users.items()] == [
        ("lib/store.py", [("app/main.py", 3), ("svc/app/main.py", 3), ("lib/cache.py", 4), ("web/main.py", 3)]),
        ("lib/cache.py", [("lib/store.py", 1)]),
        ("go/wire.go", [("app/main.py", 2)]),
    ]
    assert "lib/empty.py" not in users
    assert scope.file_users(make_facts(["a.py"])) == {}


@pytest.mark.parametrize("name, value, wire_users, store_users", [
    # Without a name-match kind the constant's "unique" reference counts.
    ("NAME_MATCH_KINDS", frozenset(), {"app/main.py": 2, "web/main.py": 4}, None),
    # Only "import" is evidence now: the "local" references drop out.
    ("EVIDENCE_RESOLUTIONS", frozenset({"import"}), None,
     {"app/main.py": 3, "svc/app/main.py": 3, "lib/cache.py": 2, "web/main.py": 2}),
])
def test_file_users_asks_the_module_sets_at_call_time(monkeypatch, name, value, wire_users, store_users):
    facts = card_facts()
    before = scope.file_users(facts)
    monkeypatch.setattr(scope, name, value)
    after = scope.file_users(facts)
    assert after["go/wire.go"] == (before["go/wire.go"] if wire_users is None else wire_users)
    assert after["lib/store.py"] == (before["lib/store.py"] if store_users is None else store_users)


def test_file_users_sums_beyond_64_bits_raise():
    target = sym(1, "a.py", "f")
    facts = make_facts(["a.py"], [target], [inref("b.py", target, refs=2**63 - 1), inref("b.py", target)])
    with pytest.raises(OverflowError):
        scope.file_users(facts)


def test_code_points_come_back_unchanged(reaching):
    odd = "d\ud800r/\x00f\U0001f600.py"
    target = sym(1, odd, "n\udfff", start=4)
    user = "\udc80/x/é.py"
    facts = make_facts([odd], [target], [inref(user, target)], summaries={odd: "s\ud800|"})
    reaching["value"] = (frozenset(), {odd: ["t\udbff"]})
    text = scope.render_file_cards(facts, scope.FanIn({1: 1}), "# \udc80", ["m\udfff"])
    assert text == pyscope.render_file_cards(facts, scope.FanIn({1: 1}), "# \udc80", ["m\udfff"])
    assert text.startswith("# \udc80\n\n")
    assert text.endswith(f"| `{odd}` | ? | 1 | s\ud800\\| | `n\udfff` L4 (1) | x/é.py | t\udbff |\n"
                         "| `m\udfff` | ? | 0 | not in the index | | | |\n")
    assert scope.file_users(facts) == {odd: Counter({user: 1})}


class ReadOnly(Mapping):
    def __init__(self, data):
        self.data = data

    def __getitem__(self, key):
        return self.data[key]

    def __iter__(self):
        return iter(self.data)

    def __len__(self):
        return len(self.data)


@pytest.mark.parametrize("by_file", [
    {"lib/cache.py": ["t/a", "t/b", "t/c", "t/d"]},
    MappingProxyType({"lib/cache.py": ("t/a", "t/b", "t/c", "t/d")}),
    OrderedDict([("lib/store.py", None), ("lib/cache.py", iter(["t/a", "t/b", "t/c", "t/d"]))]),
    ReadOnly({"lib/cache.py": ["t/a", "t/b", "t/c", "t/d"], "elsewhere.py": ["t/x"]}),
    defaultdict(list, {"lib/cache.py": ["t/a", "t/b", "t/c", "t/d"]}),
])
def test_tests_come_from_the_second_element_of_tests_reaching(reaching, by_file):
    facts = card_facts()
    reaching["value"] = (object(), by_file)
    keys = list(by_file)
    text = scope.render_file_cards(facts, FAN_IN, "## Files")
    assert "| lib/store.py | t/a, t/b, t/c +1 |\n| `lib/empty.py` | 0 | 0 |  |  |  |  |\n" in text
    assert "| app/main.py |  |\n" in text  # go/wire.go: no entry
    assert list(by_file) == keys  # asked as .get would ask: nothing is added


def test_tests_reaching_is_looked_up_at_call_time_and_its_errors_propagate(monkeypatch):
    calls = []
    failure = LookupError("no tests today")

    def reaching(facts):
        calls.append(facts)
        raise failure
    monkeypatch.setattr(scope, "tests_reaching", reaching)
    facts = card_facts()
    with pytest.raises(LookupError) as raised:
        scope.render_file_cards(facts, FAN_IN, "## Files")
    assert raised.value is failure and calls == [facts]
    monkeypatch.setattr(scope, "tests_reaching", lambda facts: (None, {"lib/empty.py": ["t/e"]}))
    assert "| `lib/empty.py` | 0 | 0 |  |  |  | t/e |\n" in scope.render_file_cards(facts, FAN_IN, "## Files")
    monkeypatch.setattr(scope, "tests_reaching", lambda facts: (None, {"lib/empty.py": [b"t/e"]}))
    with pytest.raises(TypeError, match="render_file_cards.*test name.*must be str"):
        scope.render_file_cards(facts, FAN_IN, "## Files")


def test_most_used_reads_any_records_and_any_fan_in():
    record = SimpleNamespace
    decls = [record(id=1, name="f", start_line=3), record(id=2, name="g", start_line=4),
             record(id=3, name="h", start_line=5)]
    fan_in = SimpleNamespace(outside={3: 4, 2: 4, 1: 0}, inside={1: 9})  # no entry set
    assert scope._most_used(decls, fan_in) == ["`g` L4 (4)", "`h` L5 (4)"]
    assert scope._most_used(declarations=tuple(decls), fan_in=scope.FanIn({}, {1: 9, 3: 10})) == \
        ["`h` L5 (in-page 10)", "`f` L3 (in-page 9)"]
    assert scope._most_used([], scope.FanIn({})) == []
    with pytest.raises(AttributeError, match="name"):
        scope._most_used([SimpleNamespace(id=1, start_line=1)], fan_in)
    with pytest.raises(AttributeError, match="inside"):
        scope._most_used(decls, SimpleNamespace(outside={}))


def random_fan_in(rng, facts):
    """Counts with many ties, zeros and in-page-only files."""
    ids = [s.id for s in facts.symbols]
    outside = {i: rng.choice((0, 1, 2, 2, 3, 7)) for i in rng.sample(ids, len(ids) // 3)}
    inside = {i: rng.choice((0, 1, 1, 4)) for i in rng.sample(ids, len(ids) // 2)}
    return scope.FanIn(outside, inside)


@pytest.mark.parametrize("seed", range(40))
def test_agrees_with_the_plain_implementation(seed):
    rng = random.Random(seed)
    size = rng.choice(("tiny", "small", "medium"))
    fields = pages.make_page(rng, **pages.SIZES[size])
    facts = scope.ScopeFacts(**fields)
    fan_in = scope.production_fan_in(facts) if seed % 2 else random_fan_in(rng, facts)
    missing = pages.missing_paths(rng, rng.randint(0, 2))
    if facts.files and rng.random() < 0.5:
        missing.append(rng.choice(facts.files).path)
    expected = pyscope.render_file_cards(facts, fan_in, "## F", missing)
    assert scope.render_file_cards(facts, fan_in, "## F", missing) == expected
    assert scope.render_file_cards(scope.ScopeFacts(**fields), fan_in, "## F", missing) == expected

    ours, theirs = scope.file_users(facts), pyscope.file_users(facts)
    assert [(k, type(v), list(v.items())) for k, v in ours.items()] == \
        [(k, type(v), list(v.items())) for k, v in theirs.items()]

    by_file = {}
    for s in facts.symbols:
        by_file.setdefault(s.path, []).append(s)
    for declarations in by_file.values():
        assert scope._most_used(declarations, fan_in) == pyscope._most_used(declarations, fan_in)
