"""How the module reads the host's objects: record fields of the wrong type or size, records whose attribute lookup is
their own, host errors met on the way, odd containers and numbers, many symbol ids, records outliving their facts."""

import contextlib
import gc
from collections import OrderedDict, defaultdict
from fractions import Fraction
from types import MappingProxyType

import pytest

import pyscope
import scope
from conftest import Counting, inref, make_facts, same, sym
from tarnwick.storage.database import Database
from tarnwick.storage.grounding_queries import ScopeSymbol

NO_USES = scope.FanIn({})


def raising(error):
    return property(lambda self: (_ for _ in ()).throw(error("from the host")))


@pytest.mark.parametrize("record, error, message", [
    (sym(2**63, "a", "f"), OverflowError, r"ranked_by_file\(\) argument 'facts': ScopeSymbol.id does not fit"),
    (sym(1, "a", "f", end=-(2**63) - 1), OverflowError, "ScopeSymbol.end_line"),
    (sym("7", "a", "f"), TypeError, "ScopeSymbol.id must be int, not str"),
    (sym(1, b"a", "f"), TypeError, "ScopeSymbol.path must be str"),
    (type("Symbol", (), {"id": 1, "path": "a", "name": "f", "start_line": 1, "end_line": 1})(), AttributeError, "kind"),
    (type("Symbol", (), {"id": 1, "path": "a", "name": "f", "kind": raising(KeyError)})(), KeyError, "from the host"),
])
def test_a_field_that_cannot_be_read_is_named_and_leaves_the_facts_as_they_were(record, error, message):
    good = sym(2, "a", "g", start=3, end=9)
    facts = make_facts(["a"], [good, record, good])
    for _ in range(2):  # nothing of the first attempt was kept
        with pytest.raises(error, match=message):
            scope.ranked_by_file(facts, NO_USES)


class Slotted:
    __slots__ = ("id", "path", "name", "fqn", "kind", "start_line", "end_line", "is_export")

    def __init__(self, **fields):
        for name, value in fields.items():
            setattr(self, name, value)


def loud(self, name):
    value = object.__getattribute__(self, name)
    return value.upper() if name == "name" else value


def test_records_that_look_their_attributes_up_their_own_way_are_read_as_python_reads_them():
    own = type("Own", (Slotted,), {"__slots__": (), "__getattribute__": loud})
    fallback = type("Fallback", (Slotted,), {"__slots__": (), "__getattr__": lambda self, name: f"no {name}"})
    prop = type("Property", (Slotted,), {"__slots__": (), "name": property(lambda self: "property")})
    fields = dict(path="a", fqn="q", kind="function", start_line=1, end_line=2, is_export=True)
    records = [cls(id=i, **fields, **({} if cls in (fallback, prop) else {"name": "own"}))
               for i, cls in enumerate([Slotted, own, fallback, prop, Slotted, fallback, own])]
    host = type("Host", (ScopeSymbol,), {"__slots__": (), "__getattribute__": loud})  # the host's slots, its own lookup
    facts = make_facts(["a"], records + [host(9, "a", "host", "q", "function", 1, 1, True)])
    text = same("render_consumers", facts, NO_USES, "#")
    assert all(f"`{name}`" in text for name in ("own", "OWN", "no name", "property", "HOST"))
    unset = Slotted(id=5, path="a", kind="function", start_line=1, end_line=1)
    with pytest.raises(AttributeError, match="name"):
        scope.ranked_by_file(make_facts(["a"], [records[0], unset]), NO_USES)


@pytest.mark.parametrize("error", [AttributeError, KeyError])
def test_only_an_absent_language_reads_as_none(error, monkeypatch):
    file = type("File", (), {"id": 1, "path": "a.py", "language": raising(error)})()
    monkeypatch.setattr(scope, "scope_files", lambda db, paths: [file])
    with pytest.raises(KeyError) if error is KeyError else contextlib.nullcontext():
        assert scope.load_scope_facts(Database(), ["a.py"], lambda path: None).import_resolved_paths == frozenset()
    with pytest.raises(KeyError) if error is KeyError else contextlib.nullcontext():
        text = scope.render_consumers(scope.ScopeFacts([file], (), (), (), (), (), {}, {}), NO_USES, "#")
        assert "does not resolve imports for , so" in text


class Key:
    """A key that Python compares with symbol id 7, and whose comparison fails."""

    __hash__ = (7).__hash__

    def __eq__(self, other):
        raise LookupError("cannot compare")


SEVEN = make_facts(["a"], [sym(7, "a", "f")])


@pytest.mark.parametrize("where", ["outside", "inside", "entry"])
@pytest.mark.parametrize("call", [
    lambda fan_in: scope.rank_key(SEVEN.symbols[0], fan_in), lambda fan_in: scope.ranked_by_file(SEVEN, fan_in),
    lambda fan_in: scope.file_seeds(SEVEN, fan_in), lambda fan_in: scope._most_used(SEVEN.symbols, fan_in),
    lambda fan_in: scope.select_with_quota({"a": SEVEN.symbols}, fan_in, 1, 1, 1),
    lambda fan_in: scope.render_file_cards(SEVEN, fan_in, "#"),
    lambda fan_in: scope.render_consumers(SEVEN, fan_in, "#"),
    lambda fan_in: scope._unused_outside(SEVEN, (), fan_in),
])
def test_an_error_comparing_a_fan_in_key_with_an_id_propagates(where, call):
    counts = {"outside": {}, "inside": {}, "entry": set()}
    counts[where] = {Key()} if where == "entry" else {Key(): 1}
    fan_in = scope.FanIn(**counts)
    reads_entry = call.__code__.co_names[1] not in ("_most_used", "render_file_cards")
    with pytest.raises(LookupError) if where != "entry" or reads_entry else contextlib.nullcontext():
        call(fan_in)


def test_thousands_of_ids_that_share_their_low_bits():
    symbols = [sym(i << 40, "a.py", "f") for i in range(3000)]
    same("production_fan_in", make_facts(["a.py"], symbols, [inref("b.py", s, refs=i % 3) for i, s in
                                                              enumerate(symbols * 2)]))


@pytest.mark.parametrize("make", [
    lambda: MappingProxyType({"a.py": ("t/a", "t/b", "t/c", "t/d")}), lambda: defaultdict(list, {"a.py": ["t/a|b"]}),
    lambda: OrderedDict([("b.py", None), ("a.py", iter(["t/a"]))]),
])
def test_the_tests_reaching_a_file_come_from_any_mapping(make, monkeypatch):
    made = []
    for module in (scope, pyscope):
        monkeypatch.setattr(module, "tests_reaching", lambda facts: (None, made.append(make()) or made[-1]))
    assert "| `a.py` | ? | 0 |  |  |  | t/" in same("render_file_cards", make_facts(["a.py", "b.py"]), NO_USES, "#")
    assert [list(by_file) for by_file in made] == [list(make())] * 2  # asked as .get asks: nothing added


@pytest.mark.parametrize("share, error", [
    (1e300, None), (2, None), (10**400, None), (True, None), (-(10**400), None), (-1e300, None), (0, None),
    (False, None), (0.3, None), (Fraction(1, 3), None),
    (1e308, OverflowError), (float("inf"), OverflowError), (float("nan"), ValueError),  # no whole ceiling
    (type("Share", (), {"__float__": lambda self: {}["share"]})(), KeyError),  # the host's error, unchanged
])
def test_any_real_share_is_taken_as_the_plain_implementation_takes_it(share, error):
    ranked = {path: [sym(i, path, "f", start=i) for i in range(6)] for path in "ab"}
    for total in (3, 9):
        if error is None:
            same("select_with_quota", ranked, NO_USES, total, 1, share)
            continue
        with pytest.raises(error, match="select_with_quota|share"):
            scope.select_with_quota(ranked, NO_USES, total, 1, share)


def test_the_lists_of_a_facts_are_read_as_given_once_it_is_gone():
    records = [Counting(id=i, path=f"p{i % 3}", name=f"n{i}", kind="function", start_line=i, end_line=i + 2)
               for i in range(9)]
    facts = make_facts(["p0", "p1", "p2"], records)
    ranked = scope.ranked_by_file(facts, NO_USES)
    expected = scope.select_with_quota(ranked, NO_USES, 5, 1, 0.5)
    del facts
    gc.collect()
    Counting.reads = 0
    assert scope.select_with_quota(ranked, NO_USES, 5, 1, 0.5) == expected and Counting.reads == 9 * 5


class PairsAsLists:
    """A mapping of its own kind: items() gives each pair as a list."""

    def __init__(self, data):
        self.data = data

    def items(self):
        return [[key, value] for key, value in self.data.items()]

    def get(self, key, default=None):
        return self.data.get(key, default)


def test_a_fan_in_of_any_mapping_gives_its_counts():
    symbols = [sym(1, "a.py", "f"), sym(2, "a.py", "g")]
    assert scope._most_used(symbols, scope.FanIn(PairsAsLists({1: 5, 2: 7}))) == ["`g` L1 (7)", "`f` L1 (5)"]


def test_facts_are_equal_by_value_compared_for_equality_only_and_immutable():
    facts, twin = make_facts(["a.py"], [sym(1, "a.py", "f")]), make_facts(["a.py"], [sym(1, "a.py", "f")])
    assert facts == twin and not facts != twin and facts != make_facts(["b.py"])
    assert (facts == 1) is False and (facts != "a.py") is True  # another type is never equal
    with pytest.raises(TypeError):
        facts < twin  # noqa: B015
    with pytest.raises(TypeError, match="must be a string"):
        type(facts).__setattr__(facts, 5, 1)
    with pytest.raises(AttributeError, match="immutable"):
        facts.files = ()
