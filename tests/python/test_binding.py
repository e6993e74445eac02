"""How the module reads the host's objects: record fields of the wrong type or size, records whose attribute lookup is
their own, host errors met on the way, odd containers and numbers, many symbol ids, records outliving their facts."""

import contextlib
import gc
import random
import subprocess
import sys
import time
import traceback
import weakref
from collections import OrderedDict, defaultdict
from concurrent.futures import ThreadPoolExecutor
from fractions import Fraction
from functools import partial
from types import MappingProxyType

import pytest

import pyscope
import scope
from conftest import Counting, inref, make_facts, norm, outref, random_page, same, sym
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


class Held(Exception):
    """The host's error, holding the facts whose record raised it: a cycle through the error the facts keeps."""


@pytest.mark.parametrize("odd, error, message", [
    ({}, AttributeError, "'InboundReference' object has no attribute 'target_name'"),
    ({"target_name": raising(KeyError)}, KeyError, "from the host"),
    ({"target_name": property(lambda self: (_ for _ in ()).throw(Held(self.back)))}, Held, None),
    ({"target_name": b"g"}, TypeError, r"^render_consumers\(\) argument 'facts': InboundReference.target_name must be"),
])
def test_a_field_only_one_function_reads_fails_that_function_alone_whatever_ran_before(odd, error, message):
    """Every field of a table is read in one walk; a field that cannot be read fails each call that reads it, as
    attribute access fails (the host's own error is kept and raised again), and no other call."""
    f, g = sym(1, "a.py", "f"), sym(2, "a.py", "g", "class")
    fields = dict(source_path="app/m.py", target_id=2, target_path="a.py", target_kind="class", resolution="import",
                  refs=3)
    odd_record = type("InboundReference", (), {**fields, **odd})()
    facts = make_facts(["a.py"], [f, g], [inref("app/m.py", f), odd_record, inref("web/n.py", g, "local", 2)],
                       [outref("a.py", sym(9, "lib/x.py", "h"))])
    odd_record.back = facts
    fan_in = same("production_fan_in", facts)
    others = [("file_users", facts), ("ranked_by_file", facts, fan_in), ("file_seeds", facts, fan_in),
              ("render_file_cards", facts, fan_in, "#"), ("neighbours", facts, 3), ("name_match_counts", facts),
              ("_unused_outside", facts, (), fan_in)]
    raised = []
    for _ in range(2):
        for call in others:
            same(*call)
        with pytest.raises(error, match=message) as caught:
            scope.render_consumers(facts, fan_in, "#")
        raised.append(caught.value)
    if error is AttributeError:
        with pytest.raises(AttributeError) as plain:
            odd_record.target_name  # noqa: B018
        assert str(raised[0]) == str(plain.value)
        del plain  # its error holds the record
    assert (raised[0] is raised[1]) == (error is not TypeError)  # kept, but the module's own error names each call
    assert len(traceback.extract_tb(raised[1].__traceback__)) == len(traceback.extract_tb(raised[0].__traceback__))
    alive = weakref.ref(odd_record)
    del odd_record, facts, fan_in, others, call, raised, caught
    gc.collect()
    assert alive() is None


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


@pytest.mark.parametrize("result, error", [
    ("xy", TypeError), (b"ab", TypeError), ({1: {}}, TypeError), (None, TypeError), ((), ValueError),
    ([None], ValueError), ((None, {}, {}), ValueError),
])
def test_a_result_of_tests_reaching_that_is_no_pair_is_named(result, error, monkeypatch):
    monkeypatch.setattr(scope, "tests_reaching", lambda facts: result)
    with pytest.raises(error, match=r"render_file_cards\(\) .*tests_reaching\(\) must be a pair"):
        scope.render_file_cards(make_facts(["a.py"]), NO_USES, "#")


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


class Lazy(Exception):
    """A record whose type keeps an instance dict at a fixed offset, made only when first needed: none here."""

    id, path, name, fqn, kind, start_line, end_line, is_export = 7, "a", "f", "q", "function", 1, 2, True


class Id(int):
    def __bool__(self):
        raise RuntimeError("an id is never asked for its truth")


def test_values_are_read_only_as_python_reads_them_and_no_further():
    """A record without an instance dict yet; an id that is no truth value; a quota that cannot take anything reads no
    record; a fan-in the facts cannot keep is not held."""
    assert [s.name for s in scope.ranked_by_file(make_facts(["a"], [Lazy()]), NO_USES)["a"]] == ["f"]
    assert scope.ranked_by_file(make_facts(["a"], [sym(Id(3), "a", "f")]), NO_USES)["a"][0].id == 3
    for ranked, total in [({"a": [object()]}, 0), ({"a": [object()]}, -1), ({"a": []}, 3), ({}, 3)]:
        assert same("select_with_quota", ranked, NO_USES, total, 1, 0.5) == []
    entry = type("Entry", (set,), {})({7})
    alive = weakref.ref(entry)
    fan_in = scope.FanIn({7: 1}, {}, entry)
    scope.ranked_by_file(SEVEN, fan_in), scope.select_with_quota(scope.ranked_by_file(SEVEN, fan_in), fan_in, 1, 1, 1)
    del fan_in, entry
    gc.collect()
    assert alive() is None


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


class Doubled(dict):
    """Counts as the host's own `get` gives them."""

    def get(self, key, default=None):
        return 2 * dict.__getitem__(self, key) if key in self else default


class OnDemand:
    """A mapping that lists nothing and answers what it is asked."""

    def items(self):
        return []

    def get(self, key, default=None):
        return 4 if key == 2 else default


class HashedApart:
    """An id equal to 1 that a set never finds for 1."""

    def __eq__(self, other):
        return other == 1

    def __hash__(self):
        return 12345


def test_counts_and_ids_are_read_as_get_and_set_read_them_and_no_further():
    """A fan-in is asked `.get(id, 0)` for each declaration: its own `get` counts, and a value under a
    key no declaration has is never read; `used` is a set; another record's error is not these records'."""
    facts = make_facts(["a.py"], [sym(1, "a.py", "f", end=2), sym(2, "a.py", "g", end=9)])
    for fan_in in [scope.FanIn(Doubled({1: 3}), Doubled({2: 1})), scope.FanIn(OnDemand()),
                   scope.FanIn({1: 3, 999: 2**64}), scope.FanIn({1: 3}, {"note": "no count"})]:
        same("_most_used", facts.symbols, fan_in)
        same("ranked_by_file", facts, fan_in)
    for used in [[HashedApart()], (1, 1.0), {2: "a key"}]:
        same("_unused_outside", facts, used, NO_USES)
    with pytest.raises(TypeError, match="unhashable type: 'dict'"):
        scope._unused_outside(facts, [{}], NO_USES)

    fields = dict(id=3, path="a.py", fqn="a.x", kind="function", start_line=9, end_line=9, is_export=True)
    bad = type("Symbol", (), {**fields, "name": raising(KeyError)})()
    good = [sym(1, "a.py", "f", end=2), sym(2, "a.py", "g", end=9)]
    alive = make_facts(["a.py"], [*good, bad])
    with pytest.raises(KeyError, match="from the host"):
        scope.production_fan_in(alive)  # the facts' declarations are read, and one fails
    assert scope.select_with_quota({"a.py": good}, NO_USES, 5, 1, 1.0) == good


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


# What the facts keep between calls never changes an answer: each call gives what it gives on fresh facts with the
# same fields, the same module attributes and the same fan-in contents, whatever host code did in between.

def test_a_fan_in_changed_while_it_is_read_is_read_again():
    outside = {}

    class Key:  # equal to id 1; the first comparison adds an entry to the dict being read
        fired = False
        __hash__ = (1).__hash__

        def __eq__(self, other):
            if other == 1 and not Key.fired:
                Key.fired = True
                outside[2] = 7
            return other == 1

    outside[Key()] = 1
    fields = (["a.py"], [sym(2, "a.py", "two"), sym(1, "a.py", "one")])
    facts, fan_in = make_facts(*fields), scope.FanIn(outside, {}, frozenset())
    scope.ranked_by_file(facts, fan_in)
    expected = [s.id for s in scope.ranked_by_file(make_facts(*fields), fan_in)["a.py"]]
    assert expected == [2, 1] and [s.id for s in scope.ranked_by_file(facts, fan_in)["a.py"]] == expected
    outside[2] = 0  # a change the host makes between calls
    assert [s.id for s in scope.ranked_by_file(facts, fan_in)["a.py"]] == [1, 2]


RUN = sym(1, "lib/a.py", "run", end=3)
VOCABULARY_PAGE = (["lib/a.py"], [RUN], [inref("app/x.py", RUN)], (), None, (), {"lib/a.py": 3}, {"lib/a.py": ""})


@pytest.mark.parametrize("call, window", [
    (lambda facts, fan_in: scope.render_file_cards(facts, fan_in, "#"), "tests_reaching"),
    (lambda facts, fan_in: scope.render_consumers(facts, fan_in, "#"), "fan_in"),
    (lambda facts, fan_in: scope.ranked_by_file(facts, fan_in), "fan_in"),
    (lambda facts, fan_in: scope._unused_outside(facts, (), fan_in), "fan_in"),
])
def test_data_derived_under_sets_rebound_meanwhile_is_never_filed_under_the_call_s_own(call, window, monkeypatch):
    def rebind_and_call(facts):  # host code that asks the module under other sets, then puts them back
        evidence, callable_kinds = scope.EVIDENCE_RESOLUTIONS, scope._CALLABLE_KINDS
        scope.EVIDENCE_RESOLUTIONS, scope._CALLABLE_KINDS = frozenset(), frozenset()
        scope.file_users(facts), scope.production_fan_in(facts), scope.ranked_by_file(facts, NO_USES)
        scope.EVIDENCE_RESOLUTIONS, scope._CALLABLE_KINDS = evidence, callable_kinds

    facts = make_facts(*VOCABULARY_PAGE)

    class Key:  # a fan-in key compared with the page's id runs the host code
        __hash__ = (1).__hash__

        def __eq__(self, other):
            rebind_and_call(facts)
            return False

    fan_in = scope.FanIn({Key(): 5}) if window == "fan_in" else NO_USES
    monkeypatch.setattr(scope, "tests_reaching", lambda f: (window == "tests_reaching" and rebind_and_call(f), {}))
    assert norm(call(facts, fan_in)) == norm(call(make_facts(*VOCABULARY_PAGE), fan_in))
    monkeypatch.setattr(scope, "tests_reaching", lambda f: (frozenset(), {}))
    for name, args in [("file_users", ()), ("production_fan_in", ()), ("ranked_by_file", (NO_USES,)),
                       ("render_consumers", (NO_USES, "#")), ("render_file_cards", (NO_USES, "#"))]:
        fresh = make_facts(*VOCABULARY_PAGE)
        assert norm(getattr(scope, name)(facts, *args)) == norm(getattr(scope, name)(fresh, *args)), name


def test_a_set_that_can_change_or_asks_host_code_is_asked_again_by_every_call(monkeypatch):
    facts = make_facts(*VOCABULARY_PAGE)  # app/x.py imports lib/a.py's run
    evidence = set(scope.EVIDENCE_RESOLUTIONS)
    monkeypatch.setattr(scope, "EVIDENCE_RESOLUTIONS", evidence)
    assert scope.file_users(facts) == {"lib/a.py": {"app/x.py": 1}}
    evidence.clear()  # the same set, changed in place
    assert scope.file_users(facts) == {}

    class Resolution(str):  # a member whose equality is host code
        __hash__ = str.__hash__
        asked = 0

        def __eq__(self, other):
            Resolution.asked += 1
            return str.__eq__(self, other)

    monkeypatch.setattr(scope, "EVIDENCE_RESOLUTIONS", frozenset({Resolution("import")}))
    for _ in range(3):
        assert scope.file_users(facts) == {"lib/a.py": {"app/x.py": 1}}
    assert Resolution.asked == 3

    monkeypatch.undo()  # the module's own sets again

    class Kind(str):  # a kind whose hash is host code
        hashed = 0

        def __hash__(self):
            Kind.hashed += 1
            return str.__hash__(self)

    run = sym(1, "lib/a.py", "run", Kind("function"), end=3)
    facts = make_facts(["lib/a.py"], [run], [inref("app/x.py", run)])
    hashed = [(scope.production_fan_in(facts), Kind.hashed)[1] for _ in range(3)]
    assert hashed[0] > 0 and hashed == [hashed[0], 2 * hashed[0], 3 * hashed[0]]


def test_a_cycle_through_the_objects_the_view_holds_is_collected():
    class Path(str):
        pass

    path = Path("lib/a.py")
    facts = make_facts([path], [sym(1, path, "f", end=2)], [inref(Path("app/x.py"), sym(1, path, "f"))])
    path.back = facts
    scope.ranked_by_file(facts, NO_USES), scope.render_consumers(facts, scope.production_fan_in(facts), "#")
    alive = weakref.ref(path)
    del path, facts
    gc.collect()
    assert alive() is None


OUTLIVING = """
import gc, sys
from types import SimpleNamespace
import scope

class Record(Exception):  # keeps its attributes in a dict at a fixed offset, which the module reads directly
    pass

class Key:  # compared with "kind" while it is looked up, and gives the record another dict meanwhile
    record = None
    def __hash__(self):
        return hash("kind")
    def __eq__(self, other):
        record, Key.record = Key.record, None
        if record is not None:
            record.__dict__ = {}
            garbage = [bytes(31) for _ in range(1000)]  # the old dict's memory taken again
        return False

fields = dict(id=1, path="a.py", name="f", fqn="a.f", start_line=1, end_line=2, is_export=True)
record = Record()
record.__dict__.update(fields)
record.__dict__[Key()] = 0
record.__dict__["kind"] = "function"
Key.record = record
file = SimpleNamespace(id=1, path="a.py", language="python")
try:
    scope.ranked_by_file(scope.ScopeFacts((file,), (record,), (), (), (), (), {}, {}), scope.FanIn({}))
except AttributeError as error:
    print(error)

class Store:  # a class is part of a cycle: what it holds is freed after the module's types are cleared
    facts = scope.ScopeFacts((file,), (SimpleNamespace(**fields, kind="function"),), (), (), (), (), {}, {})
scope.ranked_by_file(Store.facts, scope.FanIn({}))  # listed among the facts with converted declarations

del sys.modules["scope"]
import scope as second  # another instance of the module, collected with a facts in a cycle
file.facts = second.ScopeFacts((file,), (), (), (), (), (), {}, {})
del second, sys.modules["scope"]
gc.collect()
print("done")
"""


def test_facts_outlive_their_module_and_records_change_while_they_are_read_without_a_crash():
    """A record whose dict is replaced while the module searches it, facts freed after the module at
    exit or collected with a second instance of it: Python's own answer, and a clean exit."""
    done = subprocess.run([sys.executable, "-c", OUTLIVING], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "'Record' object has no attribute 'start_line'\ndone\n", "")


def test_threads_sharing_fresh_facts_and_a_fan_in_give_the_single_threaded_results(monkeypatch):
    """Records run Python code (and let other threads run) on every attribute read, and so does the path filter:
    conversions and calls of several threads interleave on one ScopeFacts."""
    calls = {
        "production_fan_in": lambda f, fan_in: scope.production_fan_in(f),
        "file_users": lambda f, fan_in: scope.file_users(f),
        "render_file_cards": lambda f, fan_in: scope.render_file_cards(f, fan_in, "#"),
        "select_with_quota": lambda f, fan_in: scope.select_with_quota(scope.ranked_by_file(f, fan_in), fan_in, 9, 1,
                                                                       0.4),
        "file_seeds": lambda f, fan_in: scope.file_seeds(f, fan_in),
        "render_consumers": lambda f, fan_in: scope.render_consumers(f, fan_in, "#"),
        "neighbours": lambda f, fan_in: scope.neighbours(f, 6),
        "name_match_counts": lambda f, fan_in: scope.name_match_counts(f),
        "_unused_outside": lambda f, fan_in: scope._unused_outside(f, {0, 3, 5}, fan_in),
        "_members": lambda f, fan_in: scope._members(f),
    }
    filter_ = scope.is_test_path
    monkeypatch.setattr(scope, "is_test_path", lambda path: time.sleep(0) or filter_(path))
    monkeypatch.setattr(sys, "getswitchinterval", sys.getswitchinterval)  # restored after the test
    sys.setswitchinterval(1e-6)
    for seed in range(3):
        fields = random_page(random.Random(seed), 24, "sleepy")
        fan_in = scope.production_fan_in(scope.ScopeFacts(**fields))
        expected = {name: norm(call(scope.ScopeFacts(**fields), fan_in)) for name, call in calls.items()}
        with ThreadPoolExecutor(4) as pool:  # eight runs, each calling every function, from its own place on
            runs = pool.map(partial(run_from, calls, scope.ScopeFacts(**fields), fan_in), range(0, 80, 10))
            assert list(runs) == [expected] * 8


def run_from(calls, facts, fan_in, percent):
    """Every call once, starting `percent` of the way through and wrapping around; the results by name."""
    names = list(calls)
    start = percent * len(names) // 100
    return {name: norm(calls[name](facts, fan_in)) for name in names[start:] + names[:start]}


@pytest.mark.parametrize("change", [
    lambda fan_in: fan_in.outside.update({2: 9}), lambda fan_in: fan_in.outside.pop(1),
    lambda fan_in: fan_in.inside.update({3: 50}), lambda fan_in: fan_in.outside.clear(),
    lambda fan_in: fan_in.outside.update(fan_in.outside | {2: 8}),
])
def test_a_kept_fan_in_changed_between_calls_is_read_again(change):
    fields = (["a.py"], [sym(1, "a.py", "one"), sym(2, "a.py", "two", export=False), sym(3, "a.py", "3", export=False)],
              [inref("b.py", sym(1, "a.py", "one"), refs=3), inref("a.py", sym(2, "a.py", "two"))])
    facts = make_facts(*fields)
    fan_in = scope.production_fan_in(facts)
    scope.ranked_by_file(facts, fan_in), scope.render_consumers(facts, fan_in, "#")
    change(fan_in)
    for call in (lambda f: scope.ranked_by_file(f, fan_in), lambda f: scope.render_consumers(f, fan_in, "#"),
                 lambda f: scope.file_seeds(f, fan_in), lambda f: scope._unused_outside(f, (), fan_in)):
        assert norm(call(facts)) == norm(call(make_facts(*fields)))
