"""The index of a tree as a file on disk, kept complete and current.

An index is built into a temporary file beside its destination and moved
into place only once it is complete, so that an interrupted run leaves the
previous index, or none, and never a partial one.  Its `index_info` holds
the indexer's format, the tree and the settings it was made from, and a
completion mark; an index without them (one made by an older version) is
built again.

Before an index is used, the size and modification time of every file of
the tree are compared with those it recorded.  When a file changed, was
added or was removed, the index is built again, atomically as before, from
the analyses of the unchanged files and a new one of the others.
"""

from __future__ import annotations

import json
import os
import sqlite3
import sys
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from tarnwick.indexer.python_tree import IndexStats, index_tree, tree_stamps
from tarnwick.storage.database import Database

# What the stored analyses depend on: this indexer's format and the
# interpreter that wrote them.
FORMAT = f"python-tree 2, Python {sys.version_info.major}.{sys.version_info.minor}"
# How many changed or unindexed files are named before the rest is counted.
SHOWN_FILES = 5


class IndexFileError(Exception):
    """The index file cannot be read or written."""


class IndexingInterrupted(Exception):
    """Indexing was interrupted; the message says which index is in place."""


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
    path: Path, settings: TreeSettings, rebuild: bool = False, log: Callable[[str], None] = print, progress=sys.stderr
) -> Database:
    """The index at `path` of the tree `settings` describe, read-only and up
    to date: built when missing, incomplete, made from other settings or
    asked for (`rebuild`), refreshed when files of the tree changed since.

    What is done and which files could not be indexed is said through `log`;
    the indexer's progress goes to `progress`.  Raises `IndexFileError` when
    the file at `path` is no index or cannot be written, and
    `IndexingInterrupted` when indexing is interrupted (KeyboardInterrupt).
    """
    previous = _open_existing(path)
    try:
        reason, reuse = _verdict(path, previous, settings, rebuild)
        if reason is None:
            current, previous = previous, None  # handed over open, not closed below
            return current
        log(reason)
        stats = _build(path, settings, previous if reuse else None, progress)
    finally:
        if previous is not None:
            previous.close()
    _report_unindexed(stats, log)
    return Database(path, readonly=True)


def _open_existing(path: Path) -> Database | None:
    if not path.exists():
        return None
    try:
        db = Database(path, readonly=True)
        tables = {row[0] for row in db.connection.execute("SELECT name FROM sqlite_master WHERE type = 'table'")}
    except sqlite3.DatabaseError as error:
        raise IndexFileError(f"cannot read the index {printable(path)}: {error}") from None
    if "files" not in tables:
        db.close()
        raise IndexFileError(f"{printable(path)} is no index (it has no files table); choose another index file")
    return db


def _verdict(path: Path, previous: Database | None, settings: TreeSettings, rebuild: bool) -> tuple[str | None, bool]:
    """Why the index must be built (None when it is current), and whether
    the previous one's analyses of unchanged files can be reused."""
    root = printable(settings.root)
    if previous is None:
        return f"indexing {root} into {printable(path)}", False
    info = previous.info()
    if info.get("complete") != "yes" or info.get("format") != FORMAT:
        return f"the index {printable(path)} is incomplete or from another version: indexing {root} again", False
    if rebuild:
        return f"indexing {root} again", False
    if info != {**settings.info(), "complete": "yes"}:
        same_tree = info.get("root") == root
        return (
            f"the index {printable(path)} was made from another tree or with other settings: indexing {root} again"
        ), same_tree
    changes = _changes(previous.file_stamps(), tree_stamps(settings.root, settings.exclude, settings.keep))
    if not changes:
        return None, True
    return f"refreshing the index of {root}: {changes}", True


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


def _build(path: Path, settings: TreeSettings, previous: Database | None, progress) -> IndexStats:
    """Index the tree into a file beside `path`, then move it into place."""
    temporary = path.with_name(f".{path.name}.{os.getpid()}.tmp")
    try:
        try:
            path.parent.mkdir(parents=True, exist_ok=True)
            temporary.unlink(missing_ok=True)
            # The move into place makes the index atomic; SQLite's own journal
            # would only slow the bulk load down.
            db = Database(temporary, journal=False)
        except (OSError, sqlite3.DatabaseError) as error:
            raise IndexFileError(f"cannot write the index {printable(path)}: {error}") from None
        with db:
            stats = index_tree(settings.root, db, progress, settings.exclude, settings.keep, previous)
            db.set_info({**settings.info(), "complete": "yes"})
        _flush(temporary)
        os.replace(temporary, path)
    except KeyboardInterrupt:
        kept = f"the previous index {printable(path)} was kept" if path.exists() else "no index was written"
        raise IndexingInterrupted(f"indexing was interrupted; {kept}") from None
    finally:
        temporary.unlink(missing_ok=True)
    return stats


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
