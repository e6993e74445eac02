"""Each file's grounding rows, kept in the index in a form that is read in one go.

A wiki grounds every file of a tree, and turning SQLite's rows into Python
values costs more than anything else it does with them.  So the index also
keeps, per file, its declarations (in line order) and its references
summed per (target, resolution), as one ``marshal`` blob of columns in
``file_rows``, which a reader loads with one call.  They are a copy of what
``declarations`` and ``refs`` hold, never a source of truth:

- triggers drop a file's blob whenever a row of its declarations or of its
  references is inserted, changed or deleted, or the file itself goes, so
  no blob outlives the rows it was made from, whoever writes them;
- `fill` writes the blobs that are missing (the indexer calls it when it
  has built or brought up to date an index);
- readers use blobs only for files that have one, and a blob that does not
  load as this module wrote it counts as missing.
"""

from __future__ import annotations

import json
import marshal
import sqlite3
from collections.abc import Callable, Iterator, Sequence
from itertools import groupby
from operator import itemgetter
from typing import Any

# The layout of a blob, its first item: a blob of another layout is not read.
LAYOUT = 1
# (layout, ids, names, fqns, kinds, start lines, end lines, exported (bool),
#  target ids, resolutions, summed counts)
_ITEMS = 11
# Files whose rows `fill` asks for with one pair of statements.
CHUNK_FILES = 2000

# A blob goes when a row of its file's declarations or references is added,
# changed or deleted, or when the file itself goes.
_DROP = "DELETE FROM file_rows WHERE file_id IN ({})"
_TRIGGERS = [
    (f"{what}_{event}", f"AFTER {event.upper()} ON {table}", _DROP.format(", ".join(f"{row}.{column}" for row in rows)))
    for what, table, column in [("declaration", "declarations", "file_id"), ("reference", "refs", "source_file_id")]
    for event, rows in [("insert", ["NEW"]), ("update", ["OLD", "NEW"]), ("delete", ["OLD"])]
]
_TRIGGERS += [
    ("file_renumbered", "AFTER UPDATE OF id ON files", _DROP.format("OLD.id, NEW.id")),
    ("file_delete", "AFTER DELETE ON files", _DROP.format("OLD.id")),
]

SCHEMA = """
CREATE TABLE IF NOT EXISTS file_rows (
    file_id INTEGER PRIMARY KEY,
    data    BLOB NOT NULL
);
""" + "".join(
    f"CREATE TRIGGER IF NOT EXISTS file_rows_{name} {when} BEGIN {action}; END;\n" for name, when, action in _TRIGGERS
)

_MISSING = """
SELECT f.id
FROM files AS f
WHERE NOT EXISTS (SELECT 1 FROM file_rows AS r WHERE r.file_id = f.id)
ORDER BY f.id
"""

_DECLARATIONS = """
SELECT d.file_id, d.id, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported
FROM declarations AS d
WHERE d.file_id IN (SELECT value FROM json_each(?))
ORDER BY d.file_id, d.start_line, d.id
"""

_REFERENCES = """
SELECT r.source_file_id, r.target_id, r.resolution, SUM(r.count)
FROM refs AS r
WHERE r.source_file_id IN (SELECT value FROM json_each(?))
GROUP BY r.source_file_id, r.target_id, r.resolution
ORDER BY r.source_file_id, r.target_id, r.resolution
"""

_first = itemgetter(0)


def fill(connection: sqlite3.Connection) -> int:
    """Write the blob of every indexed file that has none; returns how many were written.

    The rows are read file by file as SQLite gives them, so that no more than
    one file's rows are held at once (a generated header of the Linux kernel
    declares 300,000 names)."""
    missing = [row[0] for row in connection.execute(_MISSING)]
    for begin in range(0, len(missing), CHUNK_FILES):
        chunk = missing[begin : begin + CHUNK_FILES]
        ids = (json.dumps(chunk),)
        declarations = _by_file(connection.execute(_DECLARATIONS, ids))
        references = _by_file(connection.execute(_REFERENCES, ids))
        connection.executemany(
            "INSERT INTO file_rows (file_id, data) VALUES (?, ?)",
            ((file_id, _blob(declarations(file_id), references(file_id))) for file_id in chunk),
        )
    return len(missing)


def _by_file(rows: Iterator[tuple]) -> Callable[[int], list[tuple]]:
    """The rows of each file in turn, from rows in runs by file id, asked for in increasing id order."""
    runs = groupby(rows, _first)
    run = next(runs, None)

    def rows_of(file_id: int) -> list[tuple]:
        nonlocal run
        if run is None or run[0] != file_id:
            return []
        held = list(run[1])
        run = next(runs, None)
        return held

    return rows_of


def _blob(declarations: Sequence[tuple], references: Sequence[tuple]) -> bytes:
    _, ids, names, fqns, kinds, starts, ends, exported = _columns(declarations, 8)
    _, targets, resolutions, counts = _columns(references, 4)
    # Equal names, kinds and resolutions are made one object, which marshal
    # then writes once: a reader makes one str for each of them.
    shared: dict[str, str] = {}
    names, kinds, resolutions = (
        tuple(map(shared.setdefault, column, column)) for column in (names, kinds, resolutions)
    )
    return marshal.dumps(
        (LAYOUT, ids, names, fqns, kinds, starts, ends, tuple(map(bool, exported)), targets, resolutions, counts)
    )


def _columns(rows: Sequence[tuple], width: int) -> list[tuple]:
    return list(zip(*rows, strict=True)) if rows else [()] * width


def read(db: Any, file_ids: Sequence[int] | None) -> dict[int, tuple] | None:
    """The kept rows of the files with these ids (of every indexed file for None), by id:
    (ids, names, fqns, kinds, start lines, end lines, exported, target ids, resolutions,
    summed counts), the declarations in line order and the references in (target,
    resolution) order.  None when some file has no blob, or the index keeps none."""
    if not db.query("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'file_rows'"):
        return None
    if file_ids is None:
        rows = db.query("SELECT r.file_id, r.data FROM file_rows AS r JOIN files AS f ON f.id = r.file_id")
        if len(rows) != db.query("SELECT COUNT(*) FROM files")[0][0]:
            return None
    else:
        rows = db.query(
            "SELECT file_id, data FROM file_rows WHERE file_id IN (SELECT value FROM json_each(?))",
            (json.dumps(list(file_ids)),),
        )
        if len(rows) != len(set(file_ids)):
            return None
    kept: dict[int, tuple] = {}
    for file_id, data in rows:
        columns = _loaded(data)
        if columns is None:
            return None
        kept[file_id] = columns
    return kept


def _loaded(data: object) -> tuple | None:
    """A blob's columns, or None when it is not one this module wrote."""
    if not isinstance(data, bytes):
        return None
    try:
        loaded = marshal.loads(data)
    except (EOFError, ValueError, TypeError):
        return None
    if type(loaded) is not tuple or len(loaded) != _ITEMS or loaded[0] != LAYOUT:
        return None
    columns = loaded[1:]
    if (
        set(map(type, columns)) != {tuple}
        or len(set(map(len, columns[:7]))) != 1
        or len(set(map(len, columns[7:]))) != 1
    ):
        return None
    return columns
