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
from collections import Counter, deque
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass, fields
from itertools import chain, compress, repeat
from operator import attrgetter, itemgetter
from typing import Any

from tarnwick.storage import file_rows
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


def _records(cls: type, count: int, *columns: Iterable[Any]) -> list[Any]:
    """``count`` records of ``cls`` from the columns of its fields in order, equal to
    ``cls(*row)`` for each row.  The records are made bare, then each column is set through
    its slot's setter: a pass in C per field rather than Python code per record, which makes
    the many records of a page in less than half the time a frozen dataclass's ``__init__``
    takes (it sets each field through ``object.__setattr__``)."""
    records = list(map(object.__new__, repeat(cls, count)))
    for f, column in zip(fields(cls), columns, strict=True):
        deque(map(getattr(cls, f.name).__set__, records, column), maxlen=0)
    return records


def _columns(rows: list[tuple], width: int) -> list[tuple]:
    """The rows' columns, ``width`` of them even when there are no rows."""
    return list(zip(*rows, strict=True)) if rows else [()] * width


def _files(rows: list[tuple]) -> list[ScopeFile]:
    """Files from (id, path, language) rows."""
    return _records(ScopeFile, len(rows), *_columns(rows, 3))


def _symbols(rows: list[tuple], path_of: Callable[[Any], str] | None = None) -> list[ScopeSymbol]:
    """Declarations from (id, path, name, fqn, kind, start line, end line, exported) rows;
    with ``path_of``, the rows hold a file id where the path goes."""
    id_, path, name, fqn, kind, start, end, exported = _columns(rows, 8)
    paths = path if path_of is None else map(path_of, path)
    return _records(ScopeSymbol, len(rows), id_, paths, name, fqn, kind, start, end, map(bool, exported))


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
    page = _prefetched(db, "paths", paths)
    if page is not None:
        return page.files
    rows = db.query(_SCOPE_FILES, (_json_list(paths, "paths"),))
    return tuple(_files(rows))


_SCOPE_SYMBOLS = """
SELECT d.id, f.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported
FROM declarations AS d
JOIN files AS f ON f.id = d.file_id
WHERE d.file_id IN (SELECT value FROM json_each(?))
ORDER BY f.path, d.start_line, d.id
"""


def scope_symbols(db: Database, ids: Iterable[int]) -> tuple[ScopeSymbol, ...]:
    """The declarations of the files with these ids, by (path, start line, id)."""
    page = _prefetched(db, "ids", ids)
    if page is not None:
        return page.symbols
    rows = db.query(_SCOPE_SYMBOLS, (_json_list(ids, "ids"),))
    return tuple(_symbols(rows))


# The references to declarations of the files whose ids are the one
# parameter (a JSON list), summed per (source file, target, resolution) and
# grouped by ids first, so that SQLite sorts integers rather than strings; the
# paths and names are joined to the groups afterwards.
_GROUPED_INBOUND = """
WITH grouped AS (
    SELECT r.source_file_id AS source_id, r.target_id AS target_id, r.resolution AS resolution,
           SUM(r.count) AS refs
    FROM declarations AS d
    JOIN refs AS r ON r.target_id = d.id
    WHERE d.file_id IN (SELECT value FROM json_each(?))
    GROUP BY r.source_file_id, r.target_id, r.resolution
)
"""

_INBOUND = (
    _GROUPED_INBOUND
    + """
SELECT sf.path, d.id, tf.path, d.name, d.kind, g.resolution, g.refs
FROM grouped AS g
JOIN files AS sf ON sf.id = g.source_id
JOIN declarations AS d ON d.id = g.target_id
JOIN files AS tf ON tf.id = d.file_id
ORDER BY sf.path, d.id, g.resolution
"""
)


def inbound_references(db: Database, ids: Iterable[int]) -> tuple[InboundReference, ...]:
    """References from any indexed file to declarations of the files with these ids.

    One record per (source file, target declaration, resolution), ``refs``
    summing the counts of its rows; ordered by source path, target id and
    resolution.
    """
    page = _prefetched(db, "ids", ids)
    if page is not None:
        return page.inbound
    rows = db.query(_INBOUND, (_json_list(ids, "ids"),))
    return tuple(_records(InboundReference, len(rows), *_columns(rows, 7)))


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
    page = _prefetched(db, "ids", ids)
    if page is not None:
        return page.outbound
    rows = db.query(_OUTBOUND, (_json_list(ids, "ids"),))
    columns = _columns(rows, 11)
    unique = {row[1]: row[1:9] for row in rows}
    targets = dict(zip(unique, _symbols(list(unique.values())), strict=True))
    made = _records(
        OutboundReference, len(rows), columns[0], map(targets.__getitem__, columns[1]), columns[9], columns[10]
    )
    return tuple(made)


_RESOLVED_LANGUAGES = """
SELECT language
FROM resolved_languages
WHERE language IN (SELECT value FROM json_each(?))
"""


def import_resolved_languages(db: Database, languages: Iterable[str]) -> frozenset[str]:
    """Those of ``languages`` whose imports the index resolves."""
    if isinstance(db, PrefetchedIndex) and not isinstance(languages, (str, bytes)):
        return frozenset(language for language in languages if language in db.resolved_languages)
    rows = db.query(_RESOLVED_LANGUAGES, (_json_list(languages, "languages"),))
    return frozenset(row[0] for row in rows)


# -- a batch of pages, read in bulk ----------------------------------------------------------------


@dataclass(frozen=True, slots=True)
class PrefetchedPage:
    """The answers of the grounding queries for one page of a batch."""

    files: tuple[ScopeFile, ...]
    symbols: tuple[ScopeSymbol, ...]
    inbound: tuple[InboundReference, ...]
    outbound: tuple[OutboundReference, ...]


def _prefetched(db: Any, by: str, values: Iterable[Any]) -> PrefetchedPage | None:
    """The page of a `PrefetchedIndex` that ``values`` (its paths, or its files' ids, a list or
    a tuple) name, if any.  Other iterables are left to the query: they may be read once only."""
    if not isinstance(db, PrefetchedIndex) or not isinstance(values, (list, tuple)):
        return None
    return db.pages.get((by, tuple(values)))


_BATCH_FILES = """
SELECT f.id, f.path, f.language
FROM files AS f
WHERE f.path IN (SELECT value FROM json_each(?))
ORDER BY f.path
"""

# The statements below read a batch's rows when the index keeps no blob for
# some of its files.  A batch that holds most of the
# indexed files (the wiki of a whole tree in one process) reads whole tables,
# which costs less than finding its rows: the filter ``{where}`` and its
# parameter are then left out, and the rows it does not need are dropped here.
_BATCH_SYMBOLS = """
SELECT d.id, d.file_id, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported
FROM declarations AS d
{where}
ORDER BY d.file_id, d.start_line, d.id
"""
_SYMBOLS_IN_BATCH = "WHERE d.file_id IN (SELECT value FROM json_each(?))"

# The references from the batch's files and those to their declarations,
# grouped by (source, target, resolution) as the pages' queries group them
# and ordered by source, then target and resolution.  Whole tables are read
# in one statement; a batch's rows in two, each through the index made for
# it: those from its files, then those from other files to its declarations
# (sources the first statement does not have, so that each source's rows
# stay together).
_BATCH_REFS = """
SELECT r.source_file_id, r.target_id, r.resolution, SUM(r.count)
FROM refs AS r
{where}
GROUP BY r.source_file_id, r.target_id, r.resolution
ORDER BY r.source_file_id, r.target_id, r.resolution
"""
_REFS_FROM_BATCH = _BATCH_REFS.format(where="WHERE r.source_file_id IN (SELECT value FROM json_each(?))")
# The references from other files to the batch's declarations, found by
# ranges of declaration ids: a file's declarations are numbered in a run, so
# a few range scans of the index by target replace one lookup per
# declaration.  The first parameter holds the [first, last] runs of the
# batch's declaration ids, the second the batch's file ids.
_REFS_INTO_BATCH = """
SELECT r.source_file_id, r.target_id, r.resolution, SUM(r.count)
FROM json_each(?) AS run
JOIN refs AS r ON r.target_id BETWEEN json_extract(run.value, '$[0]') AND json_extract(run.value, '$[1]')
WHERE r.source_file_id NOT IN (SELECT value FROM json_each(?))
GROUP BY r.source_file_id, r.target_id, r.resolution
ORDER BY r.source_file_id, r.target_id, r.resolution
"""


def _id_runs(columns: Iterable[Sequence[int]]) -> str:
    """The ids of the columns as JSON [first, last] runs of consecutive numbers, each id in
    exactly one run.  Ids are unique, so a column of n ids from first to first + n - 1 (a
    file's declarations) is one run as it stands; other columns are taken number by number."""
    ranges: list[tuple[int, int]] = []
    for column in columns:
        if column and max(column) - min(column) + 1 == len(column):
            ranges.append((min(column), max(column)))
        else:
            ranges += zip(column, column, strict=True)
    runs: list[list[int]] = []
    for first, last in sorted(ranges):
        if runs and runs[-1][1] + 1 == first:
            runs[-1][1] = last
        else:
            runs.append([first, last])
    return json.dumps(runs)


_BATCH_TARGETS = """
SELECT d.id, f.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported
FROM declarations AS d
JOIN files AS f ON f.id = d.file_id
WHERE d.id IN (SELECT value FROM json_each(?))
"""

_FILE_PATHS = "SELECT f.id, f.path FROM files AS f WHERE f.id IN (SELECT value FROM json_each(?))"

_id = attrgetter("id")
_by_path = attrgetter("path")
_name = attrgetter("name")
_kind = attrgetter("kind")
_first = itemgetter(0)


def _runs(keys: Sequence[Any], records: list) -> dict[Any, list]:
    """The records split into the runs of equal keys that ``keys`` (one per record, in runs) mark."""
    runs: dict[Any, list] = {}
    begin = 0
    for key, count in Counter(keys).items():  # keys in order of first sight, which is run order
        runs[key] = records[begin : begin + count]
        begin += count
    return runs


def _kept(columns: Sequence[Iterable[Any]], keep: list[bool] | None) -> list[Iterable[Any]]:
    """The columns' values where ``keep`` is true; all of them without ``keep``."""
    return list(columns) if keep is None else [compress(column, keep) for column in columns]


def _by_source(rows: list[tuple]) -> dict[int, tuple]:
    """(source, target, resolution, refs) rows in runs of one source, as (targets,
    resolutions, refs) columns by source."""
    return {source: tuple(zip(*run, strict=True))[1:] for source, run in _runs(list(map(_first, rows)), rows).items()}


def _rows_of(db: Any, whole: bool, batch: tuple[str, ...], file_paths: dict[int, str]) -> tuple[dict, dict, dict]:
    """The declaration records by id and by path, and the references by source, from the
    index's tables: every table whole, or the rows of the batch (its files' ids, in ``batch``)."""
    statement = _BATCH_SYMBOLS.format(where="" if whole else _SYMBOLS_IN_BATCH)
    made = _symbols(db.query(statement, batch), file_paths.__getitem__)
    symbols_of = _runs(list(map(_by_path, made)), made)
    if whole:
        rows = db.query(_BATCH_REFS.format(where=""))
    else:
        runs = _id_runs([list(map(_id, records)) for records in symbols_of.values()])
        rows = db.query(_REFS_FROM_BATCH, batch) + db.query(_REFS_INTO_BATCH, (runs, *batch))
    symbols = dict(zip(map(_id, made), made, strict=True))
    return symbols, symbols_of, _by_source(rows)


def _kept_rows(kept: dict[int, tuple], file_paths: dict[int, str]) -> tuple[dict, dict, dict]:
    """The declaration records by id and by path, and the references by source, from the rows
    the index keeps for each file read."""
    files = sorted(kept)
    rows = list(map(kept.__getitem__, files))
    columns = [list(chain.from_iterable(map(itemgetter(at), rows))) for at in range(7)]
    counts = list(map(len, map(_first, rows)))
    paths = list(map(file_paths.__getitem__, files))
    id_, name, fqn, kind, start, end, exported = columns
    made = _records(
        ScopeSymbol,
        len(id_),
        id_,
        chain.from_iterable(map(repeat, paths, counts)),
        name,
        fqn,
        kind,
        start,
        end,
        exported,
    )
    symbols_of: dict[str, list] = {}
    begin = 0
    for path, count in zip(paths, counts, strict=True):
        if count:
            symbols_of[path] = made[begin : begin + count]
            begin += count
    symbols = dict(zip(id_, made, strict=True))
    return symbols, symbols_of, {file: kept[file][7:] for file in files if kept[file][7]}


class PrefetchedIndex:
    """An open index whose grounding queries for a batch of pages are answered from a few
    bulk reads.

    A wiki grounds every page, so a batch's files are read in bulk instead of
    with five statements per page, and every row becomes a record once: the
    declarations and the references from the batch's files come from the
    blobs the index keeps per file (`tarnwick.storage.file_rows`) when every
    file read has one, else from one statement per table; the references
    from other files to the batch's declarations come from one statement.
    The queries of this module answer a page of the batch (asked for by its
    paths, or by the ids of its files, as `load_scope_facts` asks) from here,
    with the same records in the same order as a query of the index would
    give; anything else goes to the index through `query`.  A batch holds
    all its pages' records at once, so the caller keeps batches small; one
    that reads whole tables (it holds more than half of the indexed files)
    also makes records of the other files' declarations, fewer than its own.
    """

    def __init__(self, db: Any, pages: Sequence[Sequence[str]]) -> None:
        self.db = db
        self.pages: dict[tuple[str, tuple], PrefetchedPage] = {}
        wanted = list(dict.fromkeys(path for paths in pages for path in paths))
        files = {file.path: file for file in _files(db.query(_BATCH_FILES, (json.dumps(wanted),)))}
        page_files = [
            tuple(sorted({files[p].id: files[p] for p in paths if p in files}.values(), key=_by_path))
            for paths in pages
        ]
        path_of = {file.id: file.path for file in files.values()}
        whole = 2 * len(files) > db.query("SELECT COUNT(*) FROM files")[0][0]
        if whole:
            batch: tuple[str, ...] = ()
            file_paths = dict(db.query("SELECT id, path FROM files"))
        else:
            batch = (json.dumps(list(path_of)),)
            file_paths = dict(path_of)

        # Every file's declarations, in line order, and the references from
        # the files read, summed per (source, target, resolution): from the
        # rows the index keeps per file when it keeps them for every file read.
        kept = file_rows.read(db, None if whole else list(path_of))
        if kept is None:
            symbols, symbols_of, by_source = _rows_of(db, whole, batch, file_paths)
        else:
            symbols, symbols_of, by_source = _kept_rows(kept, file_paths)
            if not whole:  # the references to the batch's declarations from other files
                runs = _id_runs(columns[0] for columns in kept.values())
                by_source.update(_by_source(db.query(_REFS_INTO_BATCH, (runs, *batch))))

        # The references put in the order of their sources' paths, which is
        # the order of a page's records; each row is read once.
        outside = [source for source in by_source if source not in file_paths]
        if outside:
            file_paths.update(db.query(_FILE_PATHS, (json.dumps(outside),)))
        order = sorted(by_source, key=file_paths.__getitem__)
        parts = list(map(by_source.__getitem__, order))
        source_id = list(chain.from_iterable(map(repeat, order, map(len, map(_first, parts)))))
        target_id, resolution, refs = (list(chain.from_iterable(map(itemgetter(at), parts))) for at in range(3))
        # Whole tables hold every declaration; a batch's references may reach others.
        missing = [] if whole else sorted(set(target_id).difference(symbols))
        if missing:
            more = _symbols(db.query(_BATCH_TARGETS, (json.dumps(missing),)))
            symbols.update(zip(map(_id, more), more, strict=True))
        source_paths = list(map(file_paths.__getitem__, source_id))
        targets = list(map(symbols.__getitem__, target_id))
        target_paths = list(map(_by_path, targets))

        # Inbound records are the references to the batch's declarations; each
        # goes to the pages of its target's file.
        inbound: list[list[InboundReference]] = [[] for _ in page_files]
        pages_of: dict[str, list[list[InboundReference]]] = {path: [] for path in files}
        for held, records in zip(page_files, inbound, strict=True):
            for file in held:
                pages_of[file.path].append(records)
        one_page_each = all(len(lists) == 1 for lists in pages_of.values())
        into = list(map(pages_of.get, target_paths))
        keep = None if all(into) else list(map(bool, into))
        columns = _kept(
            [into, source_paths, target_id, target_paths, map(_name, targets), map(_kind, targets), resolution, refs],
            keep,
        )
        into = list(columns[0])
        made = _records(InboundReference, len(into), *columns[1:])
        if one_page_each:
            deque(map(list.append, map(_first, into), made), maxlen=0)
        else:
            for lists, record in zip(into, made, strict=True):
                for records in lists:
                    records.append(record)

        # Outbound records are the references from the batch's files, by source
        # file in (target id, resolution) order; a page's are its files' in path order.
        keep = list(map(path_of.__contains__, source_id))
        keep = None if all(keep) else keep
        sources_kept, *columns = _kept([source_paths, targets, resolution, refs], keep)
        sources_kept = list(sources_kept)
        outbound_of = _runs(sources_kept, _records(OutboundReference, len(sources_kept), sources_kept, *columns))

        for paths, held, page_inbound in zip(pages, page_files, inbound, strict=True):
            page = PrefetchedPage(
                held,
                tuple(chain.from_iterable(symbols_of.get(file.path, ()) for file in held)),
                tuple(page_inbound),
                tuple(chain.from_iterable(outbound_of.get(file.path, ()) for file in held)),
            )
            self.pages[("paths", tuple(paths))] = page
            self.pages[("ids", tuple(file.id for file in held))] = page
        self.resolved_languages = frozenset(row[0] for row in db.query("SELECT language FROM resolved_languages"))

    def query(self, sql: str, params: Sequence[Any] = ()) -> list[tuple]:
        return self.db.query(sql, params)

    def import_sources(self, files: Sequence[ScopeFile]) -> list[tuple[str, str]] | None:
        """(target path, source path) of the import references that reach ``files`` from other
        files, distinct and ordered, when they are a page of the batch; else None."""
        page = self.pages.get(("ids", tuple(file.id for file in files)))
        if page is None:
            return None
        pairs = {(ref.target_path, ref.source_path) for ref in page.inbound if ref.resolution == "import"}
        return sorted(pair for pair in pairs if pair[0] != pair[1])
