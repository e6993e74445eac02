"""Queries that gather the grounding material of a wiki page from the index.

Each query is one set-based statement over the whole list it is given, so the
number of round trips does not grow with the number of files.  The list is
bound as a single JSON array and expanded with ``json_each``: that keeps the
statement text fixed and works for lists longer than SQLite's limit on bound
variables.  Paths are compared as stored, byte for byte; orders by path are
SQLite's binary order on UTF-8, which is code point order.
"""

from __future__ import annotations

import json
from collections.abc import Callable, Iterable
from dataclasses import dataclass, fields
from typing import Any

from tarnwick.storage.database import Database

# Kinds of attributes and constants: their short names are common enough that
# a reference matching one by name alone says little about who uses it.
NAME_MATCH_KINDS: frozenset[str] = frozenset({"attribute", "field", "property", "constant"})


@dataclass(frozen=True, slots=True)
class ScopeFile:
    """One indexed file."""

    id: int
    path: str
    language: str | None


@dataclass(frozen=True, slots=True)
class ScopeSymbol:
    """One declaration, with the path of the file that declares it."""

    id: int
    path: str
    name: str
    fqn: str
    kind: str
    start_line: int
    end_line: int
    is_export: bool


@dataclass(frozen=True, slots=True)
class InboundReference:
    """References from one file to one declaration of the queried files, by resolution."""

    source_path: str
    target_id: int
    target_path: str
    target_name: str
    target_kind: str
    resolution: str
    refs: int


@dataclass(frozen=True, slots=True)
class OutboundReference:
    """References from one of the queried files to one declaration, by resolution."""

    source_path: str
    target: ScopeSymbol
    resolution: str
    refs: int


def _maker(cls: type) -> Callable[..., Any]:
    """A function that makes a ``cls`` from its fields in order, equal to
    ``cls(*fields)``.  A frozen dataclass's ``__init__`` sets each field
    through ``object.__setattr__``; this one calls the slots' own setters,
    which makes the many records of a page in about half the time."""
    names = [f.name for f in fields(cls)]
    lines = [f"def make({', '.join(names)}):", "    record = new(cls)"]
    lines += [f"    set_{name}(record, {name})" for name in names]
    lines.append("    return record")
    namespace: dict[str, Any] = {"new": object.__new__, "cls": cls}
    namespace.update((f"set_{name}", getattr(cls, name).__set__) for name in names)
    exec("\n".join(lines), namespace)
    return namespace["make"]


_make_file = _maker(ScopeFile)
_make_symbol = _maker(ScopeSymbol)
_make_inbound = _maker(InboundReference)
_make_outbound = _maker(OutboundReference)


def _json_list(values: Iterable[object], what: str) -> str:
    # A lone string is iterable too; passing one where a list is meant would
    # silently query its characters.
    if isinstance(values, (str, bytes)):
        raise TypeError(f"{what} must be a list, not a single {type(values).__name__}")
    return json.dumps(list(values))


_SCOPE_FILES = """
SELECT f.id, f.path, f.language
FROM files AS f
WHERE f.path IN (SELECT value FROM json_each(?))
ORDER BY f.path
"""


def scope_files(db: Database, paths: Iterable[str]) -> tuple[ScopeFile, ...]:
    """The indexed files among ``paths``, ordered by path; unknown paths are left out."""
    rows = db.query(_SCOPE_FILES, (_json_list(paths, "paths"),))
    return tuple(_make_file(*row) for row in rows)


_SCOPE_SYMBOLS = """
SELECT d.id, f.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported
FROM declarations AS d
JOIN files AS f ON f.id = d.file_id
WHERE d.file_id IN (SELECT value FROM json_each(?))
ORDER BY f.path, d.start_line, d.id
"""


def _symbol(row: tuple) -> ScopeSymbol:
    id_, path, name, fqn, kind, start_line, end_line, exported = row
    return _make_symbol(id_, path, name, fqn, kind, start_line, end_line, bool(exported))


def scope_symbols(db: Database, ids: Iterable[int]) -> tuple[ScopeSymbol, ...]:
    """The declarations of the files with these ids, by (path, start line, id)."""
    rows = db.query(_SCOPE_SYMBOLS, (_json_list(ids, "ids"),))
    make = _make_symbol
    return tuple(make(i, p, n, q, k, s, e, bool(x)) for i, p, n, q, k, s, e, x in rows)


# Grouped by ids first, so that SQLite sorts integers rather than strings; the
# paths and names are joined to the groups afterwards.
_INBOUND = """
WITH grouped AS (
    SELECT r.source_file_id AS source_id, r.target_id AS target_id, r.resolution AS resolution,
           SUM(r.count) AS refs
    FROM declarations AS d
    JOIN refs AS r ON r.target_id = d.id
    WHERE d.file_id IN (SELECT value FROM json_each(?))
    GROUP BY r.source_file_id, r.target_id, r.resolution
)
SELECT sf.path, d.id, tf.path, d.name, d.kind, g.resolution, g.refs
FROM grouped AS g
JOIN files AS sf ON sf.id = g.source_id
JOIN declarations AS d ON d.id = g.target_id
JOIN files AS tf ON tf.id = d.file_id
ORDER BY sf.path, d.id, g.resolution
"""


def inbound_references(db: Database, ids: Iterable[int]) -> tuple[InboundReference, ...]:
    """References from any indexed file to declarations of the files with these ids.

    One record per (source file, target declaration, resolution), ``refs``
    summing the counts of its rows; ordered by source path, target id and
    resolution.
    """
    rows = db.query(_INBOUND, (_json_list(ids, "ids"),))
    return tuple(_make_inbound(*row) for row in rows)


_OUTBOUND = """
WITH grouped AS (
    SELECT r.source_file_id AS source_id, r.target_id AS target_id, r.resolution AS resolution,
           SUM(r.count) AS refs
    FROM refs AS r
    WHERE r.source_file_id IN (SELECT value FROM json_each(?))
    GROUP BY r.source_file_id, r.target_id, r.resolution
)
SELECT sf.path,
       d.id, tf.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported,
       g.resolution, g.refs
FROM grouped AS g
JOIN files AS sf ON sf.id = g.source_id
JOIN declarations AS d ON d.id = g.target_id
JOIN files AS tf ON tf.id = d.file_id
ORDER BY sf.path, d.id, g.resolution
"""


def outbound_references(db: Database, ids: Iterable[int]) -> tuple[OutboundReference, ...]:
    """References from the files with these ids to any declaration.

    Grouped and ordered like ``inbound_references``.  Records that reach the
    same declaration share one ``ScopeSymbol``.
    """
    rows = db.query(_OUTBOUND, (_json_list(ids, "ids"),))
    targets: dict[int, ScopeSymbol] = {}
    result = []
    for row in rows:
        target = targets.get(row[1])
        if target is None:
            target = targets[row[1]] = _symbol(row[1:9])
        result.append(_make_outbound(row[0], target, row[9], row[10]))
    return tuple(result)


_RESOLVED_LANGUAGES = """
SELECT language
FROM resolved_languages
WHERE language IN (SELECT value FROM json_each(?))
"""


def import_resolved_languages(db: Database, languages: Iterable[str]) -> frozenset[str]:
    """Those of ``languages`` whose imports the index resolves."""
    rows = db.query(_RESOLVED_LANGUAGES, (_json_list(languages, "languages"),))
    return frozenset(row[0] for row in rows)
