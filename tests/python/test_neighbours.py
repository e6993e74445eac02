"""Neighbours and name-match counts."""

import random

import pytest

import pages
import pyscope
import scope
from conftest import inref, make_facts, outref, sym

PAGE = ["lib/a.py", "lib/b.py"]
HELPER = sym(10, "util/h.py", "helper", fqn="util.h.helper")
LIMIT = sym(11, "util/h.py", "LIMIT", kind="constant", fqn="util.h.LIMIT")
OWN = sym(12, "lib/b.py", "own", fqn="lib.b.own")
FIXTURE = sym(13, "tests/fixtures.py", "fixture", fqn="tests.fixtures.fixture")
FIELD = sym(14, "util/h.py", "field", kind="attribute", fqn="util.h.K.field")


class TestNeighbours:
    def test_counting_rules(self):
        facts = make_facts(PAGE, outbound=[
            outref("lib/a.py", HELPER, "import", 2),
            outref("lib/b.py", HELPER, "unique", 3),     # a unique edge to a function counts
            outref("lib/a.py", LIMIT, "unique", 5),      # a name match to a constant does not
            outref("lib/a.py", LIMIT, "local", 1),       # evidence counts whatever the kind
            outref("lib/a.py", OWN, "import", 9),        # the page itself is no neighbour
            outref("lib/a.py", FIXTURE, "import", 9),    # nor is a test file
            outref("lib/a.py", FIELD, "ambiguous", 4),   # nor a name match to an attribute
        ])
        assert scope.neighbours(facts, 10) == [(HELPER, 5), (LIMIT, 1)]

    def test_ties_go_by_fqn_then_first_counted_and_the_last_record_is_kept(self):
        b = sym(20, "x/b.py", "b", fqn="pkg.b")
        a = sym(21, "x/a.py", "a", fqn="pkg.a")
        same1 = sym(22, "x/c.py", "c", fqn="pkg.c")
        same2 = sym(23, "x/d.py", "d", fqn="pkg.c")
        a_again = sym(21, "x/a.py", "a", fqn="pkg.a")  # equal, but a distinct object
        facts = make_facts(PAGE, outbound=[outref("lib/a.py", b), outref("lib/a.py", same2),
                                           outref("lib/a.py", a), outref("lib/a.py", same1),
                                           outref("lib/b.py", a_again, refs=0)])
        result = scope.neighbours(facts, 10)
        assert [(s.id, n) for s, n in result] == [(21, 1), (20, 1), (23, 1), (22, 1)]
        assert result[0][0] is a_again

    @pytest.mark.parametrize("limit, expected", [(0, 0), (-3, 0), (1, 1), (2, 2), (50, 2)])
    def test_limit(self, limit, expected):
        facts = make_facts(PAGE, outbound=[outref("lib/a.py", HELPER), outref("lib/a.py", LIMIT, "import")])
        assert len(scope.neighbours(facts, limit)) == expected

    def test_the_path_filter_is_the_modules_own_and_its_errors_propagate(self, monkeypatch):
        facts = make_facts(PAGE, outbound=[outref("lib/a.py", HELPER), outref("lib/a.py", LIMIT, "import")])
        monkeypatch.setattr(scope, "is_test_path", lambda path: path == "util/h.py")
        assert scope.neighbours(facts, 5) == []

        def broken(path):
            raise RuntimeError("filter down")
        monkeypatch.setattr(scope, "is_test_path", broken)
        with pytest.raises(RuntimeError, match="filter down"):
            scope.neighbours(facts, 5)

    def test_bad_arguments(self):
        with pytest.raises(TypeError, match=r"neighbours\(\) argument 'facts' must be ScopeFacts, not dict"):
            scope.neighbours({}, 3)
        with pytest.raises(TypeError, match="'limit' must be int"):
            scope.neighbours(make_facts(), "3")
        with pytest.raises(OverflowError):
            scope.neighbours(make_facts(), 2**64)


def test_name_match_counts():
    own_const = sym(30, "lib/a.py", "MAX", kind="constant")
    facts = make_facts(PAGE, inbound=[
        inref("tests/t.py", own_const, "unique", 2),   # tests count here
        inref("lib/b.py", own_const, "unique", 1),     # so does the page's own file
        inref("app/x.py", own_const, "ambiguous", 7),  # not unique
        inref("app/x.py", own_const, "import", 7),     # evidence is no name match
        inref("app/x.py", sym(31, "lib/a.py", "run"), "unique", 7),  # not an attribute or constant
    ], outbound=[
        outref("lib/a.py", FIELD, "unique", 4),
        outref("lib/b.py", own_const, "unique", 3),    # same pair as an inbound record: summed
        outref("lib/a.py", own_const, "unique", 1),    # a file to itself counts
    ])
    result = scope.name_match_counts(facts)
    assert type(result) is dict
    assert list(result.items()) == [(("tests/t.py", "lib/a.py"), 2), (("lib/b.py", "lib/a.py"), 4),
                                    (("lib/a.py", "util/h.py"), 4), (("lib/a.py", "lib/a.py"), 1)]
    reverse = make_facts(PAGE, outbound=[outref("lib/a.py", sym(40, "lib/b.py", "K", kind="constant"), "unique"),
                                         outref("lib/b.py", sym(41, "lib/a.py", "J", kind="constant"), "unique")])
    assert list(scope.name_match_counts(reverse)) == [("lib/a.py", "lib/b.py"), ("lib/b.py", "lib/a.py")]


def test_rebound_name_match_kinds_take_effect(monkeypatch):
    facts = make_facts(PAGE, outbound=[outref("lib/a.py", LIMIT, "unique", 5)])
    assert scope.neighbours(facts, 5) == []
    monkeypatch.setattr(scope, "NAME_MATCH_KINDS", frozenset({"attribute"}))
    assert scope.neighbours(facts, 5) == [(LIMIT, 5)]
    assert scope.name_match_counts(facts) == {}


@pytest.mark.parametrize("seed", range(40))
def test_agrees_with_the_plain_implementation(seed):
    facts = scope.ScopeFacts(**pages.make_page(random.Random(seed)))
    for limit in (1, 5, 10_000):
        ours, theirs = scope.neighbours(facts, limit), pyscope.neighbours(facts, limit)
        assert ours == theirs and all(a[0] is b[0] for a, b in zip(ours, theirs, strict=True))
    ours, theirs = scope.name_match_counts(facts), pyscope.name_match_counts(facts)
    assert list(ours.items()) == list(theirs.items())
