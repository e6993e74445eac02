"""Rank keys, ranking by file, seeds, quota selection and spread picking."""

import itertools
import random
from collections import Counter, defaultdict
from collections.abc import Mapping
from fractions import Fraction
from types import MappingProxyType, SimpleNamespace

import pytest

import pages
import pyscope
import scope
from conftest import make_facts, sym

NO_USES = scope.FanIn({})


class TestRankKey:
    def test_elements_signs_and_weights(self):
        fan_in = scope.FanIn({1: 4, 2: 2, 6: 0}, {1: 3, 2: 3}, frozenset({5}))
        constant = sym(1, "a", "MAX", "constant", 10, 50)
        function = sym(2, "a", "run", "function", 10, 49)
        assert scope.rank_key(constant, fan_in) == (False, 1, False, -4, -40, -3, 10)
        assert scope.rank_key(function, fan_in) == (False, 0, False, -4, -39, -6, 10)
        entry = sym(5, "a", "_Entry", "class", 7, 7)
        assert scope.rank_key(entry, fan_in) == (False, 0, True, 0, 0, 0, 7)
        unused = sym(6, "a", "__dunder", "method", 9, 3)  # an outside entry of 0 is no API
        key = scope.rank_key(unused, fan_in)
        assert key == (True, 0, True, 0, 6, 0, 9)
        assert [type(element) for element in key] == [bool, int, bool, int, int, int, int]
        assert scope.rank_key(sym(7, "a", "_", "field"), fan_in)[1:3] == (1, True)

    @pytest.mark.parametrize("end, size", [(50, -40), (51, -40), (400, -40), (49, -39), (10, 0), (9, 1)])
    def test_size_is_capped_on_the_difference(self, end, size):
        assert scope.rank_key(sym(1, "a", "f", start=10, end=end), NO_USES)[4] == size

    def test_exact_beyond_64_bits(self):
        big = sym(1, "a", "f", start=-(2**63), end=2**63 - 1)
        fan_in = scope.FanIn({1: 2**63 - 1})
        assert scope.rank_key(big, fan_in) == (False, 0, False, -(2**64) + 2, -40, 0, -(2**63))
        with pytest.raises(OverflowError):
            scope.rank_key(sym(2**64, "a", "f"), fan_in)

    @pytest.mark.parametrize("make", [
        lambda o, i, e: scope.FanIn(o, i, e),
        lambda o, i, e: SimpleNamespace(outside=Counter(o), inside=Counter(i), entry=set(e)),
        lambda o, i, e: SimpleNamespace(outside=MappingProxyType(o), inside=MappingProxyType(i), entry=list(e)),
    ])
    def test_any_fan_in_like_object(self, make):
        fan_in = make({1: 3}, {1: 1}, [2])
        assert scope.rank_key(sym(1, "a", "f"), fan_in)[:6] == (False, 0, False, -6, 0, -2)
        assert scope.rank_key(sym(2, "a", "g"), fan_in)[0] is False

    def test_fan_in_is_read_for_the_one_id_and_left_unchanged(self):
        class Plain(Mapping):  # a mapping that is no dict
            def __init__(self, counts):
                self.counts = counts

            def __getitem__(self, key):
                return self.counts[key]

            def __iter__(self):
                return iter(self.counts)

            def __len__(self):
                return len(self.counts)

        outside = defaultdict(int, {1: 2})
        fan_in = SimpleNamespace(outside=MappingProxyType(outside), inside=Plain({1: 5}), entry=frozenset())
        assert scope.rank_key(sym(1, "a", "f"), fan_in)[:6] == (False, 0, False, -4, 0, -10)
        assert scope.rank_key(sym(2, "a", "f"), fan_in)[:6] == (True, 0, False, 0, 0, 0)
        assert dict(outside) == {1: 2}  # no __missing__ hook ran

        class Failing(dict):
            def __contains__(self, key):
                raise KeyError("host error")
        with pytest.raises(KeyError, match="host error"):
            scope.rank_key(sym(1, "a", "f"), SimpleNamespace(outside={}, inside={}, entry=Failing()))
        with pytest.raises(TypeError):
            scope.rank_key(sym(1, "a", "f"), SimpleNamespace(outside={1: "many"}, inside={}, entry=()))

    def test_records_need_only_the_fields_they_read(self):
        record = SimpleNamespace(id=1, kind="function", name="f", start_line=3, end_line=4)
        assert scope.rank_key(record, NO_USES) == (True, 0, False, 0, -1, 0, 3)
        with pytest.raises(AttributeError):
            scope.rank_key(SimpleNamespace(id=1, kind="function", name="f"), NO_USES)


def test_ranked_by_file_groups_in_first_seen_order_and_keeps_ties():
    tie1, tie2 = sym(1, "b", "x", start=5), sym(2, "b", "x", start=5)
    big = sym(3, "a", "Big", "class", 1, 90)
    used = sym(4, "b", "used", start=9)
    elsewhere = sym(5, "not/in/files.py", "z")
    facts = make_facts(["a", "b"], symbols=[tie1, big, tie2, used, elsewhere])
    ranked = scope.ranked_by_file(facts, scope.FanIn({4: 1}))
    assert list(ranked) == ["b", "a", "not/in/files.py"]
    assert ranked["b"][0] is used and ranked["b"][1] is tie1 and ranked["b"][2] is tie2
    assert scope.ranked_by_file(make_facts(), NO_USES) == {}


def test_file_seeds():
    facts = make_facts(
        ["best.py", "zero.py", "reversed.py", "empty.py", "unread.py", "plain.py", "line0.py"],
        symbols=[sym(1, "zero.py", "Top", "class", 0, 99), sym(2, "zero.py", "f", start=12, end=30),
                 sym(3, "reversed.py", "g", start=5, end=3), sym(4, "line0.py", "h", start=0, end=4),
                 sym(5, "unindexed.py", "k", start=7, end=7), sym(6, "best.py", "one", start=7, end=7)],
        line_counts={"zero.py": 100, "empty.py": 0, "plain.py": 12, "line0.py": 30, "best.py": 9})
    seeds = scope.file_seeds(facts, scope.FanIn({1: 5}))
    assert list(seeds.items()) == [("zero.py", (12, 30)), ("reversed.py", (5, 5)), ("unindexed.py", (7, 7)),
                                   ("best.py", (7, 7)), ("plain.py", (1, 12)), ("line0.py", (1, 30))]


def chain(path, names):
    return [sym(i, path, name) for i, name in enumerate(names)]


class TestSelectWithQuota:
    @staticmethod
    def ranked_in_order(order, files):
        """Declarations whose rank follows `order` (best first), grouped as `files` lists them."""
        rank = {name: position for position, name in enumerate(order)}
        symbols = {name: sym(rank[name], path, name, start=rank[name] + 1)
                   for path, names in files.items() for name in names}
        return {path: [symbols[n] for n in names] for path, names in files.items()}

    @pytest.mark.parametrize("files, order, total, floor, share, expected", [
        ({"A": ["a1", "a2", "a3", "a4", "a5", "a6"], "B": ["b1"], "C": ["c1", "c2", "c3"]},
         ["a1", "c1", "a2", "a3", "a4", "b1", "c2", "a5", "c3", "a6"], 6, 1, 0.5,
         ["a1", "c1", "b1", "a2", "c2", "a3"]),
        ({"A": ["a1", "a2", "a3", "a4", "a5", "a6"], "B": ["b1"], "C": ["c1"]},
         ["a1", "c1", "a2", "a3", "a4", "b1", "a5", "a6"], 7, 1, 0.5,
         ["a1", "c1", "b1", "a2", "a3", "a4", "a5"]),
        ({"A": ["a1"], "B": ["b1"], "C": ["c1"]}, ["c1", "a1", "b1"], 2, 5, 0.5, ["c1", "a1"]),
        ({"A": ["a1", "a2", "a3"]}, ["a1", "a2", "a3"], 2, 0, 0.0, ["a1", "a2"]),
        ({"A": ["a1", "a2", "a3"], "B": ["b1", "b2"]}, ["a1", "a2", "a3", "b1", "b2"], 4, -3, 0.0,
         ["a1", "b1", "a2", "a3"]),
        ({"A": [], "B": ["b1"]}, ["b1"], 3, 1, 1, ["b1"]),
    ])
    def test_stages(self, files, order, total, floor, share, expected):
        ranked = self.ranked_in_order(order, files)
        chosen = scope.select_with_quota(ranked, NO_USES, total, floor, share)
        assert [s.name for s in chosen] == expected
        assert all(any(s is t for t in ranked[s.path]) for s in chosen)

    def test_floor_is_cut_to_the_share_of_each_file_and_cap_uses_a_float_ceiling(self):
        files = {p: [f"{p}{i}" for i in range(10)] for p in "ABCD"}
        ranked = self.ranked_in_order(sorted(itertools.chain(*files.values()), key=lambda n: (n[1:], n)), files)
        chosen = scope.select_with_quota(ranked, NO_USES, 10, 3, 0.0)
        assert Counter(s.path for s in chosen) == {"A": 3, "B": 3, "C": 2, "D": 2}
        many = {"A": chain("A", [f"a{i}" for i in range(20)]), "B": chain("B", ["b"])}
        # 50 * 0.14 is 7.000000000000001: the cap is 8, not 7.
        assert len([s for s in scope.select_with_quota(many, NO_USES, 50, 1, 0.14)]) == 21
        three = {"A": chain("A", [f"a{i}" for i in range(20)]), "B": chain("B", [f"b{i}" for i in range(20)])}
        counts = Counter(s.path for s in scope.select_with_quota(three, NO_USES, 50, 1, 0.14))
        assert counts == {"A": 20, "B": 20}

    def test_equal_keys_across_files_go_by_path(self):
        ranked = {"z.py": [sym(1, "z.py", "f", start=1)], "a.py": [sym(2, "a.py", "f", start=1)]}
        assert [s.path for s in scope.select_with_quota(ranked, NO_USES, 2, 1, 1)] == ["a.py", "z.py"]
        # The floor stage visits files with equal first keys in the order of `ranked`.
        assert [s.path for s in scope.select_with_quota(ranked, NO_USES, 1, 1, 1)] == ["z.py"]

    def test_unordered_sequences_can_leave_blocks_unselected(self):
        # b ranks best but stands last: when the walk meets it, its predecessor is not taken yet.
        worse, middle, best = sym(1, "a", "w", start=9), sym(2, "a", "c", start=5), sym(3, "a", "b", start=1)
        ranked = {"a": [worse, middle, best]}
        assert scope.select_with_quota(ranked, NO_USES, 3, 1, 0) == [worse, middle]

    @pytest.mark.parametrize("total, share, error", [
        (1, float("inf"), OverflowError), (1, float("-inf"), OverflowError), (1, float("nan"), ValueError),
        (1, "half", TypeError),
        (3, 1e308, OverflowError),  # the double product itself is infinite
    ])
    def test_impossible_shares(self, total, share, error):
        with pytest.raises(error):
            ranked = {"a": chain("a", ["x", "y"]), "b": chain("b", ["z"])}
            scope.select_with_quota(ranked, NO_USES, total, 1, share)

    @pytest.mark.parametrize("ranked, total, floor, error", [
        ([("a", [])], 1, 1, TypeError),  # a list of pairs is no mapping
        (5, 1, 1, TypeError),
        ({"a": 5}, 1, 1, TypeError),
        ({"a": chain("a", ["x"])}, 2**64, 1, OverflowError),
        ({"a": chain("a", ["x"])}, 1, -(2**64), OverflowError),
        ({"a": chain("a", ["x"])}, 1.0, 1, TypeError),
    ])
    def test_bad_arguments(self, ranked, total, floor, error):
        with pytest.raises(error, match="select_with_quota|total|floor"):
            scope.select_with_quota(ranked, NO_USES, total, floor, 0.5)

    def test_items_of_any_mapping_are_checked(self):
        class Odd:
            def __init__(self, items):
                self._items = items

            def items(self):
                return self._items
        records = chain("a", ["x", "y"])
        # Items unpack as `for path, declarations in ranked.items()` would.
        for items in ([("a", records)], [["a", records]]):
            assert scope.select_with_quota(Odd(items), NO_USES, 1, 1, 0.5) == records[:1]
        for items, error in (([("a", records, 3)], ValueError), (7, TypeError), ([7], TypeError)):
            with pytest.raises(error, match="select_with_quota.*'ranked'"):
                scope.select_with_quota(Odd(items), NO_USES, 1, 1, 0.5)
        # Empty sequences take no part, whatever their key.
        assert scope.select_with_quota({None: [], "a": records}, NO_USES, 1, 1, 0.5) == records[:1]

    def test_host_code_that_changes_a_list_midway_is_harmless(self):
        victim = chain("a", ["x", "y", "z"])
        others = chain("b", ["u", "v"])

        class Sneaky:  # iterating it empties another file's list
            def __iter__(self):
                victim.clear()
                return iter(others)
        before = list(victim)
        chosen = scope.select_with_quota({"a": victim, "b": Sneaky()}, NO_USES, 5, 1, 1.0)
        assert sorted(s.name for s in chosen) == sorted(s.name for s in before + others)

    def test_share_is_not_looked_at_when_nothing_is_selected(self):
        for ranked, total in [({}, 5), ({"a": [], "b": ()}, 5), ({"a": chain("a", ["x"])}, 0),
                              ({"a": [object()]}, -1)]:
            assert scope.select_with_quota(ranked, NO_USES, total, 1, float("nan")) == []

    @pytest.mark.parametrize("share", [1e300, 2, 10**400, True, -(10**400), 0, False, 0.3, Fraction(1, 3)])
    def test_huge_and_int_shares_agree_with_the_plain_implementation(self, share):
        # The first worked example, where the cap decides: a share of 1 or more takes a4, 0.5 takes c2.
        files = {"A": ["a1", "a2", "a3", "a4", "a5", "a6"], "B": ["b1"], "C": ["c1", "c2", "c3"]}
        ranked = self.ranked_in_order(["a1", "c1", "a2", "a3", "a4", "b1", "c2", "a5", "c3", "a6"], files)
        for total in (6, 9):
            chosen = scope.select_with_quota(ranked, NO_USES, total, 1, share)
            assert chosen == pyscope.select_with_quota(ranked, NO_USES, total, 1, share)

    def test_records_from_no_facts_and_keyword_arguments(self):
        records = [SimpleNamespace(id=i, kind="function", name=f"f{i}", start_line=1, end_line=i) for i in range(5)]
        chosen = scope.select_with_quota(ranked={"p": records}, fan_in=NO_USES, total=2, floor=1, max_share=1.0)
        assert chosen == records[:2]


class TestPickSpread:
    @pytest.mark.parametrize("scored, limit, per_file, expected", [
        ([("f", "a"), ("g", "a"), ("h", "b"), ("k", "c")], 3, 1, ["f", "h", "k"]),
        ([("f", "a"), ("g", "a"), ("h", "b")], 2, 2, ["f", "g"]),
        ([("f", "a"), ("f", "a"), ("f", "b")], 5, 2, ["f", "f", "f"]),
        ([("f", "a"), ("g", "a")], 0, 5, []),
        ([("f", "a"), ("g", "a")], -1, 5, []),
        ([("f", "a"), ("g", "b")], 5, 0, []),
        ([], 3, 1, []),
    ])
    def test_walk(self, scored, limit, per_file, expected):
        assert scope.pick_spread(scored, limit, per_file) == expected

    def test_stops_pulling_once_full_and_returns_the_given_objects(self):
        pulled = []

        def pairs():
            for i in range(100):
                pulled.append(i)
                yield object(), f"p{i % 3}"
        result = scope.pick_spread(pairs(), 2, 5)
        assert len(result) == 2 and pulled == [0, 1]
        names = [object(), object()]
        assert scope.pick_spread(iter([(names[0], "a"), (names[1], "b")]), 5, 1) == names
        assert scope.pick_spread(iter([(1, "a")]), 0, 1) == []

    @pytest.mark.parametrize("scored, limit, per_file, error", [
        (5, 1, 1, TypeError),
        ([("only",)], 1, 1, ValueError),
        ([("f", 3)], 1, 1, TypeError),  # paths are str
        ([], 1.5, 1, TypeError),
        ([], 2**64, 1, OverflowError),
        ([], 1, -(2**64), OverflowError),
    ])
    def test_bad_input(self, scored, limit, per_file, error):
        with pytest.raises(error):
            scope.pick_spread(scored, limit, per_file)

    def test_errors_of_the_iterable_reach_the_caller(self):
        def pairs():
            yield "f", "a"
            raise LookupError("scoring failed")
        with pytest.raises(LookupError, match="scoring failed"):
            scope.pick_spread(pairs(), 5, 1)


def same_records(ours, theirs):
    return len(ours) == len(theirs) and all(a is b for a, b in zip(ours, theirs, strict=True))


@pytest.mark.parametrize("seed", range(30))
def test_agrees_with_the_plain_implementation(seed):
    rng = random.Random(seed)
    facts = scope.ScopeFacts(**pages.make_page(rng, n_files=rng.randint(1, 9), decls_per_file=rng.randint(1, 25),
                                               n_inbound=rng.randint(0, 150)))
    fan_in = pyscope.production_fan_in(facts)
    for symbol in facts.symbols:
        assert scope.rank_key(symbol, fan_in) == pyscope.rank_key(symbol, fan_in)
    ours, theirs = scope.ranked_by_file(facts, fan_in), pyscope.ranked_by_file(facts, fan_in)
    assert list(ours) == list(theirs) and all(same_records(ours[path], theirs[path]) for path in ours)
    assert list(scope.file_seeds(facts, fan_in).items()) == list(pyscope.file_seeds(facts, fan_in).items())
    shuffled = {path: rng.sample(records, len(records)) for path, records in ours.items()}
    # The same declarations as records of no facts.
    key_fields = ("id", "kind", "name", "start_line", "end_line")
    strangers = {path: [SimpleNamespace(**{f: getattr(s, f) for f in key_fields}) for s in records]
                 for path, records in ours.items()}
    for total, floor, share in [(1, 1, 0.2), (12, 2, 0.3), (40, 3, 0.14), (200, 0, 1.0), (25, -1, 0.0),
                                (rng.randint(1, 60), rng.randint(-1, 5), rng.random())]:
        for ranked in (ours, shuffled, strangers):
            mine = scope.select_with_quota(ranked, fan_in, total, floor, share)
            assert same_records(mine, pyscope.select_with_quota(ranked, fan_in, total, floor, share))
    scored = pages.make_scored(rng, list(facts.symbols), 40)
    for limit, per_file in [(10, 2), (40, 1), (3, 5), (0, 1), (rng.randint(1, 40), rng.randint(1, 4))]:
        assert scope.pick_spread(scored, limit, per_file) == pyscope.pick_spread(scored, limit, per_file)


def test_a_facts_own_records_are_keyed_from_its_view_while_it_lives(counting):
    import gc
    records = [counting(id=i, path=f"p{i % 3}", name=f"n{i}", kind="function", start_line=i, end_line=i + 2)
               for i in range(9)]
    facts = make_facts(["p0", "p1", "p2"], symbols=records)
    ranked = scope.ranked_by_file(facts, NO_USES)
    reads = counting.reads
    expected = scope.select_with_quota(ranked, NO_USES, 5, 1, 0.5)
    assert counting.reads == reads
    stranger = counting(id=99, path="p0", name="x", kind="function", start_line=1, end_line=1)
    mixed = dict(ranked, p0=ranked["p0"] + [stranger])  # not all of one facts: read as given
    scope.select_with_quota(mixed, NO_USES, 5, 1, 0.5)
    assert counting.reads == reads + 5 * 10
    del facts
    gc.collect()
    assert scope.select_with_quota(ranked, NO_USES, 5, 1, 0.5) == expected
    assert counting.reads == reads + 5 * 10 + 5 * 9
