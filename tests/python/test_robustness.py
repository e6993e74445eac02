"""No input from Python crashes the module or leaks: every function meets odd
arguments, and repeated calls (results and errors alike) do not grow memory."""

import gc
import inspect
import random
import resource
from types import SimpleNamespace

import pytest

import pages
import scope
from conftest import make_facts, sym
from tarnwick.storage import grounding_queries

FACTS = scope.ScopeFacts(**pages.make_page(random.Random(1)))
FAN_IN = scope.production_fan_in(FACTS)
ODD = [None, 0, -1, 2**70, 1.5, float("nan"), "", "x", b"x", [], {}, (), {1: 2}, [None], object(), FACTS, FAN_IN,
       iter([]), [("a",)], {"p": [None]}]
FUNCTIONS = ["load_scope_facts", "is_use", "production_fan_in", "_members", "rank_key", "ranked_by_file",
             "file_seeds", "select_with_quota", "pick_spread", "_short_path", "_cell", "_named", "file_users",
             "_most_used", "render_file_cards", "render_consumers", "_unused_outside", "neighbours",
             "name_match_counts"]


@pytest.mark.parametrize("name", FUNCTIONS)
def test_every_function_is_exposed_with_keywords_and_a_signature(name):
    function = getattr(scope, name)
    assert function.__doc__ and inspect.signature(function).parameters
    for parameter in inspect.signature(function).parameters.values():
        assert parameter.kind is inspect.Parameter.POSITIONAL_OR_KEYWORD


@pytest.mark.parametrize("name", FUNCTIONS)
def test_odd_arguments_raise_instead_of_crashing(name):
    function = getattr(scope, name)
    arity = len(inspect.signature(function).parameters)
    rng = random.Random(name)
    for _ in range(300):
        args = [rng.choice(ODD) for _ in range(arity)]
        try:
            function(*args)
        except Exception:
            pass


def test_records_with_odd_fields_raise_instead_of_crashing():
    odd_values = [None, "s", 2**64, -1, 1.5, object(), b"b", "\ud800", True]
    rng = random.Random(7)
    for _ in range(200):
        fields = dict(id=rng.choice(odd_values), path=rng.choice(odd_values), name=rng.choice(odd_values),
                      fqn=rng.choice(odd_values), kind=rng.choice(odd_values),
                      start_line=rng.choice(odd_values), end_line=rng.choice(odd_values),
                      is_export=rng.choice(odd_values))
        facts = make_facts(["s"], symbols=[grounding_queries.ScopeSymbol(**fields)])
        for call in (scope.production_fan_in, scope._members, lambda f: scope.ranked_by_file(f, FAN_IN),
                     lambda f: scope.render_consumers(f, FAN_IN, "#"), lambda f: scope.file_seeds(f, FAN_IN)):
            try:
                call(facts)
            except Exception:
                pass


def test_repeated_calls_do_not_grow_memory():
    def round_of_calls():
        facts = scope.ScopeFacts(**pages.make_page(random.Random(2)))
        fan_in = scope.production_fan_in(facts)
        ranked = scope.ranked_by_file(facts, fan_in)
        scope.select_with_quota(ranked, fan_in, 20, 2, 0.3)
        scope.render_file_cards(facts, fan_in, "#", ["x"])
        scope.render_consumers(facts, fan_in, "#")
        scope.file_seeds(facts, fan_in)
        scope.neighbours(facts, 5)
        scope.name_match_counts(facts)
        scope._unused_outside(facts, [1, 2], fan_in)
        scope.pick_spread([("a", "p")] * 5, 3, 2)
        for bad in (lambda: scope.select_with_quota(ranked, fan_in, 5, 1, float("nan")),
                    lambda: scope.rank_key(sym(2**64, "a", "f"), fan_in),
                    lambda: scope.render_file_cards(facts, fan_in, 5)):
            with pytest.raises((ValueError, OverflowError, TypeError)):
                bad()

    for _ in range(50):
        round_of_calls()
    gc.collect()
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    for _ in range(400):
        round_of_calls()
    gc.collect()
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before < 10_000


def test_host_sets_that_call_back_into_the_module(monkeypatch):
    """A kind set whose membership test converts more of a page (and drops
    the last reference to the facts whose records are being ranked) while the
    module is asking it."""
    page = pages.make_page(random.Random(4))
    reference = scope.ScopeFacts(**page)
    fan_in = scope.production_fan_in(reference)
    expected = (scope.render_consumers(reference, fan_in, "#"), scope.neighbours(reference, 9),
                scope.select_with_quota(scope.ranked_by_file(reference, fan_in), fan_in, 30, 1, 0.3))
    holder = {"facts": scope.ScopeFacts(**page)}
    ranked = scope.ranked_by_file(holder["facts"], fan_in)  # keyed from that facts' view
    fresh = scope.ScopeFacts(**page)
    kinds = scope.NAME_MATCH_KINDS

    class Meddling(frozenset):
        busy = False

        def __contains__(self, item):
            if not Meddling.busy:
                Meddling.busy = True
                holder.clear()
                gc.collect()
                scope.name_match_counts(fresh)
                scope.render_file_cards(fresh, fan_in, "#")
                Meddling.busy = False
            return item in kinds

    monkeypatch.setattr(scope, "NAME_MATCH_KINDS", Meddling(kinds))
    assert scope.select_with_quota(ranked, fan_in, 30, 1, 0.3) == expected[2]
    assert scope.render_consumers(fresh, fan_in, "#") == expected[0]
    assert scope.neighbours(fresh, 9) == expected[1]


def test_mappings_whose_items_are_not_pairs_raise():
    class Odd(dict):
        def items(self):
            return [1, ("a",), ("a", 1, 2)]

    class OddMapping:
        def keys(self):
            return ["a"]

        def __getitem__(self, key):
            return 1

        items = Odd.items

    odd_fan_in = SimpleNamespace(outside=OddMapping(), inside={}, entry=())
    for call in (lambda: scope.select_with_quota(OddMapping(), FAN_IN, 3, 1, 0.5),
                 lambda: scope.ranked_by_file(FACTS, odd_fan_in),
                 lambda: scope.render_file_cards(FACTS, odd_fan_in, "#")):
        with pytest.raises((TypeError, ValueError), match="pair"):
            call()
