"""Markdown helpers, file users and the file cards table."""

import random
from collections import Counter

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


@pytest.mark.parametrize("path, expected", [
    ("src/pkg/mod.py", "pkg/mod.py"), ("a/b/c/d", "c/d"), ("mod.py", "mod.py"), ("a/b", "a/b"), ("", ""),
    ("/mod.py", "/mod.py"), ("a/b/", "b/"), ("a//b", "/b"), ("/", "/"), ("x\\y/z", "x\\y/z"),
    ("é/\ud800/ü", "\ud800/ü"),
])
def test_short_path(path, expected):
    assert scope._short_path(path) == expected


@pytest.mark.parametrize("text, expected", [
    ("plain text", "plain text"), ("a|b", "a\\|b"), ("one\ntwo", "one two"), ("cr\r\nlf", "cr\r lf"),
    ("\\|", "\\\\|"), (" `x` ", " `x` "), ("", ""),
])
def test_cell(text, expected):
    assert scope._cell(text=text) == expected


@pytest.mark.parametrize("names, limit, expected", [
    ([], 3, ""), (["a"], 3, "a"), (["a", "b", "c"], 3, "a, b, c"), (list("abcd"), 3, "a, b, c +1"),
    (list("abcdef"), 3, "a, b, c +3"), (list("abcdef"), 4, "a, b, c, d +2"), (["a", "b"], 0, " +2"),
    (("z", "a"), 5, "z, a"),
])
def test_named(names, limit, expected):
    assert scope._named(names, limit) == expected
    if limit == 3:
        assert scope._named(names) == expected


def test_helpers_reject_other_types():
    with pytest.raises(TypeError, match=r"_cell\(\) argument 'text' must be str"):
        scope._cell(b"bytes")
    with pytest.raises(TypeError):
        scope._named(["a", 2])
    with pytest.raises(TypeError, match="'limit' must be int"):
        scope._named(["a"], "3")


PAGE = ["lib/store.py", "lib/cache.py", "lib/empty.py"]
STORE = [sym(i, "lib/store.py", f"s{i}", start=10 * i) for i in range(1, 6)]
CACHE = [sym(10, "lib/cache.py", "Cache", "class", 3, 30), sym(11, "lib/cache.py", "get", "method", 5, 9)]


def card_facts():
    inbound = [
        inref("app/main.py", STORE[0], "import", 3),
        inref("app/main.py", STORE[1], "import", 1),
        inref("other/main.py", STORE[2], "local", 2),
        inref("tests/test_store.py", STORE[3], "import", 9),  # a test is never a user
        inref("lib/cache.py", STORE[4], "import", 2),        # another page file is a user
        inref("app/cli.py", STORE[0], "import", 2),
        inref("lib/store.py", STORE[0], "local", 7),         # a file never uses itself
        inref("app/cli.py", STORE[1], "ambiguous", 4),       # not evidence
        inref("lib/store.py", CACHE[0], "import", 1),
    ]
    return make_facts(PAGE, symbols=STORE + CACHE, inbound=inbound, tests=["tests/test_store.py"],
                      line_counts={"lib/store.py": 120, "lib/empty.py": 0},
                      summaries={"lib/store.py": "Stores | loads\nrecords.", "lib/cache.py": "unused"})


def test_file_users():
    users = scope.file_users(card_facts())
    assert list(users) == ["lib/store.py", "lib/cache.py"]
    assert all(type(counter) is Counter for counter in users.values())
    assert list(users["lib/store.py"].items()) == [("app/main.py", 4), ("other/main.py", 2),
                                                   ("lib/cache.py", 2), ("app/cli.py", 2)]
    assert users["lib/cache.py"] == {"lib/store.py": 1}
    assert "lib/empty.py" not in users


def test_file_cards_golden(monkeypatch):
    monkeypatch.setattr(scope, "tests_reaching",
                        lambda facts: ({"tests/test_store.py"}, {"lib/store.py": ["tests/test_store.py"]}))
    facts = card_facts()
    fan_in = scope.FanIn({1: 5, 2: 1, 3: 2, 5: 2, 10: 0}, {1: 7, 10: 1, 11: 1})
    text = scope.render_file_cards(facts, fan_in, "## Files", ["lib/gone.py", "lib/store.py"])
    assert text == HEAD + (
        "| `lib/store.py` | 120 | 5 | Stores \\| loads records. | `s1` L10 (5), `s3` L30 (2), `s5` L50 (2) +1 "
        "| app/main.py, other/main.py, lib/cache.py +1 | tests/test_store.py |\n"
        "| `lib/cache.py` | ? | 2 | unused | `Cache` L3 (in-page 1), `get` L5 (in-page 1) | lib/store.py |  |\n"
        "| `lib/empty.py` | 0 | 0 |  |  |  |  |\n"
        "| `lib/gone.py` | ? | 0 | not in the index | | | |\n"
        "| `lib/store.py` | ? | 0 | not in the index | | | |\n")


def test_file_cards_of_an_empty_page_and_odd_code_points():
    assert scope.render_file_cards(make_facts(), scope.FanIn({}), "## Files") == HEAD
    odd = "d\ud800r/\x00f\U0001f600.py"
    facts = make_facts([odd], symbols=[sym(1, odd, "n\udfff")], summaries={odd: "s\ud800"})
    text = scope.render_file_cards(facts, scope.FanIn({1: 1}), "# \udc80")
    assert text.startswith("# \udc80\n\n")
    assert f"| `{odd}` | ? | 1 | s\ud800 | `n\udfff` L1 (1) |  |  |\n" in text


def test_tests_reaching_is_looked_up_and_its_errors_propagate(monkeypatch):
    calls = []

    def reaching(facts):
        calls.append(facts)
        raise LookupError("no tests today")
    monkeypatch.setattr(scope, "tests_reaching", reaching)
    facts = card_facts()
    with pytest.raises(LookupError, match="no tests today"):
        scope.render_file_cards(facts, scope.FanIn({}), "## Files")
    assert calls == [facts]


def test_most_used_reads_any_records():
    decls = [sym(1, "a", "f", start=3), sym(2, "a", "g", start=4), sym(3, "a", "h", start=5)]
    assert scope._most_used(decls, scope.FanIn({2: 4, 3: 4, 1: 0}, {1: 9})) == ["`g` L4 (4)", "`h` L5 (4)"]
    assert scope._most_used(decls, scope.FanIn({}, {1: 9})) == ["`f` L3 (in-page 9)"]
    assert scope._most_used([], scope.FanIn({})) == []


@pytest.mark.parametrize("seed", range(30))
def test_agrees_with_the_plain_implementation(seed):
    rng = random.Random(seed)
    facts = scope.ScopeFacts(**pages.make_page(rng))
    fan_in = pyscope.production_fan_in(facts)
    missing = pages.missing_paths(rng, 2)
    assert scope.render_file_cards(facts, fan_in, "## F", missing) == \
        pyscope.render_file_cards(facts, fan_in, "## F", missing)
    ours, theirs = scope.file_users(facts), pyscope.file_users(facts)
    assert [(k, list(v.items())) for k, v in ours.items()] == [(k, list(v.items())) for k, v in theirs.items()]
