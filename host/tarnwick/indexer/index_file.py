"""The index of a tree as a file on disk, kept complete and current.

A first index is built into a temporary file beside its destination and
moved into place only once it is complete, so that an interrupted run
leaves no partial index.  Its `index_info` holds the indexer's format, the
tree and the settings it was made from, and a completion mark; an index
without them (one made by an older version) is built again.  A file that
no version of this indexer wrote (someone's own database) is neither
refreshed nor replaced.

Before an index is used, the size and modification time of every file of
the tree are compared with those it recorded.  When files changed, were
added or were removed, the index is brought up to date in place, in one
SQLite transaction (see `engine.refresh`): an interrupted run rolls it back
and leaves the previous index.
"""

from __future__ import annotations

import contextlib
import functools
import glob
import json
import os
import re
import sqlite3
import sys
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from tarnwick.indexer import engine
from tarnwick.indexer.python_tree import IndexStats
from tarnwick.storage import file_rows
from tarnwick.storage.database import Database
from tarnwick.utils.processes import running

# What the stored analyses depend on: this indexer's format and the
# interpreter that wrote them. The files' summaries are stored too: a change
# to `file_summary`, or to how files are read, needs a new format.
FORMAT = f"tree 6, python-tree 3, Python {sys.version_info.major}.{sys.version_info.minor}"
# FORMAT as every version of this indexer wrote it, to know an index of
# another version from someone else's database.
FORMAT_SHAPE = re.compile(r"(tree \d+, )?python-tree \d+, Python \d+\.\d+")
# The tables every index this indexer wrote holds, from its first version on.
FIRST_TABLES = ("files", "declarations", "refs", "resolved_languages")
# How long a run waits for another that updates the same index (seconds).
BUSY_SECONDS = 300.0
# SQLite's page cache while an index is written (KiB).
CACHE_KIB = 256 * 1024
# How many changed or unindexed files are named before the rest is counted.
SHOWN_FILES = 5


class IndexFileError(Exception):
    """The index file cannot be read or written."""


class IndexingInterrupted(Exception):
    """Indexing was interrupted; the message says which index is in place."""


class IndexingFailed(Exception):
    """Indexing stopped before it was done (a worker process died); the
    message says why and which index is in place."""


@dataclass(frozen=True)
class TreeSettings:
    """What an index is made from: the tree's root (resolved) and the globs
    of files left out of it and kept in it anyway."""

    root: Path
    exclude: tuple[str, ...] = ()
    keep: tuple[str, ...] = ()

    def info(self) -> dict[str, str]:
        return {
            "format": FORMAT,
            "root": printable(self.root),
            "exclude": json.dumps(self.exclude),
            "keep": json.dumps(self.keep),
        }


def printable(path: os.PathLike[str] | str) -> str:
    """A path as text that can be printed and stored: bytes of its name that
    are no valid UTF-8 are shown as escapes (`\\xff`)."""
    return os.fsencode(path).decode("utf-8", "backslashreplace")


def current_index(
    path: Path,
    settings: TreeSettings,
    rebuild: bool = False,
    log: Callable[[str], None] = print,
    progress=sys.stderr,
    workers: int | None = None,
) -> Database:
    """The index at `path` of the tree `settings` describe, read-only and up
    to date: built when missing, incomplete, made from other settings or
    asked for (`rebuild`), brought up to date when files of the tree changed
    since.

    What is done and which files could not be indexed is said through `log`;
    the indexer's progress goes to `progress`.  Files are parsed by
    `workers` processes (default: one per core).  Raises `IndexFileError`
    when the file at `path` is no index or cannot be written,
    `IndexingFailed` when a worker process dies, and `IndexingInterrupted`
    when indexing is interrupted (KeyboardInterrupt).
    """
    previous = _open_existing(path)
    try:
        unnamed: list[str] = []
        files = engine.tree_files(settings.root, settings.exclude, settings.keep, unnamed)
        reason, mode = _verdict(path, previous, settings, rebuild, files)
        if mode is None:
            current, previous = previous, None  # handed over open, not closed below
            return current
        log(reason)
        if mode == "refresh":
            previous.close()
            previous = None
            stats = _refresh(path, settings, files, progress, workers, log)
        else:
            stats = _build(path, settings, files, previous if mode == "reuse" else None, progress, workers)
    finally:
        if previous is not None:
            previous.close()
    stats.unnamed = sorted(set(stats.unnamed) | set(unnamed))
    _report_unindexed(stats, log)
    return Database(path, readonly=True, timeout=BUSY_SECONDS)


def _open_existing(path: Path) -> Database | None:
    if not path.exists():
        return None
    if path.is_dir():
        raise IndexFileError(f"{printable(path)} is a folder; the index is a file: choose another index file")
    try:
        if Path(f"{path}-journal").exists():
            # A run that was killed while bringing the index up to date left
            # SQLite's journal: a writer's first read rolls the index back.
            connection = sqlite3.connect(path, timeout=BUSY_SECONDS)
            try:
                connection.execute("SELECT COUNT(*) FROM sqlite_master").fetchall()
            finally:
                connection.close()
        db = Database(path, readonly=True, timeout=BUSY_SECONDS)
        tables = {
            row[0]
            for row in db.connection.execute(
                "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'"
            )
        }
    except sqlite3.DatabaseError as error:
        # Nothing tells whether this indexer wrote it: it stays, --reindex or not.
        raise IndexFileError(
            f"cannot read the index {printable(path)}: {error}; it is left as it is: remove it to index the tree "
            "anew, or choose another index file"
        ) from None
    problem = _foreign(db, tables)
    if problem is not None:
        db.close()
        raise IndexFileError(f"{printable(path)} is no index ({problem}); choose another index file")
    return db


def _foreign(db: Database, tables: set[str]) -> str | None:
    """Why the database is none that this indexer wrote, or None when it is
    one: only such a file may be refreshed or replaced.  Every version wrote
    the tables of FIRST_TABLES, and marks its format in `index_info`; one
    without the mark holds no table that an index does not."""
    missing = [table for table in FIRST_TABLES if table not in tables]
    if missing:
        return f"it has no {missing[0]} table"
    try:
        row = db.connection.execute("SELECT value FROM index_info WHERE key = 'format'").fetchone()
    except sqlite3.DatabaseError:  # no such table, or not the columns of an index's
        row = None
    if row is not None and isinstance(row[0], str) and FORMAT_SHAPE.match(row[0]):
        return None
    others = sorted(tables - _index_tables())
    if others:
        return f"it has {'a table' if len(others) == 1 else 'tables'} that no index has: {', '.join(others)}"
    return None


@functools.cache
def _index_tables() -> frozenset[str]:
    """The tables an index of this version holds."""
    with Database() as db:
        return frozenset(row[0] for row in db.connection.execute("SELECT name FROM sqlite_master WHERE type = 'table'"))


def _verdict(
    path: Path, previous: Database | None, settings: TreeSettings, rebuild: bool, files: dict
) -> tuple[str | None, str | None]:
    """Why the index must be made again (None when it is current), and how:
    "build" it anew, build it "reuse"-ing the previous one's analyses of
    unchanged Python files, or "refresh" it in place."""
    root = printable(settings.root)
    if previous is None:
        return f"indexing {root} into {printable(path)}", "build"
    info = previous.info()
    if info.get("complete") != "yes" or info.get("format") != FORMAT:
        return f"the index {printable(path)} is incomplete or from another version: indexing {root} again", "build"
    if rebuild:
        return f"indexing {root} again", "build"
    if info != {**settings.info(), "complete": "yes"}:
        same_tree = info.get("root") == root
        return (
            f"the index {printable(path)} was made from another tree or with other settings: indexing {root} again"
        ), "reuse" if same_tree else "build"
    changes = _changes(previous.file_stamps(), {p: entry[1:] for p, entry in files.items()})
    if not changes:
        return None, None
    return f"refreshing the index of {root}: {changes}", "refresh"


def _changes(indexed: dict[str, tuple[int, int]], now: dict[str, tuple[int, int]]) -> str:
    """What changed in the tree since it was indexed, in words ("" for nothing)."""
    groups = [
        ("changed", [p for p in now if p in indexed and tuple(indexed[p]) != now[p]]),
        ("added", [p for p in now if p not in indexed]),
        ("removed", sorted(p for p in indexed if p not in now)),
    ]
    return ", ".join(f"{len(paths)} {word} ({_some(paths)})" for word, paths in groups if paths)


def _some(paths: list[str]) -> str:
    shown = ", ".join(printable(p) for p in paths[:SHOWN_FILES])
    return shown + (f" and {len(paths) - SHOWN_FILES} more" if len(paths) > SHOWN_FILES else "")


def _clear_leftovers(path: Path) -> None:
    """Removes the unfinished indexes that builds of `path` killed outright left beside it."""
    with contextlib.suppress(OSError):
        for entry in path.parent.glob(f".{glob.escape(path.name)}.*.tmp"):
            pid = entry.name[len(path.name) + 2 : -len(".tmp")]
            if pid.isdigit() and not running(int(pid)):
                entry.unlink(missing_ok=True)


def _build(
    path: Path, settings: TreeSettings, files: dict, previous: Database | None, progress, workers: int | None
) -> IndexStats:
    """Index the tree into a file beside `path`, then move it into place."""
    temporary = path.with_name(f".{path.name}.{os.getpid()}.tmp")
    _clear_leftovers(path)
    try:
        try:
            try:
                path.parent.mkdir(parents=True, exist_ok=True)
            except (FileExistsError, NotADirectoryError) as error:
                in_the_way = next((folder for folder in path.parents if folder.exists()), None)
                if in_the_way is None or in_the_way.is_dir():
                    raise
                raise IndexFileError(
                    f"cannot write the index {printable(path)}: {printable(in_the_way)} is a file, not a folder"
                ) from error
            temporary.unlink(missing_ok=True)
            # The move into place makes the index atomic; SQLite's own journal
            # would only slow the bulk load down.
            db = Database(temporary, journal=False)
        except (OSError, sqlite3.DatabaseError) as error:
            raise _write_failed(path, error) from None
        with db:
            db.connection.execute(f"PRAGMA cache_size = -{CACHE_KIB}")
            stats = IndexStats()
            if any(entry[0] == engine.PYTHON for entry in files.values()):
                engine.index_python(db, settings.root, stats, settings.exclude, settings.keep, previous, progress)
            with db.connection:
                engine.build(db, settings.root, files, stats, workers, progress)
                _keep_rows(db.connection, progress)
            db.set_info({**settings.info(), "complete": "yes"})
        try:
            _flush(temporary)
            os.replace(temporary, path)
        except OSError as error:
            raise _write_failed(path, error) from None
    except sqlite3.OperationalError as error:  # the disk filled up, say, while the new index was written
        raise _write_failed(path, error) from None
    except KeyboardInterrupt:
        raise IndexingInterrupted(f"indexing was interrupted; {_kept(path)}") from None
    except engine.ParsingFailed as error:
        raise IndexingFailed(f"{error}; {_kept(path)}") from None
    finally:
        # Where the index could not be written, the temporary file most
        # likely could not be made either: the error that said so stands.
        with contextlib.suppress(OSError):
            temporary.unlink(missing_ok=True)
    return stats


def _refresh(
    path: Path, settings: TreeSettings, files: dict, progress, workers: int | None, log: Callable[[str], None]
) -> IndexStats:
    """Bring the index at `path` up to date in one transaction."""
    try:
        db = Database(path, timeout=BUSY_SECONDS)
    except (OSError, sqlite3.DatabaseError) as error:
        raise _write_failed(path, error) from None
    with db:
        connection = db.connection
        connection.isolation_level = None  # the transaction is this function's
        connection.execute(f"PRAGMA cache_size = -{CACHE_KIB}")
        stats = IndexStats()
        try:
            _begin(connection, path, log)
            engine.refresh(db, settings.root, files, stats, settings.exclude, settings.keep, workers, progress)
            _keep_rows(connection, progress)
            connection.execute("COMMIT")
        except BaseException as error:
            if connection.in_transaction:
                connection.execute("ROLLBACK")
            if isinstance(error, KeyboardInterrupt):
                raise IndexingInterrupted(f"indexing was interrupted; {_kept(path)}") from None
            if isinstance(error, engine.ParsingFailed):
                raise IndexingFailed(f"{error}; {_kept(path)}") from None
            if isinstance(error, sqlite3.OperationalError):
                raise _write_failed(path, error) from None
            raise
    return stats


def _begin(connection: sqlite3.Connection, path: Path, log: Callable[[str], None]) -> None:
    """Begin the update, once another run that updates the index is done
    (it is waited for BUSY_SECONDS at most, and said to be)."""
    connection.execute("PRAGMA busy_timeout = 0")
    try:
        connection.execute("BEGIN IMMEDIATE")
        return
    except sqlite3.OperationalError as error:
        if not _busy(error):
            raise
        log(f"another run is updating the index {printable(path)}: waiting for it to finish")
    finally:
        connection.execute(f"PRAGMA busy_timeout = {round(BUSY_SECONDS * 1000)}")
    connection.execute("BEGIN IMMEDIATE")


def _busy(error: sqlite3.Error) -> bool:
    """Whether another connection held the database locked."""
    return (getattr(error, "sqlite_errorname", None) or "").startswith("SQLITE_BUSY")


def _write_failed(path: Path, error: OSError | sqlite3.DatabaseError) -> IndexFileError:
    """The error for an index that could not be written."""
    if isinstance(error, sqlite3.Error) and _busy(error):
        reason = f"another run is still updating it after {BUSY_SECONDS:g} s; try again once it is done"
    else:
        reason = error.strerror if isinstance(error, OSError) and error.strerror else error
    return IndexFileError(f"cannot write the index {printable(path)}: {reason}")


def _kept(path: Path) -> str:
    """Which index is in place after a run that stopped before it was done."""
    return f"the previous index {printable(path)} was kept" if path.exists() else "no index was written"


def _keep_rows(connection: sqlite3.Connection, progress) -> None:
    """Keep the rows of the files whose rows changed (all of them in a new index) as the wiki reads them."""
    started = time.perf_counter()
    count = file_rows.fill(connection)
    if progress is not None and count >= engine.MIN_FILES:
        print(
            f"kept the rows of {count} files for the wiki in {time.perf_counter() - started:.1f} s",
            file=progress,
            flush=True,
        )


def _flush(path: Path) -> None:
    """Write the file's data to disk before it replaces the previous index."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def _report_unindexed(stats: IndexStats, log: Callable[[str], None]) -> None:
    problems = sorted([*stats.unparsable.items(), *((path, "its name is no valid UTF-8") for path in stats.unnamed)])
    if not problems:
        return
    log(f"{len(problems)} file{'s' if len(problems) != 1 else ''} could not be indexed:")
    for path, reason in problems[:SHOWN_FILES]:
        log(f"  {printable(path)}: {reason}")
    if len(problems) > SHOWN_FILES:
        log(f"  ...and {len(problems) - SHOWN_FILES} more")
