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
from collections.abc import Iterable
from dataclasses import dataclass

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
    return tuple(ScopeFile(*row) for row in rows)


_SCOPE_SYMBOLS = """
SELECT d.id, f.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported
FROM declarations AS d
JOIN files AS f ON f.id = d.file_id
WHERE d.file_id IN (SELECT value FROM json_each(?))
ORDER BY f.path, d.start_line, d.id
"""


def _symbol(row: tuple) -> ScopeSymbol:
    id_, path, name, fqn, kind, start_line, end_line, exported = row
    return ScopeSymbol(id_, path, name, fqn, kind, start_line, end_line, bool(exported))


def scope_symbols(db: Database, ids: Iterable[int]) -> tuple[ScopeSymbol, ...]:
    """The declarations of the files with these ids, by (path, start line, id)."""
    rows = db.query(_SCOPE_SYMBOLS, (_json_list(ids, "ids"),))
    return tuple(_symbol(row) for row in rows)


_INBOUND = """
SELECT sf.path, d.id, tf.path, d.name, d.kind, r.resolution, SUM(r.count)
FROM refs AS r
JOIN declarations AS d ON d.id = r.target_id
JOIN files AS tf ON tf.id = d.file_id
JOIN files AS sf ON sf.id = r.source_file_id
WHERE d.file_id IN (SELECT value FROM json_each(?))
GROUP BY sf.path, d.id, tf.path, d.name, d.kind, r.resolution
ORDER BY sf.path, d.id, r.resolution
"""


def inbound_references(db: Database, ids: Iterable[int]) -> tuple[InboundReference, ...]:
    """References from any indexed file to declarations of the files with these ids.

    One record per (source file, target declaration, resolution), ``refs``
    summing the counts of its rows; ordered by source path, target id and
    resolution.
    """
    rows = db.query(_INBOUND, (_json_list(ids, "ids"),))
    return tuple(InboundReference(*row) for row in rows)


_OUTBOUND = """
SELECT sf.path,
       d.id, tf.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported,
       r.resolution, SUM(r.count)
FROM refs AS r
JOIN files AS sf ON sf.id = r.source_file_id
JOIN declarations AS d ON d.id = r.target_id
JOIN files AS tf ON tf.id = d.file_id
WHERE r.source_file_id IN (SELECT value FROM json_each(?))
GROUP BY sf.path, d.id, tf.path, d.name, d.fqn, d.kind, d.start_line, d.end_line,
         d.exported, r.resolution
ORDER BY sf.path, d.id, r.resolution
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
        result.append(OutboundReference(row[0], target, row[9], row[10]))
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
