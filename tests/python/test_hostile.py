"""Hostile input: every function meets records, containers and host callbacks that lie, raise or call back into the
module. Each call returns or raises TypeError, ValueError, OverflowError, AttributeError or the host's own exception,
unchanged; nothing crashes, memory stays flat. SCOPE_HOSTILE_EXAMPLES sets the cases per test, SCOPE_HOSTILE_SEED
draws seeded cases instead of the fixed ones."""

import atexit
import contextlib
import gc
import inspect
import math
import os
import resource
import traceback
from dataclasses import dataclass
from functools import partial
from types import MappingProxyType, MemberDescriptorType, SimpleNamespace

import pytest
from hypothesis import HealthCheck, Phase, given, seed, settings, strategies as st

import scope
from conftest import make_facts, sym
from tarnwick.storage import grounding_queries as gq

EXAMPLES = int(os.environ.get("SCOPE_HOSTILE_EXAMPLES", 200))
SEED = int(os.environ.get("SCOPE_HOSTILE_SEED", 0)) or None
FIELDS = tuple(inspect.signature(scope.ScopeFacts).parameters)
EXPECTED, FAN = (TypeError, ValueError, OverflowError, AttributeError), scope.FanIn({})
CALLS, CURRENT, RAISED, SAMPLES = [0], {}, [], []


Host = type("Host", (Exception,), {})  # the host's own error: host code made here raises a fresh one, noted in RAISED


def fail(*_, error=Host):
    raise RAISED.append(error()) or RAISED[-1]


# A record's field that raises: the facts may keep its error, unraised, for the calls that read that field.
Kept = type("Kept", (Host,), {})


def fail_field(*_):
    fail(error=Kept)


# A value whose every protocol raises the host's error; str subclasses, one raising when hashed or compared; a dict
# subclass whose protocols raise; a frozenset whose membership test calls the module back.
PROTOCOLS = "__bool__ __index__ __float__ __hash__ __eq__ __lt__ __iter__".split()
Boom, FieldBoom = (type("Boom", (), dict.fromkeys(PROTOCOLS, raiser)) for raiser in (fail, fail_field))
Str, Sly = type("Str", (str,), {}), type("Sly", (str,), {"__hash__": fail, "__eq__": fail})
Dict = type("Dict", (dict,), {**dict.fromkeys("keys items values get __getitem__ __iter__ __len__ __contains__".split(),
                                              fail), "__repr__": lambda self: f"Dict({dict.__repr__(self)})"})
Frozen = type("Frozen", (frozenset,), {"__contains__": lambda s, x: reenter() or frozenset.__contains__(s, x)})


@dataclass(eq=False)
class Lying:
    """Holds `data`, says `length` (unless None) and raises from the protocols in `broken` (iterating: after `cut`)."""
    data: list; length: object; broken: frozenset; cut: int  # noqa: E702

    def check(self, protocol): return fail() if protocol in self.broken else None
    def __len__(self): return self.check("len") or (len(self.data) if self.length is None else self.length)
    def __getitem__(self, index): return self.check("getitem") or self.data[index]
    def __contains__(self, item): return self.check("contains") or item in self.data

    def __iter__(self):
        yield from self.data[:self.cut]
        yield from self.check("iter") or self.data[self.cut:]


class LyingMap(Lying):
    keys = property(lambda self: self.check("keys") or (lambda: [key for key, _ in self.data]))  # raises on lookup
    def items(self): return self.check("items") or Lying.__iter__(self)
    def __iter__(self): return (key for key, _ in Lying.__iter__(self))
    def __getitem__(self, key): return self.check("getitem") or dict(self.data)[key]
    def __contains__(self, key): return self.check("contains") or key in dict(self.data)
    def get(self, key, default=None): return self[key] if key in self else default


def hook(action, value=None):  # a host callback: returns `value`, or raises the host's error, or calls back
    return lambda *_: (fail if action == "raise" else reenter if action == "reenter" else str)() or value


def reenter():  # calls the module back on the facts under test, having dropped the copy whose records may be in use
    facts, _, mark = CURRENT.pop("facts", None), CURRENT.pop("doomed", None), len(RAISED)
    with contextlib.suppress(Host, *EXPECTED):  # the host handles what it expects; anything else goes up
        facts and (scope.name_match_counts(facts), scope.neighbours(facts, 3), scope.render_file_cards(facts, FAN, "#"))
    del RAISED[mark:]
    facts and CURRENT.update(facts=facts)


def give(fields, bad, name, *_):
    if name in bad or name not in fields:
        raise fail_field() if name in bad else AttributeError(name)
    return fields[name]


def make_record(cls, style, fields, missing, bad, slot):
    """The host's class, a subclass whose `bad` fields raise, or a look-alike that lacks the `missing` fields and raises
    from the `bad` ones (borrowed: holds another class's slot descriptor there, which plain Python refuses to read)."""
    if style in ("host", "subclass"):
        body = {"__slots__": (), "__repr__": object.__repr__, **{n: property(fail_field, lambda *_: None) for n in bad}}
        return (cls if style == "host" else type(cls.__name__, (cls,), body))(**fields)
    kept = {name: value for name, value in fields.items() if name not in missing}
    read = staticmethod(partial(give, kept, bad))  # a field's value; the host's error for a `bad` one
    body = {"namespace": {}, "class": dict(kept), "slots": {"__slots__": tuple(kept)},
            "borrowed": {"__slots__": (), **kept, **dict.fromkeys(bad, slot)},
            "property": {name: property(partial(give, kept, bad, name)) for name in kept},
            "getattr": {"__getattr__": read}, "getattribute": {"__getattribute__": read}}[style]
    record = type(cls.__name__, (SimpleNamespace,) if style == "namespace" else (), body)()
    for name, value in kept.items() if style in ("slots", "namespace") else ():
        setattr(record, name, value)
    return record


ODD = [None, 2**63, -2**63 - 1, 2**200, -1, 7.0, math.nan, math.inf, True, "", "\ud800", Str("x"), b"x", ()]
PATHS = st.sampled_from(["a.py", "pkg/b.py", "tests/test_a.py", "\ud800.py", Str("pkg/b.py")])
IDS, LINES, TEXTS = st.integers(0, 6), st.integers(-1, 60), st.sampled_from(["f", "_g", "C"]) | st.text(max_size=3)
KINDS = st.sampled_from(["function", "class", "method", "constant", "attribute", "struct", "module"])
RESOLUTIONS = st.sampled_from(["import", "local", "unique", "ambiguous", "legacy"])
ACTION, LENGTH = st.sampled_from("return return raise reenter".split()), st.sampled_from([None, 0, 1, 2**40, 2**62])
BROKEN = st.frozensets(st.sampled_from("len iter getitem contains keys items".split()), max_size=2)
SLOTS = [d for c in (gq.ScopeFile, gq.ScopeSymbol) for d in vars(c).values() if isinstance(d, MemberDescriptorType)]


def odd(good, *hostile):  # mostly `good`, else of the wrong type, out of range or (hostile) raising
    return st.one_of(good, good, good, st.one_of(st.sampled_from(ODD), *hostile))


wild = lambda good: odd(good, st.builds(Boom), st.builds(Sly, PATHS))  # noqa: E731
lying = lambda items, kind=Lying: st.builds(kind, items, LENGTH, BROKEN, st.integers(0, 4))  # noqa: E731


def seq(elements):
    items = st.lists(elements, max_size=5)
    return st.one_of(items.map(tuple), items, items.map(iter), lying(items))


def setlike(elements):
    items = st.lists(elements, max_size=4)
    return st.one_of(items.map(frozenset), items.map(set), items.map(Frozen), lying(items))


def mapping(keys, values):
    pairs = st.lists(st.tuples(keys, values), max_size=4)
    return st.one_of(pairs.map(dict), pairs.map(dict).map(MappingProxyType), pairs.map(Dict), lying(pairs, LyingMap))


def record(cls, calm=False, **fields):  # clean host records when `calm`, else every style with hostile values
    names = st.frozensets(st.sampled_from(sorted(fields)), max_size=2)
    styles = st.sampled_from("host subclass namespace class slots borrowed property getattr getattribute".split())
    values = {name: odd(value, st.builds(FieldBoom), st.builds(Sly, PATHS)) for name, value in fields.items()}
    return st.builds(cls, **fields) if calm else st.builds(make_record, st.just(cls), styles, st.fixed_dictionaries(
        values), names, names, st.sampled_from(SLOTS))


symbols = partial(record, gq.ScopeSymbol, id=IDS, path=PATHS, name=TEXTS, fqn=TEXTS, kind=KINDS, start_line=LINES,
                  end_line=LINES, is_export=st.booleans())  # symbols(calm)


def facts_fields(calm):  # the nine fields: clean records in plain containers, or hostile ones
    box, sets = (lambda s: st.lists(s, max_size=8).map(tuple), st.frozensets) if calm else (seq, setlike)
    maps, key, value = (st.dictionaries, PATHS, lambda s: s) if calm else (mapping, odd(PATHS), wild)
    return st.fixed_dictionaries(dict(
        files=box(record(gq.ScopeFile, calm, id=IDS, path=PATHS, language=st.sampled_from(["python", "c", "", None]))),
        symbols=box(symbols(calm)), inbound=box(record(gq.InboundReference, calm, source_path=PATHS, target_id=IDS,
            target_path=PATHS, target_name=TEXTS, target_kind=KINDS, resolution=RESOLUTIONS, refs=LINES)),
        outbound=box(record(gq.OutboundReference, calm, source_path=PATHS, target=symbols(calm),
                            resolution=RESOLUTIONS, refs=LINES)),
        import_resolved_paths=sets(key), test_sources=sets(key), line_counts=maps(key, value(LINES)),
        summaries=maps(key, value(TEXTS)), test_imports=maps(key, sets(key))))


ID_KEY, ARG, SYMBOL = odd(IDS), wild(st.integers(-2, 30)), symbols()
COUNTS = mapping(ID_KEY, wild(st.integers(0, 9)))
PATCHES = {"is_test_path": st.builds(hook, ACTION, wild(st.booleans())), "tests_reaching": st.builds(
    hook, ACTION, wild(st.tuples(setlike(odd(PATHS)), wild(mapping(odd(PATHS), wild(seq(PATHS))))))),
    **{name: setlike(st.sampled_from(sorted(getattr(scope, name)))) for name in (
        "NAME_MATCH_KINDS", "EVIDENCE_RESOLUTIONS", "_TRUSTED", "_TYPE_KINDS", "_CALLABLE_KINDS")}}
CASE = st.fixed_dictionaries(dict(
    facts=st.one_of(facts_fields(True), facts_fields(False)), loader=st.tuples(*[ACTION] * 7),
    paths=wild(seq(PATHS)), lines=st.none() | wild(seq(wild(TEXTS))), by_name=st.booleans(),
    patches=st.fixed_dictionaries({}, optional=PATCHES), symbol=wild(SYMBOL), declarations=wild(seq(SYMBOL)),
    fan_in=wild(record(scope.FanIn, outside=COUNTS, inside=COUNTS, entry=setlike(ID_KEY))),
    ranked=wild(mapping(odd(PATHS), seq(SYMBOL))), scored=wild(seq(wild(st.tuples(wild(TEXTS), wild(PATHS))))),
    used=wild(setlike(ID_KEY)), names=wild(seq(wild(TEXTS))), missing=wild(seq(wild(PATHS))), heading=wild(TEXTS),
    path=wild(PATHS), text=wild(TEXTS), resolution=wild(RESOLUTIONS), kind=wild(KINDS), flag=wild(st.booleans()),
    id=wild(IDS), total=ARG, floor=ARG, limit=ARG, per_file=ARG, share=wild(st.floats(0, 1))))


def hostile(test):  # a fixed, reproducible set of cases, or seeded random ones (not shrunk) when SEED is set
    return seed(SEED)(settings(max_examples=EXAMPLES, deadline=None, database=None, derandomize=True, phases=(
        [Phase.generate] if SEED else list(Phase)), suppress_health_check=list(HealthCheck))(test))


def attempt(function, *args, by_name=False):  # must return, raise an expected error, or pass the host's one on
    RAISED.clear()
    CALLS[0] += 1
    name = function.__name__
    try:
        names = inspect.signature(function).parameters
        result = function(**dict(zip(names, args, strict=False))) if by_name else function(*args)
    except Exception as error:
        where = [*traceback.walk_tb(error.__traceback__)][-1][0].f_code.co_name  # the frame that raised it
        host = [raised for raised in RAISED if not isinstance(raised, Kept)]
        assert host in ([], [error]), f"{name}: the host's {host[0]!r} came out as {error!r}"
        if host or where not in ("attempt", "reenter"):
            return None  # raised by the host's own code
        assert isinstance(error, EXPECTED), f"{name} raised {error!r}"
        own = where == "attempt" and isinstance(error, (TypeError, OverflowError))  # not from a call back in
        own = own and not str(error).startswith("descriptor ")  # a borrowed slot fails so in plain Python too
        own = own and "not supported between instances" not in str(error)  # FanIn.api compares `count > 0` so too
        assert not own or name in str(error), f"{name}: {error!r} does not name the function"
        return None
    host = [raised for raised in RAISED if not isinstance(raised, Kept)]
    assert not host, f"{name} swallowed the host's {host[0]!r}"
    return result


def run(case):  # every function once on the case, with host callbacks and the module's sets patched in
    c, f = case, case["facts"]
    with pytest.MonkeyPatch.context() as patch:
        queries = dict(scope_files=f["files"], inbound_references=f["inbound"], scope_symbols=f["symbols"],
                       outbound_references=f["outbound"], import_resolved_languages=f["import_resolved_paths"],
                       importing_tests=f["test_imports"], file_summary=c["text"])
        hooks = map(hook, c["loader"], queries.values())
        for name, value in [*zip(queries, hooks, strict=True), *c["patches"].items()]:
            patch.setattr(scope, name, value)
        attempt(scope.load_scope_facts, object(), c["paths"], hook(c["loader"][0], c["lines"]), by_name=c["by_name"])
        facts = attempt(scope.ScopeFacts, *(f[name] for name in FIELDS)) or scope.ScopeFacts(*[()] * 6, {}, {})
        CURRENT.update(facts=facts, doomed=attempt(scope.ScopeFacts, *(getattr(facts, name) for name in FIELDS)))
        fan_in, ranked = c["fan_in"], attempt(scope.ranked_by_file, CURRENT["doomed"], c["fan_in"])
        for function, *args in (
                (scope.select_with_quota, ranked, fan_in, c["total"], c["floor"], c["share"]),
                (scope.select_with_quota, c["ranked"], fan_in, c["total"], c["floor"], c["share"]),
                (scope.is_use, c["resolution"], c["kind"], c["flag"]), (scope.production_fan_in, facts),
                (scope._members, facts), (scope.rank_key, c["symbol"], fan_in), (scope.ranked_by_file, facts, fan_in),
                (scope.file_seeds, facts, fan_in), (scope.pick_spread, c["scored"], c["limit"], c["per_file"]),
                (scope._short_path, c["path"]), (scope._cell, c["text"]), (scope._named, c["names"], c["limit"]),
                (scope.file_users, facts), (scope._most_used, c["declarations"], fan_in),
                (scope._most_used, facts.symbols, fan_in), (scope.render_consumers, facts, fan_in, c["heading"]),
                (scope.render_file_cards, facts, fan_in, c["heading"], c["missing"]), (scope.name_match_counts, facts),
                (scope._unused_outside, facts, c["used"], fan_in), (scope.neighbours, facts, c["limit"]),
                (facts.import_resolved, c["path"]), (scope.FanIn.api, fan_in, c["id"])):
            attempt(function, *args, by_name=c["by_name"])
    CURRENT.clear()


@hostile
@given(CASE)
def test_every_function_meets_hostile_input(case):
    SAMPLES.append(case)
    run(case)


KEYS = st.sampled_from([*range(8), 7.0, 1.0, 4.0, True, False, 2**70, "3", None])
SAME = make_facts(["a.py", "b.py"], symbols=[sym(i, "ab"[i % 2] + ".py", f"n{i}", ("function", "class", "method",
                                                "constant")[i % 4], i, i + 3) for i in range(8)])


def as_ids(keys):  # each key that equals an int replaced by that int, as a dict lookup would see it
    ids = {int(key): keys[key] if isinstance(keys, dict) else 0 for key in keys if isinstance(key, (int, float))}
    return ids if isinstance(keys, dict) else frozenset(ids)


@hostile
@given(*[st.dictionaries(KEYS, st.integers(1, 5))] * 2, *[st.frozensets(KEYS)] * 2)
def test_symbol_ids_from_the_host_follow_python_equality(outside, inside, entry, used):
    """A key or member equal to an int id stands for that id everywhere (or raises a TypeError naming the function)."""
    def calls(fan_in, used):
        return [(scope.ranked_by_file, SAME, fan_in), (scope.file_seeds, SAME, fan_in),
                (scope._most_used, SAME.symbols, fan_in), (scope.render_file_cards, SAME, fan_in, "#"),
                (scope.render_consumers, SAME, fan_in, "#"), (scope._unused_outside, SAME, used, fan_in),
                (scope.select_with_quota, scope.ranked_by_file(SAME, scope.FanIn({})), fan_in, 6, 1, 0.5),
                *[(scope.rank_key, symbol, fan_in) for symbol in SAME.symbols]]

    same = calls(scope.FanIn(as_ids(outside), as_ids(inside), as_ids(entry)), as_ids(used))
    for (function, *args), (_, *same_args) in zip(calls(scope.FanIn(outside, inside, entry), used), same, strict=True):
        try:
            assert function(*args) == function(*same_args), function.__name__
        except TypeError as error:
            assert function.__name__ in str(error)


@pytest.mark.skipif("asan" in os.environ.get("LD_PRELOAD", ""), reason="the sanitizer's quarantine grows the process")
def test_repeated_hostile_calls_keep_memory_flat():
    with contextlib.suppress(Exception):  # its failures are the test above's
        len(SAMPLES) >= EXAMPLES or test_every_function_meets_hostile_input()

    def rounds(count):
        for case in SAMPLES[-50:] * count:
            with contextlib.suppress(AssertionError):
                run(case)
        gc.collect()
        return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss

    before = rounds(5)
    assert rounds(25) - before < 5_000  # kB


@pytest.mark.parametrize("function", [scope.ScopeFacts, *(f for f in vars(scope).values() if type(f) is type(len))])
def test_every_function_has_a_signature_and_takes_keywords(function):
    parameters = inspect.signature(function).parameters.values()
    assert function.__doc__ and parameters and all(p.kind is p.POSITIONAL_OR_KEYWORD for p in parameters)


if os.environ.get("SCOPE_HOSTILE_REPORT"):  # scripts/hostile.sh adds up the calls of its rounds
    atexit.register(lambda: open(os.environ["SCOPE_HOSTILE_REPORT"], "a", encoding="utf-8").write(f"{CALLS[0]}\n"))
