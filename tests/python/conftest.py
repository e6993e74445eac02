"""Record builders, random pages, and the check of every function against the plain implementation."""

import os
import sys
import time
from dataclasses import fields, make_dataclass
from pathlib import Path
from types import SimpleNamespace

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(extra) for extra in (ROOT / "host", ROOT / "bench") if str(extra) not in sys.path]
os.environ.setdefault("HYPOTHESIS_STORAGE_DIRECTORY", str(ROOT / "build" / "hypothesis"))  # not in the checkout's root

import pyscope  # noqa: E402
import scope  # noqa: E402
from tarnwick.storage.grounding_queries import InboundReference, OutboundReference, ScopeFile, ScopeSymbol  # noqa: E402


def sym(id, path, name, kind="function", start=1, end=1, export=True, fqn=None):
    return ScopeSymbol(id, path, name, f"{path}:{name}" if fqn is None else fqn, kind, start, end, export)


def inref(source, target, resolution="import", refs=1):
    """An inbound reference from `source` to the declaration `target`."""
    return InboundReference(source, target.id, target.path, target.name, target.kind, resolution, refs)


def outref(source, target, resolution="import", refs=1):
    return OutboundReference(source, target, resolution, refs)


def make_facts(files=(), symbols=(), inbound=(), outbound=(), resolved=None, tests=(), line_counts=None,
               summaries=None, languages=None):
    """Facts of a page whose files are `files` (paths), all import-resolved unless `resolved` names some."""
    records = tuple(ScopeFile(i + 1, path, (languages or {}).get(path, "python")) for i, path in enumerate(files))
    return scope.ScopeFacts(records, tuple(symbols), tuple(inbound), tuple(outbound),
                            frozenset(files if resolved is None else resolved), frozenset(tests),
                            dict(line_counts or {}), dict(summaries or {}))


class Counting:
    """A record that counts every attribute read, to show that the native view is reused."""

    reads = 0

    def __init__(self, **fields):
        object.__setattr__(self, "_fields", fields)

    def __getattr__(self, name):
        fields = object.__getattribute__(self, "_fields")
        if name not in fields:
            raise AttributeError(name)
        Counting.reads += 1
        return fields[name]


class Sleepy(Counting):
    """A record whose every attribute read lets other threads run."""

    def __getattr__(self, name):
        time.sleep(0)  # releases the interpreter lock
        return super().__getattr__(name)


# Random pages: few distinct values, so that ties, repeats and collisions are common.
PAGE = ["lib/a.py", "lib/b.go", "src/lib/a.py", "a|b/c.py", "tests/test_x.py", "d\ud800/é.py", "x", ""]
OUTSIDE = ["app/m.py", "web/m.go", "svc/app/m.py", "tests/t.py", "lib/test_y.py", "e\U0001f600.go"]
NAMES = ["run", "_run", "Store", "MAX", "x|y", "\udc80", "a\x00b", "a", "new\nline"]
KINDS = ["function", "method", "constructor", "class", "struct", "enum", "constant", "attribute", "field", "var"]
RESOLUTIONS = ["import", "local", "unique", "ambiguous", "legacy", "Import"]
FROZEN = {cls: make_dataclass(cls.__name__, [f.name for f in fields(cls)], frozen=True)
          for cls in (ScopeFile, ScopeSymbol, InboundReference, OutboundReference)}
STYLES = {"host": lambda cls, **f: cls(**f), "namespace": lambda cls, **f: SimpleNamespace(**f),
          "frozen": lambda cls, **f: FROZEN[cls](**f), "counting": lambda cls, **f: Counting(**f),
          "sleepy": lambda cls, **f: Sleepy(**f)}


def random_page(rng, size, style="host", step=1):
    """The nine fields of a page of `size` declarations (ids `step` apart) as records of `style`."""
    new = STYLES[style]
    paths = rng.sample(PAGE, rng.randint(0, 5))
    sources = paths + OUTSIDE + [f"m/{i}.py" for i in range(size // 8)]  # more than twelve consumers, now and then

    def declaration(path, id):
        start = rng.randint(0, 40)
        return new(ScopeSymbol, id=id * step, path=path, name=rng.choice(NAMES),
                   fqn=rng.choice(["p.f", "p.g", "q"]), kind=rng.choice(KINDS), start_line=start,
                   end_line=start + rng.choice([-1, 0, 1, 3, 10, 39, 40, 41, 90]),
                   is_export=rng.choice([True, True, True, False, 0, ""]))

    symbols = [declaration(rng.choice(paths + ["lib/z.py"]), id) for id in rng.sample(range(-2, 2 * size), size)]
    symbols += rng.sample(symbols, min(size, 2))  # the same declaration twice
    targets = symbols + [declaration(rng.choice(OUTSIDE), 5000 + id) for id in range(size // 2 + 1)]
    inbound = [new(InboundReference, source_path=rng.choice(sources), target_id=t.id, target_path=t.path,
                   target_name=t.name, target_kind=t.kind, resolution=rng.choice(RESOLUTIONS),
                   refs=rng.choice([0, 1, 1, 2, 5, 40])) for t in rng.choices(symbols, k=3 * size)]
    outbound = [new(OutboundReference, source_path=rng.choice(paths or OUTSIDE), target=t, refs=rng.choice([0, 1, 3]),
                    resolution=rng.choice(RESOLUTIONS)) for t in rng.choices(targets, k=size)]
    return dict(files=tuple(new(ScopeFile, id=i, path=p, language=rng.choice(["python", "go", "", None]))
                            for i, p in enumerate(paths)),
                symbols=tuple(symbols), inbound=tuple(inbound), outbound=tuple(outbound),
                import_resolved_paths=frozenset(rng.sample(paths, len(paths) // 2)),
                test_sources=frozenset(p for p in sources if "test" in p),
                line_counts={p: rng.choice([0, 7, 90]) for p in rng.sample(paths, len(paths) // 2)} | {None: 1},
                summaries={p: rng.choice(["", "Does x.", "a|b\r\nc", "\ud800"]) for p in paths[1:]} | {3: ""})


def norm(value):
    """A value as the comparison sees it: containers by type and items in order, records by identity."""
    if isinstance(value, (dict, list, tuple)):
        return type(value).__name__, [norm(item) for item in (value.items() if isinstance(value, dict) else value)]
    if isinstance(value, (str, int, frozenset, set)) or value is None:
        return type(value).__name__, value
    return id(value)


def same(name, *args, quiet=False):
    """The module's result of `name`, after checking it against the plain implementation's; with `quiet`, the
    module must read no attribute of a Counting record."""
    expected = norm(getattr(pyscope, name)(*args))
    Counting.reads = 0
    result = getattr(scope, name)(*args)
    assert not (quiet and Counting.reads), f"{name} read the records again"
    assert norm(result) == expected, name
    return result
