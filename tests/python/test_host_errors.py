"""Odd records and lying containers: the module reads no memory it has not
checked, hands the host's own errors back unchanged, treats symbol ids by
Python's equality and names the function and argument in its own errors."""

from decimal import Decimal

import pytest

import scope
from conftest import make_facts, sym
from tarnwick.storage.grounding_queries import ScopeFile

FACTS = make_facts(["a.py"], symbols=[sym(7, "a.py", "f"), sym(8, "a.py", "g", start=3, end=9)])


class HostError(Exception):
    pass


class RaisingIter:
    def __iter__(self):
        raise HostError("iter")


class RaisingKeys:
    @property
    def keys(self):
        raise HostError("keys")


class LyingNames:
    def __len__(self):
        return 2**62

    def __getitem__(self, index):
        raise HostError(index)


@pytest.mark.parametrize("call", [
    lambda: scope.ScopeFacts((), (), (), (), (), (), RaisingKeys(), {}),
    lambda: scope.ScopeFacts(RaisingIter(), (), (), (), (), (), {}, {}),
    lambda: scope.pick_spread(RaisingIter(), 3, 1),
    lambda: scope._unused_outside(FACTS, RaisingIter(), scope.FanIn({})),
    lambda: scope._named(LyingNames(), -1),
    lambda: scope.ranked_by_file(FACTS, scope.FanIn({}, {}, RaisingIter())),
])
def test_host_errors_come_through_unchanged(call):
    with pytest.raises(HostError):
        call()


def test_a_slot_descriptor_of_another_class_is_read_as_python_reads_it():
    class File:
        __slots__ = ()
        id, language = 1, None
        path = ScopeFile.__dict__["id"]  # File().path raises TypeError

    facts = scope.ScopeFacts([File() for _ in range(50)], (), (), (), (), (), {}, {})
    with pytest.raises(TypeError, match="doesn't apply"):
        scope.render_file_cards(facts, scope.FanIn({}), "#")


@pytest.mark.parametrize("key", [7, 7.0, Decimal(7)])
def test_an_id_equal_to_a_key_matches_it_in_every_function(key):
    fan_in = scope.FanIn({key: 5})
    assert scope.rank_key(FACTS.symbols[0], fan_in)[3] == -10
    assert [s.id for s in scope.ranked_by_file(FACTS, fan_in)["a.py"]] == [7, 8]
    for used in ({key}, [key], iter([key])):
        assert [s.id for s in scope._unused_outside(FACTS, used, fan_in)] == [8]
    assert scope.file_seeds(FACTS, fan_in) == {"a.py": (1, 1)}


@pytest.mark.parametrize("call, error, names", [
    (lambda: scope.select_with_quota({"a": FACTS.symbols}, scope.FanIn({}), 1, 1, "x"), TypeError,
     "select_with_quota.*'max_share'"),
    (lambda: scope.select_with_quota({}, scope.FanIn({}), 2**70, 1, 0.5), OverflowError, "select_with_quota.*'total'"),
    (lambda: scope.select_with_quota({}, scope.FanIn({}), 1, 2**70, 0.5), OverflowError, "select_with_quota.*'floor'"),
    (lambda: scope.pick_spread([], 2**70, 1), OverflowError, "pick_spread.*'limit'"),
    (lambda: scope.pick_spread([], 1, 2**70), OverflowError, "pick_spread.*'per_file'"),
    (lambda: scope.ranked_by_file(FACTS, scope.FanIn({7: 1.5})), TypeError, "ranked_by_file.*'fan_in'.*outside"),
    (lambda: scope.select_with_quota({"a": FACTS.symbols}, scope.FanIn({}), 1, 1, float("inf")), OverflowError,
     "select_with_quota.*max_share"),
])
def test_errors_name_the_function_and_the_argument(call, error, names):
    with pytest.raises(error, match=names):
        call()
