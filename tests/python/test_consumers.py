"""The consumers section and the unused declarations."""

import random

import pytest

import pages
import pyscope
import scope
from conftest import inref, make_facts, sym
from tarnwick.storage import grounding_queries

RESOLVED_INTRO = ("Production files outside this page that use its code, counted from `import` and `local` edges "
                  "only (evidence); `unique` and `ambiguous` edges match a name and are not counted.")
NO_CONSUMERS = "0 production consumers: no production file outside this page reaches its code "
UNUSED_END = " (code used inside the page, entry points, and code reached dynamically or by name can still be live)."
NOT_COUNTED_END = " that match a name only (an attribute or a call that shares a name with a declaration here)."


def section(facts, fan_in=None):
    return scope.render_consumers(facts, fan_in or scope.FanIn({}), "## Consumers").split("\n")


def test_worked_example():
    store = sym(1, "lib/store.go", "Store", "struct", 5, 40)
    open_store = sym(2, "lib/store.go", "OpenStore", "function", 42, 50)
    cache = sym(3, "lib/cache.go", "Cache", "struct", 10, 30)
    facts = make_facts(["lib/store.go", "lib/cache.go"], symbols=[store, open_store, cache], inbound=[
        inref("app/cli.go", store, "import", 3), inref("app/cli.go", store, "import", 1),
        inref("app/cli.go", open_store, "import", 2), inref("app/server.go", store, "import", 5),
        inref("app/jobs.go", cache, "ambiguous", 2), inref("tools/fix.go", open_store, "unique", 1)])
    text = scope.render_consumers(facts, scope.production_fan_in(facts), "## Consumers")
    assert text == (
        "## Consumers\n\n" + RESOLVED_INTRO + "\n"
        "- `app/cli.go` uses `Store`, `OpenStore` (6 refs)\n"
        "- `app/server.go` uses `Store` (5 refs)\n"
        "Not counted: 2 `ambiguous`, 1 `unique` references from 2 other files" + NOT_COUNTED_END + "\n"
        "Used by no production file outside this page: `Cache` (struct, `lib/cache.go:L10`)" + UNUSED_END + "\n")


def test_empty_facts():
    assert section(make_facts()) == ["## Consumers", "", RESOLVED_INTRO,
                                     NO_CONSUMERS + "through an `import` or `local` edge.", ""]


def test_unresolved_languages_are_named_once_in_order():
    run = sym(1, "b.go", "Run")
    facts = make_facts(["a.rs", "b.go", "c.go", "d.py"], symbols=[run], resolved=["d.py"],
                       languages={"a.rs": "rust", "b.go": "go", "c.go": "go"},
                       inbound=[inref("x.go", run, "ambiguous")])
    lines = section(facts)
    assert lines[2] == ("The index does not resolve imports for go, rust, so the files below reference this page's "
                        "code by a `unique` name (the only production declaration of that name): likely uses, not "
                        "proven ones. Attribute and constant names are not counted.")
    assert lines[3] == NO_CONSUMERS + "by a unique name."
    assert lines[4] == "Not counted: 1 `ambiguous` references from 1 other file" + NOT_COUNTED_END


def test_a_file_without_language_names_an_empty_language():
    facts = scope.ScopeFacts((grounding_queries.ScopeFile(1, "x", None),), (), (), (), (), (), {}, {})
    assert section(facts)[2].startswith("The index does not resolve imports for , so")


@pytest.mark.parametrize("consumers, rows, overflow", [(12, 12, None), (13, 12, "- _...and 1 more files_")])
def test_at_most_twelve_consumer_rows(consumers, rows, overflow):
    target = sym(1, "lib/a.py", "f")
    facts = make_facts(["lib/a.py"], symbols=[target],
                       inbound=[inref(f"app/m{i:02}.py", target, refs=1) for i in range(consumers)])
    lines = section(facts, scope.FanIn({1: consumers}))
    assert [line for line in lines if line.startswith("- `")] == \
        [f"- `app/m{i:02}.py` uses `f` (1 refs)" for i in range(rows)]
    assert (overflow in lines) if overflow else not any("more files" in line for line in lines)


def test_rows_by_total_then_path_and_names_by_count():
    names = [sym(i, "lib/a.py", f"n{i}") for i in range(6)]
    inbound = [inref("z/first.py", names[0], refs=4), inref("a/second.py", names[0], refs=4)]
    inbound += [inref("m/six.py", names[i], refs=refs) for i, refs in enumerate([1, 3, 1, 3, 2, 1])]
    lines = section(make_facts(["lib/a.py"], symbols=names, inbound=inbound))
    assert lines[3:6] == ["- `m/six.py` uses `n1`, `n3`, `n4`, `n0` +2 (11 refs)",
                          "- `a/second.py` uses `n0` (4 refs)", "- `z/first.py` uses `n0` (4 refs)"]


def test_page_files_and_tests_are_neither_consumers_nor_left_out():
    f, g = sym(1, "lib/a.py", "f"), sym(2, "lib/b.py", "g")
    facts = make_facts(["lib/a.py", "lib/b.py"], symbols=[f, g], tests=["tests/t.py"], inbound=[
        inref("lib/b.py", f, "import"), inref("tests/t.py", g, "import"), inref("tests/t.py", g, "ambiguous"),
        inref("lib/a.py", g, "ambiguous")])
    lines = section(facts, scope.production_fan_in(facts))
    # f is used from another page file only and g only by tests: both are unused outside.
    assert lines[3:] == [NO_CONSUMERS + "through an `import` or `local` edge.",
                         "Used by no production file outside this page: `f` (function, `lib/a.py:L1`), "
                         "`g` (function, `lib/b.py:L1`)" + UNUSED_END, ""]


def test_rejected_references_leave_their_target_unused():
    f = sym(1, "lib/a.py", "f")
    facts = make_facts(["lib/a.py"], symbols=[f], inbound=[inref("app/x.py", f, "ambiguous", 3),
                                                           inref("app/y.py", f, "legacy", 1)])
    lines = section(facts)
    assert lines[4] == "Not counted: 3 `ambiguous`, 1 `legacy` references from 2 other files" + NOT_COUNTED_END
    assert lines[5].startswith("Used by no production file outside this page: `f` (function")


@pytest.mark.parametrize("count, tail", [(8, ""), (9, " and 1 more")])
def test_unused_line_names_eight(count, tail):
    symbols = [sym(i, "lib/a.py", f"f{i}", start=i + 1) for i in range(count)]
    line = section(make_facts(["lib/a.py"], symbols=symbols))[4]
    named = ", ".join(f"`f{i}` (function, `lib/a.py:L{i + 1}`)" for i in range(8))
    assert line == "Used by no production file outside this page: " + named + tail + UNUSED_END


class TestUnusedOutside:
    def test_filters_and_order(self):
        symbols = [sym(1, "b.py", "run", start=1, end=50), sym(2, "a.py", "Model", "class", 10, 12),
                   sym(3, "a.py", "_hidden"), sym(4, "a.py", "private", export=False),
                   sym(5, "a.py", "LIMIT", "constant"), sym(6, "a.py", "method", "method", 10, 11),
                   sym(7, "b.py", "same"), sym(8, "a.py", "same"), sym(9, "a.py", "used")]
        facts = make_facts(["a.py", "b.py"], symbols=symbols)
        result = scope._unused_outside(facts, iter([9, "not-an-id", 2**70]), scope.FanIn({}))
        assert [s.id for s in result] == [2, 1, 8, 7]
        assert result[0] is symbols[1]

    def test_rejects_a_non_iterable(self):
        with pytest.raises(TypeError, match="_unused_outside.*'used'"):
            scope._unused_outside(make_facts(), 5, scope.FanIn({}))


@pytest.mark.parametrize("seed", range(30))
def test_agrees_with_the_plain_implementation(seed):
    facts = scope.ScopeFacts(**pages.make_page(random.Random(seed)))
    fan_in = pyscope.production_fan_in(facts)
    assert scope.render_consumers(facts, fan_in, "# C") == pyscope.render_consumers(facts, fan_in, "# C")
