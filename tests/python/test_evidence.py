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
        ("ambiguous", "function", False, False),
        ("legacy", "function", False, False),
        ("Import", "function", False, False),
        (" unique", "function", False, False),
        ("unique", "function", 0, True),
        ("unique", "function", [1], False),
        (None, 3, None, False),
        ("unique", ("not", "a", "kind"), "", True),
    ])
    def test_truth_table(self, resolution, kind, resolved, expected):
        assert scope.is_use(resolution, kind, resolved) is expected
        assert scope.is_use(resolution=resolution, target_kind=kind, import_resolved=resolved) is expected

    def test_reads_the_modules_sets_at_call_time(self, monkeypatch):
        monkeypatch.setattr(scope, "EVIDENCE_RESOLUTIONS", frozenset({"ambiguous"}))
        monkeypatch.setattr(scope, "NAME_MATCH_KINDS", frozenset({"function"}))
        assert scope.is_use("ambiguous", "x", True)
        assert not scope.is_use("import", "x", True)
        assert not scope.is_use("unique", "function", False)

    def test_errors_of_membership_propagate(self):
        with pytest.raises(TypeError, match="unhashable"):
            scope.is_use(["import"], "function", False)

        class Falsy:
            def __bool__(self):
                raise ValueError("no truth here")
        with pytest.raises(ValueError, match="no truth here"):
            scope.is_use("unique", "function", Falsy())


def test_members():
    facts = make_facts(["a.py", "b.py"], symbols=[
        sym(1, "a.py", "K", "class", 1, 10), sym(2, "a.py", "m", "method", 1, 1),
        sym(3, "a.py", "n", "method", 10, 10), sym(4, "a.py", "f", "function", 11, 12),
        sym(5, "b.py", "g", "function", 2, 3), sym(6, "a.py", "Inner", "class", 2, 9),
        sym(7, "a.py", "outer", "function", 20, 30), sym(8, "a.py", "inner", "function", 21, 22)])
    assert scope._members(facts) == {2, 3, 6}
    assert scope._members(make_facts()) == set()


PAGE = ["lib/a.py", "lib/b.py"]
RUN = sym(1, "lib/a.py", "run")
MAX = sym(2, "lib/a.py", "MAX", "constant")
HELP = sym(3, "lib/b.py", "help")


class TestFanIn:
    def test_counts(self):
        facts = make_facts(PAGE, symbols=[RUN, MAX, HELP], tests=["tests/t.py"], inbound=[
            inref("app/x.py", HELP, "unique", 1),
            inref("app/x.py", RUN, "import", 3),
            inref("lib/b.py", RUN, "local", 2),
            inref("app/y.py", RUN, "import", 1),
            inref("tests/t.py", HELP, "import", 5),
            inref("app/y.py", MAX, "unique", 7),
            inref("app/y.py", MAX, "legacy", 7),
        ])
        fan_in = scope.production_fan_in(facts)
        assert type(fan_in) is scope.FanIn and type(fan_in.outside) is dict and type(fan_in.entry) is frozenset
        assert list(fan_in.outside.items()) == [(3, 1), (1, 4)]
        assert fan_in.inside == {1: 2}
        assert fan_in.entry == frozenset()  # every public callable is referenced by production code

    def test_entry_points(self, monkeypatch):
        symbols = [RUN, sym(4, "lib/a.py", "_private"), sym(5, "lib/a.py", "hidden", export=False),
                   sym(6, "lib/a.py", "K", "class", 10, 20), sym(7, "lib/a.py", "method", "method", 11, 12),
                   MAX, sym(8, "tests/t_x.py", "test_it"), sym(9, "lib/b.py", "legacy_only"),
                   sym(10, "lib/b.py", "tested")]
        facts = make_facts(PAGE + ["tests/t_x.py"], symbols=symbols, tests=["tests/t.py"], inbound=[
            inref("app/x.py", symbols[7], "legacy"), inref("tests/t.py", symbols[8], "import")])
        calls = []

        def is_test_path(path):
            calls.append(path)
            return path.startswith("tests/")
        monkeypatch.setattr(scope, "is_test_path", is_test_path)
        assert scope.production_fan_in(facts).entry == {1, 6, 9, 10}
        assert calls == ["lib/a.py", "lib/a.py", "tests/t_x.py", "lib/b.py", "lib/b.py"]

        def broken(path):
            raise OSError("filter failed")
        monkeypatch.setattr(scope, "is_test_path", broken)
        with pytest.raises(OSError, match="filter failed"):
            scope.production_fan_in(facts)

    def test_the_native_view_is_converted_once(self, counting):
        inbound = [counting(source_path="app/x.py", resolution="import", target_id=i, target_kind="function",
                            refs=1) for i in range(10)]  # no target_name or target_path: never read here
        symbols = [counting(id=i, path="lib/a.py", name=f"f{i}", kind="function", start_line=i + 1,
                            end_line=i + 1, is_export=True) for i in range(10)]  # no fqn
        facts = make_facts(PAGE, symbols=symbols, inbound=inbound)
        first = scope.production_fan_in(facts)
        reads = counting.reads
        assert reads == 10 * 5 + 10 * 7
        assert scope.production_fan_in(facts) == first
        scope._members(facts)
        assert counting.reads == reads

    def test_a_missing_field_that_is_read_raises(self):
        facts = make_facts(PAGE, inbound=[type("Ref", (), {"source_path": "x", "resolution": "import"})()])
        with pytest.raises(AttributeError, match="target_id|target_kind|refs"):
            scope.production_fan_in(facts)

    def test_rejects_other_types(self):
        with pytest.raises(TypeError, match=r"production_fan_in\(\) argument 'facts' must be ScopeFacts"):
            scope.production_fan_in(pages.make_facts(1))


@pytest.mark.parametrize("seed", range(60))
def test_agrees_with_the_plain_implementation(seed):
    facts = scope.ScopeFacts(**pages.make_page(random.Random(seed)))
    ours, theirs = scope.production_fan_in(facts), pyscope.production_fan_in(facts)
    assert ours == theirs
    assert list(ours.outside) == list(theirs.outside) and list(ours.inside) == list(theirs.inside)
    assert scope._members(facts) == pyscope._members(facts)
