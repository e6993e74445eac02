"""Shared record builders for the module's tests."""

import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
for extra in (ROOT / "host", ROOT / "bench"):
    if str(extra) not in sys.path:
        sys.path.insert(0, str(extra))

import scope  # noqa: E402
from tarnwick.storage.grounding_queries import (  # noqa: E402
    InboundReference,
    OutboundReference,
    ScopeFile,
    ScopeSymbol,
)


def sym(id, path, name, kind="function", start=1, end=1, export=True, fqn=None):
    return ScopeSymbol(id, path, name, f"{path}:{name}" if fqn is None else fqn, kind, start, end, export)


def inref(source, target, resolution="import", refs=1):
    """An inbound reference from `source` to the declaration `target`."""
    return InboundReference(source, target.id, target.path, target.name, target.kind, resolution, refs)


def outref(source, target, resolution="import", refs=1):
    return OutboundReference(source, target, resolution, refs)


def make_facts(files=(), symbols=(), inbound=(), outbound=(), resolved=None, tests=(), line_counts=None,
               summaries=None, test_imports=None, languages=None):
    """Facts of a page whose files are `files` (paths). All files are
    import-resolved unless `resolved` names the ones that are."""
    languages = languages or {}
    records = tuple(ScopeFile(i + 1, path, languages.get(path, "python")) for i, path in enumerate(files))
    kwargs = dict(
        files=records,
        symbols=tuple(symbols),
        inbound=tuple(inbound),
        outbound=tuple(outbound),
        import_resolved_paths=frozenset(files if resolved is None else resolved),
        test_sources=frozenset(tests),
        line_counts=dict(line_counts or {}),
        summaries=dict(summaries or {}),
    )
    if test_imports is not None:
        kwargs["test_imports"] = test_imports
    return scope.ScopeFacts(**kwargs)


class Counting:
    """A record that counts every attribute read, to prove the native view is reused."""

    reads = 0

    def __init__(self, **fields):
        object.__setattr__(self, "_fields", fields)

    def __getattr__(self, name):
        fields = object.__getattribute__(self, "_fields")
        if name not in fields:
            raise AttributeError(name)
        Counting.reads += 1
        return fields[name]


@pytest.fixture
def counting():
    Counting.reads = 0
    return Counting
