"""is_use, _members and production_fan_in through the module."""

import random

import pytest

import pages
import pyscope
import scope
from conftest import inref, make_facts, sym


class TestIsUse:
    @pytest.mark.parametrize("resolution, kind, resolved, expected", [
        ("import", "constant", True, True),
        ("local", "attribute", False, True),
        ("unique", "function", False, True),
        ("unique", "function", True, False),
        ("unique", "constant", False, False),
        ("unique", "field", False, False),
        ("ambiguous", "function", False, False),
        ("legacy", "function", False, False),
        # Exact comparison: no case folding, no stripping.
        ("Import", "function", False, False),
        (" unique", "function", False, False),
        ("unique ", "function", False, False),
        ("unique", "Constant", False, True),
        # import_resolved is a truth value, whatever its type.
        ("unique", "function", 0, True),
        ("unique", "function", [], True),
        ("unique", "function", [1], False),
        ("unique", "function", "no", False),
        # Any objects at all.
        (None, 3, None, False),
        (b"import", "function", False, False),
        ("unique", ("not", "a", "kind"), "", True),
    ])
    def test_truth_table(self, resolution, kind, resolved, expected):
        assert scope.is_use(resolution, kind, resolved) is expected
        assert scope.is_use(resolution=resolution, target_kind=kind, import_resolved=resolved) is expected

    def test_a_str_subclass_compares_as_its_text(self):
        class Text(str):
            pass
        assert scope.is_use(Text("unique"), Text("function"), False)
        assert not scope.is_use(Text("unique"), Text("constant"), False)

    def test_reads_the_modules_sets_at_call_time(self, monkeypatch):
        monkeypatch.setattr(scope, "EVIDENCE_RESOLUTIONS", frozenset({"ambiguous"}))
        monkeypatch.setattr(scope, "NAME_MATCH_KINDS", frozenset({"function"}))
        assert scope.is_use("ambiguous", "x", True)
        assert not scope.is_use("import", "x", True)
        assert not scope.is_use("unique", "function", False)
        assert scope.is_use("unique", "constant", False)

    def test_stops_at_the_first_test_that_fails(self, monkeypatch):
        class Loud:
            def __bool__(self):
                raise AssertionError("import_resolved looked at")

        class NoKinds:
            def __contains__(self, item):
                raise AssertionError("NAME_MATCH_KINDS looked at")
        monkeypatch.setattr(scope, "NAME_MATCH_KINDS", NoKinds())
        assert scope.is_use("import", "constant", Loud())  # evidence: nothing else is looked at
        assert not scope.is_use("ambiguous", "constant", Loud())
        assert not scope.is_use("unique", "constant", True)

    def test_errors_of_the_arguments_propagate(self):
        with pytest.raises(TypeError, match="unhashable"):
            scope.is_use(["import"], "function", False)

        class Falsy:
            def __bool__(self):
                raise ValueError("no truth here")
        with pytest.raises(ValueError, match="no truth here"):
            scope.is_use("unique", "function", Falsy())

        class Odd:
            def __eq__(self, other):
                raise RuntimeError("cannot compare")
            __hash__ = object.__hash__
        with pytest.raises(RuntimeError, match="cannot compare"):
            scope.is_use(Odd(), "function", False)


class TestMembers:
    @pytest.mark.parametrize("symbols, expected", [
        pytest.param([], set(), id="no declarations"),
        pytest.param([sym(1, "a.py", "K", "class", 1, 10), sym(2, "a.py", "m", "method", 2, 3)], {2},
                     id="method in class"),
        pytest.param([sym(1, "a.py", "K", "class", 5, 10), sym(2, "a.py", "first", "method", 5, 5),
                      sym(3, "a.py", "last", "method", 10, 10), sym(4, "a.py", "whole", "function", 5, 10)],
                     {2, 3, 4}, id="bounds are inclusive"),
        pytest.param([sym(1, "a.py", "K", "class", 5, 10), sym(2, "a.py", "before", "method", 4, 6),
                      sym(3, "a.py", "after", "method", 9, 11)], set(), id="overlap is not containment"),
        pytest.param([sym(1, "a.py", "K", "class", 1, 20), sym(2, "a.py", "Inner", "enum", 2, 9),
                      sym(3, "a.py", "m", "method", 3, 4)], {2, 3}, id="type in type"),
        pytest.param([sym(1, "a.py", "A", "class", 7, 7), sym(2, "a.py", "B", "struct", 7, 7)], {1, 2},
                     id="identical ranges: each in the other"),
        pytest.param([sym(1, "a.py", "A", "class", 7, 7), sym(1, "a.py", "A", "class", 7, 7)], set(),
                     id="a type never contains itself"),
        pytest.param([sym(1, "a.py", "K", "class", 1, 50), sym(2, "b.py", "f", "function", 2, 3)], set(),
                     id="a type in another file"),
        pytest.param([sym(1, "a.py", "outer", "function", 1, 9), sym(2, "a.py", "inner", "function", 2, 3)],
                     set(), id="only types contain"),
        pytest.param([sym(3, "a.py", "m", "method", 12, 13), sym(1, "a.py", "K", "class", 10, 20),
                      sym(2, "a.py", "L", "class", 1, 5), sym(4, "a.py", "n", "method", 2, 2)], {3, 4},
                     id="declarations out of line order"),
    ])
    def test_containment(self, symbols, expected):
        facts = make_facts(["a.py", "b.py"], symbols=symbols)
        result = scope._members(facts)
        assert type(result) is set and result == expected
        assert result == pyscope._members(facts)

    def test_a_file_of_many_one_line_classes(self):
        # Each class holds a method on its one line; no class lies in another.
        symbols = [s for i in range(2000)
                   for s in (sym(2 * i, "a.py", "K", "class", i + 1, i + 1),
                             sym(2 * i + 1, "a.py", "m", "method", i + 1, i + 1))]
        assert scope._members(make_facts(["a.py"], symbols=symbols)) == set(range(1, 4000, 2))

    def test_kinds_come_from_the_module(self, monkeypatch):
        facts = make_facts(["a.py"], symbols=[sym(1, "a.py", "f", "function", 1, 9),
                                              sym(2, "a.py", "K", "class", 2, 3)])
        monkeypatch.setattr(scope, "_TYPE_KINDS", frozenset({"function"}))
        assert scope._members(facts) == {2}


PAGE = ["lib/a.py", "lib/b.py"]
RUN = sym(1, "lib/a.py", "run")
MAX = sym(2, "lib/a.py", "MAX", "constant")
HELP = sym(3, "lib/b.py", "help")


def fan_in_of(inbound, symbols=(RUN, MAX, HELP), tests=("tests/t.py",)):
    return scope.production_fan_in(make_facts(PAGE, symbols=symbols, tests=tests, inbound=inbound))


class TestCounting:
    @pytest.mark.parametrize("ref, outside, inside, referenced", [
        pytest.param(inref("app/x.py", RUN, "import", 3), {1: 3}, {}, True, id="import from outside"),
        pytest.param(inref("app/x.py", RUN, "local", 2), {1: 2}, {}, True, id="local from outside"),
        pytest.param(inref("lib/b.py", RUN, "import", 2), {}, {1: 2}, True, id="from another page file"),
        pytest.param(inref("lib/a.py", RUN, "local", 1), {}, {1: 1}, True, id="from its own file"),
        pytest.param(inref("tests/t.py", RUN, "import", 5), {}, {}, False, id="tests are ignored"),
        pytest.param(inref("app/x.py", RUN, "legacy", 5), {}, {}, False, id="legacy neither counts nor marks"),
        pytest.param(inref("app/x.py", RUN, "ambiguous", 5), {}, {}, True, id="ambiguous marks only"),
        pytest.param(inref("app/x.py", RUN, "unique", 4), {1: 4}, {}, True, id="unique to a function"),
        pytest.param(inref("app/x.py", MAX, "unique", 4), {}, {}, True, id="unique to a constant marks only"),
        pytest.param(inref("app/x.py", MAX, "import", 4), {2: 4}, {}, True, id="import to a constant"),
        pytest.param(inref("app/x.py", RUN, "Import", 4), {}, {}, True, id="resolutions compare exactly"),
    ])
    def test_one_reference(self, ref, outside, inside, referenced):
        fan_in = fan_in_of([ref], symbols=[RUN] if ref.target_id == 1 else [MAX, RUN])
        assert fan_in.outside == outside and fan_in.inside == inside
        assert (1 not in fan_in.entry) is (referenced and ref.target_id == 1)

    def test_refs_are_summed_in_first_counted_order(self):
        fan_in = fan_in_of([
            inref("app/x.py", HELP, "ambiguous", 9),  # marks HELP, but counts later
            inref("app/x.py", MAX, "import", 1),
            inref("lib/b.py", RUN, "local", 2),
            inref("app/x.py", RUN, "import", 3),
            inref("app/y.py", HELP, "unique", 1),
            inref("app/y.py", RUN, "import", 4),
            inref("lib/a.py", HELP, "import", 5),
            inref("lib/a.py", RUN, "import", 1),
        ])
        assert type(fan_in) is scope.FanIn
        assert type(fan_in.outside) is dict and type(fan_in.inside) is dict and type(fan_in.entry) is frozenset
        assert list(fan_in.outside.items()) == [(2, 1), (1, 7), (3, 1)]
        assert list(fan_in.inside.items()) == [(1, 3), (3, 5)]
        assert fan_in.entry == frozenset()

    def test_the_sets_come_from_the_module(self, monkeypatch):
        inbound = [inref("app/x.py", RUN, "ambiguous", 2), inref("app/x.py", MAX, "unique", 3),
                   inref("app/x.py", HELP, "import", 4)]
        monkeypatch.setattr(scope, "_TRUSTED", frozenset({"ambiguous", "unique"}))
        monkeypatch.setattr(scope, "NAME_MATCH_KINDS", frozenset())
        monkeypatch.setattr(scope, "EVIDENCE_RESOLUTIONS", frozenset({"local"}))
        assert fan_in_of(inbound).outside == {1: 2, 2: 3}


class TestEntryPoints:
    @pytest.mark.parametrize("symbol, inbound, is_entry", [
        pytest.param(sym(9, "lib/a.py", "start"), [], True, id="public top-level function"),
        pytest.param(sym(9, "lib/a.py", "Server", "interface"), [], True, id="public type"),
        pytest.param(sym(9, "lib/a.py", "MAX", "constant"), [], False, id="neither callable nor type"),
        pytest.param(sym(9, "lib/a.py", "start", export=False), [], False, id="not exported"),
        pytest.param(sym(9, "lib/a.py", "_start"), [], False, id="private name"),
        pytest.param(sym(9, "lib/a.py", "start"), [("app/x.py", "ambiguous")], False,
                     id="referenced by production code"),
        pytest.param(sym(9, "lib/a.py", "start"), [("lib/b.py", "import")], False,
                     id="referenced from the page"),
        pytest.param(sym(9, "lib/a.py", "start"), [("app/x.py", "legacy")], True, id="legacy does not mark"),
        pytest.param(sym(9, "lib/a.py", "start"), [("tests/t.py", "import")], True, id="tests do not mark"),
        pytest.param(sym(9, "lib/a.py", "start", start=12, end=13), [], False, id="inside a type"),
        pytest.param(sym(9, "tests/test_a.py", "start"), [], False, id="in a test file"),
    ])
    def test_each_condition(self, symbol, inbound, is_entry):
        klass = sym(8, "lib/a.py", "_K", "class", 10, 20)
        refs = [inref(source, symbol, resolution) for source, resolution in inbound]
        facts = make_facts(PAGE + ["tests/test_a.py"], symbols=[klass, symbol], tests=["tests/t.py"],
                           inbound=refs)
        assert scope.production_fan_in(facts).entry == ({9} if is_entry else set())
        assert pyscope.production_fan_in(facts).entry == ({9} if is_entry else set())

    def test_the_path_filter_sees_only_the_candidates_in_order(self, monkeypatch):
        symbols = [sym(1, "lib/b.py", "run"), sym(2, "lib/a.py", "_private"),
                   sym(3, "lib/a.py", "hidden", export=False), sym(4, "lib/a.py", "K", "class", 10, 20),
                   sym(5, "lib/a.py", "method", "method", 11, 12), MAX, sym(6, "tests/t_x.py", "test_it"),
                   sym(7, "lib/b.py", "used"), sym(8, "lib/a.py", "tested")]
        facts = make_facts(PAGE + ["tests/t_x.py"], symbols=symbols,
                           inbound=[inref("app/x.py", symbols[7], "unique")])
        calls = []

        def is_test_path(path):
            calls.append(path)
            return path.startswith("tests/")
        monkeypatch.setattr(scope, "is_test_path", is_test_path)
        assert scope.production_fan_in(facts).entry == {1, 4, 8}
        assert calls == ["lib/b.py", "lib/a.py", "tests/t_x.py", "lib/a.py"]

        def broken(path):
            raise OSError("filter failed")
        monkeypatch.setattr(scope, "is_test_path", broken)
        with pytest.raises(OSError, match="filter failed"):
            scope.production_fan_in(facts)

    def test_no_candidate_no_filter(self, monkeypatch):
        monkeypatch.delattr(scope, "is_test_path")
        assert scope.production_fan_in(make_facts(PAGE, symbols=[MAX])).entry == frozenset()


class TestNativeView:
    def records(self, counting):
        inbound = [counting(source_path="app/x.py", resolution="import", target_id=i, target_kind="function",
                            refs=1) for i in range(10)]  # no target_name or target_path: never read here
        symbols = [counting(id=i, path="lib/a.py", name=f"f{i}", kind="function", start_line=i + 1,
                            end_line=i + 1, is_export=True) for i in range(12)]  # no fqn
        return make_facts(PAGE, symbols=symbols, inbound=inbound)

    def test_fan_in_first(self, counting):
        facts = self.records(counting)
        first = scope.production_fan_in(facts)
        assert counting.reads == 10 * 5 + 12 * 7
        counting.reads = 0
        assert scope.production_fan_in(facts) == first
        assert scope._members(facts) == set()
        scope._unused_outside(facts, set(), first)
        scope.ranked_by_file(facts, first)
        assert counting.reads == 0

    def test_members_first(self, counting):
        facts = self.records(counting)
        scope._members(facts)
        assert counting.reads == 12 * 5  # id, path, kind, start_line, end_line
        counting.reads = 0
        scope._members(facts)
        assert counting.reads == 0
        fan_in = scope.production_fan_in(facts)
        assert counting.reads == 12 * 2 + 10 * 5  # is_export and name, and the references
        assert fan_in.entry == {10, 11}

    def test_a_missing_field_that_is_read_raises(self):
        facts = make_facts(PAGE, inbound=[type("Ref", (), {"source_path": "x", "resolution": "import"})()])
        with pytest.raises(AttributeError, match="target_id|target_kind|refs"):
            scope.production_fan_in(facts)

    def test_rejects_other_types(self):
        for function in (scope.production_fan_in, scope._members):
            with pytest.raises(TypeError, match=r"argument 'facts' must be ScopeFacts"):
                function(pages.make_facts(1))
            with pytest.raises(TypeError):
                function()


@pytest.mark.parametrize("seed", range(60))
def test_agrees_with_the_plain_implementation(seed):
    rng = random.Random(seed)
    size = rng.choice(["tiny", "small", "medium"])
    facts = scope.ScopeFacts(**pages.make_page(rng, **pages.SIZES[size]))
    ours, theirs = scope.production_fan_in(facts), pyscope.production_fan_in(facts)
    assert ours == theirs
    assert list(ours.outside) == list(theirs.outside) and list(ours.inside) == list(theirs.inside)
    assert scope._members(facts) == pyscope._members(facts)
    for ref in facts.inbound:
        resolved = facts.import_resolved(ref.target_path)
        assert scope.is_use(ref.resolution, ref.target_kind, resolved) is \
            pyscope.is_use(ref.resolution, ref.target_kind, resolved)


@pytest.mark.parametrize("seed", range(10))
def test_agrees_with_the_plain_implementation_under_other_sets(seed, monkeypatch):
    rng = random.Random(seed)
    sets = {
        "EVIDENCE_RESOLUTIONS": frozenset(rng.sample(pages.RESOLUTIONS, 2)),
        "_TRUSTED": frozenset(rng.sample(pages.RESOLUTIONS, 3)),
        "NAME_MATCH_KINDS": frozenset(rng.sample(["constant", "field", "function", "method"], 2)),
        "_TYPE_KINDS": frozenset(rng.sample(["class", "enum", "struct", "function"], 2)),
        "_CALLABLE_KINDS": frozenset(rng.sample(["function", "method", "class", "constant"], 2)),
    }
    for name, value in sets.items():
        monkeypatch.setattr(scope, name, value)
        monkeypatch.setattr(pyscope, name, value)
    facts = scope.ScopeFacts(**pages.make_page(rng, **pages.SIZES["small"]))
    ours, theirs = scope.production_fan_in(facts), pyscope.production_fan_in(facts)
    assert ours == theirs and list(ours.outside) == list(theirs.outside)
    assert scope._members(facts) == pyscope._members(facts)
