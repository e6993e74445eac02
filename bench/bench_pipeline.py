"""The whole grounding pipeline of one page, the module against the plain
Python implementation (pyscope.py), side by side in one run, for three styles
of the host's records: SimpleNamespace, frozen dataclass, and frozen
dataclass with slots (the host's own records).

Large page (default): 300 files, about 20,500 declarations, 200,000 inbound
and 30,000 outbound references, about 250,000 records.
  (a) fresh facts: a new ScopeFacts from the same records, then every
      pipeline function once, as a host does per page;
  (b) every function once more on the converted facts, with the same FanIn;
  (c) the conversion floor: scope_floor (bench/floor.cpp) reads the same
      attributes of the same records once each and interns the strings;
  (d) bytes per record that the facts keep after the whole pipeline, as RSS
      growth of a fresh process (one per style; the same pipeline of
      pyscope in its own process is the control).
The host's tests_reaching (Python, walking every inbound reference) costs
the same on both sides and is not the module's work: in (a), (b) and (d)
both modules call one prepared function that returns its precomputed
result; its real time is reported apart.  Every call builds its result
anew.  Figures are the best of --repeat runs, interleaved.

Small pages (--small OLD_DIR): a page of 5 files and about 100 references,
per-call time of every function, this module against the one whose build
folder (holding scope*.so) is OLD_DIR, each in its own processes.

Against an older build (--against OLD_DIR): (a) and (b) of the large page
for each record style, this module and the one in OLD_DIR, each in its own
processes, alternating.

    PYTHONPATH=build/rel/python:host:bench python3 bench/bench_pipeline.py
    PYTHONPATH=build/rel/python:host:bench python3 bench/bench_pipeline.py --small /work/wt-old/build/rel/python
    PYTHONPATH=build/rel/python:host:bench python3 bench/bench_pipeline.py --against /work/wt-old/build/rel/python
"""

from __future__ import annotations

import argparse
import ctypes
import dataclasses
import gc
import json
import os
import random
import subprocess
import sys
import time
from pathlib import Path
from types import SimpleNamespace

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "host")]

import pages  # noqa: E402
import pyscope  # noqa: E402
import scope  # noqa: E402
from tarnwick.storage import grounding_queries  # noqa: E402
from tarnwick.workers.wiki import scope_tests  # noqa: E402

SEED = 6
LARGE = dict(n_files=300, decls_per_file=74, n_inbound=200_000, n_outbound=30_000, n_outside=3_000)
SMALL = dict(n_files=5, decls_per_file=12, n_inbound=70, n_outbound=30, n_outside=10)
RECORD_TYPES = ("ScopeFile", "ScopeSymbol", "InboundReference", "OutboundReference")


def _dataclasses(slots):
    def make(name):
        fields = [(f.name, f.type) for f in dataclasses.fields(getattr(grounding_queries, name))]
        return dataclasses.make_dataclass(name, fields, frozen=True, slots=slots)

    return SimpleNamespace(**{name: make(name) for name in RECORD_TYPES})


STYLES = {
    "SimpleNamespace": SimpleNamespace(**dict.fromkeys(RECORD_TYPES, SimpleNamespace)),
    "frozen dataclass": _dataclasses(slots=False),
    "frozen dataclass, slots": grounding_queries,  # the host's own
}

# What the module keeps of each record (src/core/schema.hpp: its viewed fields), for the floor:
# (table, attributes, attribute holding a nested record, its attributes).
FLOOR_TABLES = (
    ("files", ("path", "language"), None, ()),
    ("symbols", ("id", "path", "name", "kind", "start_line", "end_line", "is_export"), None, ()),
    (
        "inbound",
        ("source_path", "target_id", "target_path", "target_name", "target_kind", "resolution", "refs"),
        None,
        (),
    ),
    ("outbound", ("source_path", "resolution", "refs"), "target", ("id", "path", "kind", "fqn")),
)


@dataclasses.dataclass
class Page:
    fields: dict  # the nine facts fields
    used: set  # for _unused_outside: the ids the fan-in counts from outside
    scored: list  # for pick_spread: a best-first (name, path) list
    reaching: tuple  # the host's tests_reaching result for this page

    @property
    def records(self):
        return sum(len(self.fields[table]) for table in ("files", "symbols", "inbound", "outbound"))

    def describe(self):
        f = self.fields
        return (
            f"{len(f['files'])} files, {len(f['symbols']):,} declarations, {len(f['inbound']):,} inbound and "
            f"{len(f['outbound']):,} outbound references: {self.records:,} records"
        )


def make_page(style, size):
    fields = pages.make_page(random.Random(SEED), records=STYLES[style], **size)
    plain = pages.SimpleFacts(**fields)
    used = set(pyscope.production_fan_in(plain).outside)
    scored = pages.make_scored(random.Random(SEED), fields["symbols"], len(fields["symbols"]))
    return Page(fields, used, scored, scope_tests.tests_reaching(plain))


def prepare_reaching(page):
    """Both modules' tests_reaching answers from the page's precomputed result."""
    scope.tests_reaching = pyscope.tests_reaching = lambda facts: page.reaching


# The pipeline after production_fan_in, in the host's order: (name, call of
# (module, page, facts, fan_in, earlier results)).
STEPS = (
    ("file_users", lambda m, p, facts, fan_in, r: m.file_users(facts)),
    ("render_file_cards", lambda m, p, facts, fan_in, r: m.render_file_cards(facts, fan_in, "## Files")),
    ("ranked_by_file", lambda m, p, facts, fan_in, r: m.ranked_by_file(facts, fan_in)),
    ("select_with_quota", lambda m, p, facts, fan_in, r: m.select_with_quota(r["ranked_by_file"], fan_in, 60, 2, 0.25)),
    ("file_seeds", lambda m, p, facts, fan_in, r: m.file_seeds(facts, fan_in)),
    ("render_consumers", lambda m, p, facts, fan_in, r: m.render_consumers(facts, fan_in, "## Consumers")),
    ("neighbours", lambda m, p, facts, fan_in, r: m.neighbours(facts, 15)),
    ("name_match_counts", lambda m, p, facts, fan_in, r: m.name_match_counts(facts)),
    ("_unused_outside", lambda m, p, facts, fan_in, r: m._unused_outside(facts, p.used, fan_in)),
    ("_members", lambda m, p, facts, fan_in, r: m._members(facts)),
    ("pick_spread", lambda m, p, facts, fan_in, r: m.pick_spread(p.scored, 60, 2)),
)
FUNCTIONS = ("production_fan_in",) + tuple(name for name, _ in STEPS)

# Small pages only: the helpers a host may call per declaration or per cell.
EXTRAS = (
    ("rank_key", lambda m, p, facts, fan_in, r: m.rank_key(facts.symbols[0], fan_in)),
    ("is_use", lambda m, p, facts, fan_in, r: m.is_use("unique", "function", False)),
    ("_most_used", lambda m, p, facts, fan_in, r: m._most_used(r["ranked_by_file"][facts.symbols[0].path], fan_in)),
    ("_short_path", lambda m, p, facts, fan_in, r: m._short_path("src/core/store.py")),
    ("_cell", lambda m, p, facts, fan_in, r: m._cell("Wire format: `a|b`.\nMore.")),
    ("_named", lambda m, p, facts, fan_in, r: m._named(["a", "b", "c", "d"])),
    ("FanIn.api", lambda m, p, facts, fan_in, r: fan_in.api(facts.symbols[0].id)),
)


def pipeline(m, page, facts, fan_in=None):
    """Every pipeline function once; the later ones take `fan_in`, by default
    the one this run's production_fan_in returns.  Returns every result and
    the facts, so that the caller decides when they are dropped."""
    results = {"facts": facts, "production_fan_in": m.production_fan_in(facts)}
    if fan_in is None:
        fan_in = results["production_fan_in"]
    for name, step in STEPS:
        results[name] = step(m, page, facts, fan_in, results)
    return results


def timed(function):
    """Seconds of one call; what it returns is dropped after the clock stops."""
    gc.collect()
    start = time.perf_counter()
    kept = function()
    seconds = time.perf_counter() - start
    del kept
    return seconds


def best_interleaved(measures, repeat):
    """{key: best seconds} over `repeat` rounds, each running every measure once."""
    best = dict.fromkeys(measures, float("inf"))
    for _ in range(repeat):
        for key, function in measures.items():
            best[key] = min(best[key], timed(function))
    return best


def per_call(function, repeat, budget=0.02):
    """Best seconds per call over `repeat` loops of about `budget` seconds."""

    def loop(number):
        return lambda: [function() for _ in range(number)]

    number = 1
    while timed(loop(number)) < budget:
        number *= 2
    return min(timed(loop(number)) for _ in range(repeat)) / number


def check_equal(page):
    """Every function's result is equal between the module and pyscope, and
    the module's second call on converted facts builds its results anew."""
    native = pipeline(scope, page, scope.ScopeFacts(**page.fields))
    plain = pipeline(pyscope, page, scope.ScopeFacts(**page.fields))
    for name in FUNCTIONS:
        assert native[name] == plain[name], f"{name}: the module and pyscope differ"
    again = pipeline(scope, page, native["facts"], native["production_fan_in"])
    for name in FUNCTIONS:
        assert again[name] == native[name] and again[name] is not native[name], f"{name}: not built anew"
    return native["facts"], native["production_fan_in"], plain["production_fan_in"]


# ---------------------------------------------------------------------------
# Large page


def floor_tables(fields):
    return [(fields[table], names, via, via_names) for table, names, via, via_names in FLOOR_TABLES]


def measure_style(style, repeat):
    import scope_floor  # here: the small pages' workers run against builds without it

    page = make_page(style, LARGE)
    reaching = min(timed(lambda: scope_tests.tests_reaching(scope.ScopeFacts(**page.fields))) for _ in range(3))
    prepare_reaching(page)
    converted, native_fan_in, plain_fan_in = check_equal(page)
    tables = floor_tables(page.fields)
    sides = {"module": (scope, native_fan_in), "python": (pyscope, plain_fan_in)}
    measures = {}
    for side, (m, fan_in) in sides.items():
        measures["a", side] = lambda m=m: pipeline(m, page, scope.ScopeFacts(**page.fields))
        measures["b", side] = lambda m=m, fan_in=fan_in: pipeline(m, page, converted, fan_in)
    measures["c"] = lambda: scope_floor.convert(tables)
    best = best_interleaved(measures, repeat)
    # Each function on the converted facts, for where the time goes.
    earlier = {side: pipeline(m, page, converted, fan_in) for side, (m, fan_in) in sides.items()}
    functions = {}
    for side, (m, fan_in) in sides.items():
        functions["production_fan_in", side] = lambda m=m: m.production_fan_in(converted)
        for name, step in STEPS:
            functions[name, side] = lambda m=m, step=step, fan_in=fan_in, r=earlier[side]: step(
                m, page, converted, fan_in, r
            )
    best_functions = best_interleaved(functions, repeat)
    memory = {side: rss_in_subprocess(style, side) for side in sides}
    return page, best, best_functions, memory, reaching


def rss_in_subprocess(style, side):
    out = subprocess.run(
        [sys.executable, __file__, "--rss", style, side], check=True, capture_output=True, text=True
    ).stdout
    return json.loads(out.splitlines()[-1])["bytes_per_record"]


def rss_worker(style, side):
    """(d) in this fresh process: RSS growth after converting the page
    through the whole pipeline and dropping the results, per record."""
    libc = ctypes.CDLL("libc.so.6")
    page = make_page(style, LARGE)
    prepare_reaching(page)
    m = scope if side == "module" else pyscope

    def rss():
        gc.collect()
        libc.malloc_trim(0)  # what the allocator merely keeps free is no part of the view
        with open("/proc/self/statm") as statm:
            return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    before = rss()
    facts = scope.ScopeFacts(**page.fields)
    results = pipeline(m, page, facts)
    del results
    after = rss()  # `facts`, alive to here, holds the native view
    print(json.dumps({"bytes_per_record": (after - before) / page.records}))


def ms(seconds):
    return f"{seconds * 1e3:.1f} ms"


def large(repeat):
    print("tests_reaching of the pipelines: one prepared function returning a precomputed result")
    summary = []
    for style in STYLES:
        page, best, functions, memory, reaching = measure_style(style, repeat)
        a, b = (best["a", "module"], best["a", "python"]), (best["b", "module"], best["b", "python"])
        print(f"\n{style} records; page: {page.describe()}; best of {repeat}")
        print(f"  {'':<38}{'module':>11}{'python':>11}{'speed-up':>10}")
        print(f"  {'(a) fresh facts, whole pipeline':<38}{ms(a[0]):>11}{ms(a[1]):>11}{a[1] / a[0]:>9.1f}x")
        print(f"  {'(b) converted facts, whole pipeline':<38}{ms(b[0]):>11}{ms(b[1]):>11}{b[1] / b[0]:>9.1f}x")
        print(f"  {'(c) conversion floor':<38}{ms(best['c']):>11}{'':>11}  (a)/(c) {a[0] / best['c']:.2f}x")
        print(
            f"  {'(d) bytes per record':<38}{memory['module']:>9.1f} B{memory['python']:>9.1f} B  (python: the control)"
        )
        print(f"  host's real tests_reaching on this page: {ms(reaching)} (not in a, b)")
        print("  (b) by function:")
        for name in FUNCTIONS:
            native, plain = functions[name, "module"], functions[name, "python"]
            print(f"    {name:<36}{ms(native):>11}{ms(plain):>11}{plain / native:>9.1f}x")
        summary.append((style, a, b, best["c"], memory["module"], reaching))
    print(
        "\n| records | (a) module | (a) Python | (a) speed-up | (b) module | (b) Python | (b) speed-up "
        "| (c) floor | (a)/(c) | (d) bytes/record | host tests_reaching |"
    )
    print("|---|---|---|---|---|---|---|---|---|---|---|")
    for style, a, b, c, d, reaching in summary:
        print(
            f"| {style} | {ms(a[0])} | {ms(a[1])} | {a[1] / a[0]:.1f}x | {ms(b[0])} | {ms(b[1])} | "
            f"{b[1] / b[0]:.1f}x | {ms(c)} | {a[0] / c:.2f}x | {d:.0f} | {ms(reaching)} |"
        )


# ---------------------------------------------------------------------------
# Small pages


def small_worker(repeat):
    """Per-call seconds of every function on the small page (host records,
    converted facts), and of the fresh pipeline per style, as JSON."""
    timings = {}
    for style in STYLES:
        page = make_page(style, SMALL)
        prepare_reaching(page)
        timings[f"whole pipeline, fresh facts, {style}"] = per_call(
            lambda page=page: pipeline(scope, page, scope.ScopeFacts(**page.fields)), repeat
        )
    facts = scope.ScopeFacts(**page.fields)
    earlier = pipeline(scope, page, facts)
    fan_in = earlier["production_fan_in"]
    timings["production_fan_in"] = per_call(lambda: scope.production_fan_in(facts), repeat)
    for name, step in STEPS + EXTRAS:
        timings[name] = per_call(lambda step=step: step(scope, page, facts, fan_in, earlier), repeat)
    print(json.dumps({"module": scope.__file__, "page": page.describe(), "per_call": timings}))


def large_worker(repeat):
    """(a) and (b) of the module alone on the large page, per style, as JSON."""
    timings = {}
    for style in STYLES:
        page = make_page(style, LARGE)
        prepare_reaching(page)
        converted = scope.ScopeFacts(**page.fields)
        fan_in = pipeline(scope, page, converted)["production_fan_in"]
        best = best_interleaved(
            {
                f"(a) fresh facts, {style}": lambda page=page: pipeline(scope, page, scope.ScopeFacts(**page.fields)),
                f"(b) converted facts, {style}": lambda page=page, c=converted, f=fan_in: pipeline(scope, page, c, f),
            },
            repeat,
        )
        timings.update(best)
    print(json.dumps({"module": scope.__file__, "page": page.describe(), "per_call": timings}))


def against(worker, old_dir, repeat, rounds):
    """{(name, "new" | "old"): best seconds} of `worker` run in processes of
    this module's and of OLD_DIR's build, alternating; and the page."""
    builds = {"new": str(Path(scope.__file__).parent), "old": str(Path(old_dir).resolve())}
    best, page = {}, None
    for _ in range(rounds):  # alternating, so that both see the same moments of the machine
        for label, build in builds.items():
            env = dict(os.environ, PYTHONPATH=os.pathsep.join([build, str(HERE.parent / "host"), str(HERE)]))
            out = subprocess.run(
                [sys.executable, __file__, worker, "--repeat", str(repeat)],
                env=env,
                check=True,
                capture_output=True,
                text=True,
            ).stdout
            result = json.loads(out.splitlines()[-1])
            assert Path(result["module"]).parent == Path(build), f"{label}: loaded {result['module']}"
            page = result["page"]
            for name, seconds in result["per_call"].items():
                best[name, label] = min(best.get((name, label), float("inf")), seconds)
    return best, page


def print_against(best):
    print("| function | new | old | new/old |\n|---|---|---|---|")
    for name in dict.fromkeys(name for name, _ in best):
        new, old = best[name, "new"], best[name, "old"]
        unit, scale = ("ms", 1e3) if old > 1e-2 else ("us", 1e6)
        print(f"| {name} | {new * scale:.2f} {unit} | {old * scale:.2f} {unit} | {new / old:.2f} |")


def large_against(old_dir, repeat, rounds):
    best, page = against("--large-worker", old_dir, repeat, rounds)
    print(f"large page: {page}; best of {rounds} processes x {repeat} runs each")
    print("tests_reaching: one prepared function returning a precomputed result\n")
    print_against(best)


def small(old_dir, repeat, rounds):
    best, page = against("--small-worker", old_dir, repeat, rounds)
    print(f"small page: {page}; per call, best of {rounds} processes x {repeat} loops each")
    print("tests_reaching: one prepared function returning a precomputed result\n")
    print_against(best)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--repeat", type=int, default=5, help="runs per measure; the best counts (default 5)")
    parser.add_argument("--small", metavar="OLD_DIR", help="the small-pages check against the module in OLD_DIR")
    parser.add_argument("--against", metavar="OLD_DIR", help="the large page against the module in OLD_DIR")
    parser.add_argument("--rounds", type=int, default=3, help="--small, --against: processes per module (default 3)")
    parser.add_argument("--rss", nargs=2, metavar=("STYLE", "SIDE"), help=argparse.SUPPRESS)
    parser.add_argument("--small-worker", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--large-worker", action="store_true", help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.rss:
        rss_worker(*args.rss)
    elif args.small_worker:
        small_worker(args.repeat)
    elif args.large_worker:
        large_worker(args.repeat)
    elif args.against:
        large_against(args.against, args.repeat, args.rounds)
    elif args.small:
        small(args.small, args.repeat, args.rounds)
    else:
        large(args.repeat)


if __name__ == "__main__":
    main()
