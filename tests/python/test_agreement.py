"""Every function of the module against the plain implementation, on random pages of several sizes whose records
are the host's, namespaces, plain frozen dataclasses or counting records, under fan-ins of several shapes that the
host changes between calls, and now and then other kind and resolution sets."""

import random
from collections import Counter
from decimal import Decimal
from types import MappingProxyType, SimpleNamespace

import pytest

import pyscope
import scope
from conftest import FROZEN, NAMES, PAGE, STYLES, random_page, same

SETS = {"EVIDENCE_RESOLUTIONS": ["import", "local", "unique", "ambiguous"], "_TRUSTED": ["import", "unique", "legacy"],
        "NAME_MATCH_KINDS": ["constant", "field", "function"], "_TYPE_KINDS": ["class", "enum", "method"],
        "_CALLABLE_KINDS": ["function", "method", "class", "constant"]}
SHAPES = [lambda o, i, e: scope.FanIn(o, i, e),
          lambda o, i, e: scope.FanIn(MappingProxyType(o), MappingProxyType(i), e),
          lambda o, i, e: SimpleNamespace(outside=Counter(o), inside=i, entry=e),
          lambda o, i, e: scope.FanIn({Decimal(k): v for k, v in o.items()}, i, [Decimal(k) for k in e])]
KEY_FIELDS = ("id", "kind", "name", "start_line", "end_line")


def every_function(make, fan_in, rng, quiet=False):
    """Each function on facts from `make()`, a new ScopeFacts each time or one for all; with `quiet`, only those that
    must read nothing of the records again."""
    def check(name, *args):
        return same(name, *args, quiet=quiet)

    facts = make()
    check("production_fan_in", make())
    check("_members", make())
    ranked = check("ranked_by_file", make(), fan_in)
    check("file_seeds", make(), fan_in)
    shuffled = {path: rng.sample(records, len(records)) for path, records in ranked.items()}
    strangers = {path: [SimpleNamespace(**{f: getattr(s, f) for f in KEY_FIELDS}) for s in records]
                 for path, records in ranked.items()}
    for total, floor, share in [(1, 1, 0.2), (12, 2, 0.3), (40, 3, 0.14), (200, 0, 1), (rng.randint(-1, 60), 1, 0.5)]:
        for records in (ranked, shuffled) if quiet else (ranked, shuffled, strangers):
            check("select_with_quota", records, fan_in, total, floor, share)
    check("file_users", make())
    check("render_file_cards", make(), fan_in, "## F", rng.sample(PAGE, 2))
    check("render_consumers", make(), fan_in, "# C")
    used = [Decimal(s.id) for s in rng.sample(facts.symbols, len(facts.symbols) // 3)]  # equal to ids, as Python says
    check("_unused_outside", make(), used, fan_in)
    for limit in (0, 1, 5, 10_000):
        check("neighbours", make(), limit)
    check("name_match_counts", make())
    if quiet:
        return
    for ref in facts.inbound:
        same("is_use", ref.resolution, ref.target_kind, facts.import_resolved(ref.target_path))
    for symbol in facts.symbols:
        same("rank_key", symbol, fan_in)
    for records in ranked.values():
        same("_most_used", records, fan_in)
    scored = [(s.name, s.path) for s in rng.choices(facts.symbols, k=20)] if facts.symbols else []
    for limit, per_file in [(10, 2), (3, 5), (0, 1), (rng.randint(1, 20), rng.randint(1, 3))]:
        same("pick_spread", scored, limit, per_file)
    for text in PAGE + NAMES:
        same("_short_path", text)
        same("_cell", text)
        same("_named", rng.sample(NAMES, rng.randint(0, 6)), rng.randint(-3, 6))


@pytest.mark.parametrize("seed", range(48))
def test_every_function_agrees_with_the_plain_implementation(seed, monkeypatch):
    rng = random.Random(seed)
    style = list(STYLES)[seed % 4]
    fields = random_page(rng, [0, 3, 12, 40, 200][seed % 5], style, rng.choice([1, 7, 1 << 40]))
    facts = scope.ScopeFacts(**fields)
    reach = {path: rng.choice([None, [], ["t/a|b"], ["t/1", "t/2", "t/3", "t/4"]]) for path in rng.sample(PAGE, 3)}
    sets = {name: frozenset(rng.sample(members, 2)) for name, members in SETS.items()} if seed % 6 == 5 else {}
    for module in (scope, pyscope):
        monkeypatch.setattr(module, "tests_reaching", lambda facts: (frozenset(), reach))
        for name, value in sets.items():
            monkeypatch.setattr(module, name, value)
    ids = [s.id for s in facts.symbols] + [10**6, 2**64, -(2**64)]  # keys equal to no id
    outside = {i: rng.choice([0, 1, 2, 2, 7]) for i in rng.sample(ids, len(ids) // 3)}
    inside = {i: rng.choice([0, 1, 4]) for i in rng.sample(ids, len(ids) // 2)}
    entry = set(rng.sample(ids, len(ids) // 4))
    if seed % 4 == 0:
        computed = scope.production_fan_in(scope.ScopeFacts(**fields))
        outside, inside, entry = dict(computed.outside), dict(computed.inside), set(computed.entry)
    fan_in = SHAPES[seed // 4 % len(SHAPES)](outside, inside, entry)
    if seed % 8 == 0:  # the module's own FanIn, whose native form the facts keeps: the host changes its dicts below
        fan_in = scope.production_fan_in(facts)
        outside, inside, entry = fan_in.outside, fan_in.inside, set(fan_in.entry)
    every_function(lambda: scope.ScopeFacts(**fields), fan_in, rng)  # each function converts what it reads
    # The host changes its fan-in between calls: the next calls see the change. One facts serves every call now,
    # converted as they go, then (counting records) converted already: no record is read again.
    for counts in (outside, inside):
        counts.update({i: counts.get(i, 0) + 3 for i in rng.sample(ids, len(ids) // 3)})
        counts.pop(next(iter(counts), None), None)
    entry.symmetric_difference_update(rng.sample(ids, len(ids) // 3))
    for quiet in (False, True)[: 1 + (style == "counting")]:
        every_function(lambda: facts, fan_in, rng, quiet)


def keep_fields_every_way(rng, records):
    """The frozen dataclass records, each as a class may keep its fields: slots, a namespace's dict, a dataclass's
    values made into a dict, set again in another order, or joined by a field no function reads."""
    slotted = {frozen: host for host, frozen in FROZEN.items()}
    kept = []
    for record in records:
        way = rng.randrange(6)
        values = {name: getattr(record, name) for name in record.__dataclass_fields__}
        if way == 0:
            record = SimpleNamespace(**values)
        elif way == 1:
            vars(record)  # the values move into a dict of the record's own
        elif way == 2:
            name = rng.choice(list(values))
            object.__delattr__(record, name)
            object.__setattr__(record, name, values[name])
        elif way == 3:
            object.__setattr__(record, "unread", [record])
        elif way == 4:
            record = slotted[type(record)](**values)
        kept.append(record)
    return tuple(kept)


def test_large_tables_whose_records_keep_their_fields_every_way_agree(monkeypatch):
    """Tables large enough that the conversion fetches each record, and where it keeps its fields, ahead of reading
    it (the sanitizer stage checks those reads against every record's bounds)."""
    rng = random.Random(20)
    fields = random_page(rng, 1400, "frozen")
    for table in ("symbols", "inbound", "outbound"):
        fields[table] = keep_fields_every_way(rng, fields[table])
    assert len(fields["inbound"]) >= 4096
    for module in (scope, pyscope):
        monkeypatch.setattr(module, "tests_reaching", lambda facts: (frozenset(), {}))
    fan_in = pyscope.production_fan_in(scope.ScopeFacts(**fields))
    every_function(lambda: scope.ScopeFacts(**fields), fan_in, rng)
