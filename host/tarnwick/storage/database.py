"""The index database: one SQLite file (or an in-memory database) holding what
the indexer knows about a repository.

Opening a ``Database`` creates the schema below when it is absent (``PRAGMA
user_version`` is then 3); reopening an existing index leaves its rows alone.

``files``
    ``id`` INTEGER PRIMARY KEY;
    ``path`` TEXT NOT NULL UNIQUE: repository-relative with "/" separators,
    stored exactly as given and never normalised;
    ``language`` TEXT, NULL when the indexer assigned no language.

``declarations``
    ``id`` INTEGER PRIMARY KEY: the symbol id;
    ``file_id`` INTEGER NOT NULL, references ``files(id)``;
    ``name`` TEXT: the declared short name; ``fqn`` TEXT: the qualified name;
    ``kind`` TEXT: "function", "class", "constant", ...;
    ``start_line``, ``end_line`` INTEGER: 1-based, inclusive;
    ``exported`` INTEGER 0 or 1: whether the file exports the declaration;
    ``definition`` INTEGER 0 or 1: 0 when it only announces a declaration
    made elsewhere (a C prototype, an ``extern`` variable), else 1.
    Indexed by file in line order (the order a page lists them in), and by
    name with what resolving a name reads.

``refs``
    ``id`` INTEGER PRIMARY KEY;
    ``source_file_id`` INTEGER NOT NULL, references ``files(id)``: the file
    that holds the references;
    ``target_id`` INTEGER NOT NULL, references ``declarations(id)``;
    ``resolution`` TEXT: how the reference was tied to its target (see
    ``tarnwick.models.edge``);
    ``count`` INTEGER >= 0: how many references the row stands for.
    The same (source, target, resolution) may appear on several rows;
    readers sum ``count``.

``resolved_languages``
    ``language`` TEXT PRIMARY KEY: a language whose imports the indexer
    resolves, so that its "import" references are reliable.

``sources``
    ``file_id`` INTEGER PRIMARY KEY, references ``files(id)``: what the
    indexer saw of a file, to notice later that it changed;
    ``size`` INTEGER, ``mtime_ns`` INTEGER: its size in bytes and its
    modification time in nanoseconds when it was indexed;
    ``problem`` TEXT: why it yielded no declarations (it could not be read,
    decoded or parsed), NULL when it did;
    ``lines`` INTEGER, ``summary`` TEXT: its number of lines and its
    summary as a wiki page shows them, read with the file; NULL when it is
    no text, or was not read;
    ``analysis`` BLOB: the indexer's own record of the file, reused while
    the file is unchanged; opaque to everyone else.

``file_rows``
    ``file_id`` INTEGER PRIMARY KEY, ``data`` BLOB: a copy of a file's
    declarations and summed references in one blob, which a wiki reads in
    one go; dropped by triggers when those rows change (see
    ``tarnwick.storage.file_rows``).

``uses``
    ``name`` TEXT, ``file_id`` INTEGER, ``count`` INTEGER > 0: how often a
    file whose imports the indexer does not resolve uses a name, declared
    anywhere or not; one row per (name, file), keyed by name, so that the
    users of a name are found when its declarations change; indexed by file.

``index_info``
    ``key`` TEXT PRIMARY KEY, ``value`` TEXT: facts about the index as a
    whole (the tree it was made from, with which settings, whether it is
    complete), written by whoever builds it.

Rows are loaded with the ``add_*`` methods; the bulk forms take iterables and
insert with one ``executemany`` per call.  Readers go through ``query``, which
counts the statements it runs in ``query_count``.
"""

from __future__ import annotations

import json
import os
import sqlite3
from collections.abc import Iterable, Sequence
from pathlib import Path
from typing import Any

from tarnwick.storage import file_rows

SCHEMA_VERSION = 3

_SCHEMA = (
    """
CREATE TABLE IF NOT EXISTS files (
    id       INTEGER PRIMARY KEY,
    path     TEXT NOT NULL UNIQUE,
    language TEXT
);
CREATE TABLE IF NOT EXISTS declarations (
    id         INTEGER PRIMARY KEY,
    file_id    INTEGER NOT NULL REFERENCES files(id),
    name       TEXT NOT NULL,
    fqn        TEXT NOT NULL,
    kind       TEXT NOT NULL,
    start_line INTEGER NOT NULL,
    end_line   INTEGER NOT NULL,
    exported   INTEGER NOT NULL DEFAULT 0 CHECK (exported IN (0, 1)),
    definition INTEGER NOT NULL DEFAULT 1 CHECK (definition IN (0, 1))
);
-- By file in line order, then id (the rowid every index ends with): a
-- page's declarations are read in that order without a sort.
DROP INDEX IF EXISTS declarations_by_file;
CREATE INDEX IF NOT EXISTS declarations_in_line_order ON declarations(file_id, start_line);
CREATE INDEX IF NOT EXISTS declarations_by_name ON declarations(name, file_id, definition, start_line);
CREATE TABLE IF NOT EXISTS refs (
    id             INTEGER PRIMARY KEY,
    source_file_id INTEGER NOT NULL REFERENCES files(id),
    target_id      INTEGER NOT NULL REFERENCES declarations(id),
    resolution     TEXT NOT NULL,
    count          INTEGER NOT NULL DEFAULT 1 CHECK (count >= 0)
);
-- Both indexes cover the grounding queries' grouping (source, target,
-- resolution, count), so that those never read the table's rows.
CREATE INDEX IF NOT EXISTS refs_by_target ON refs(target_id, source_file_id, resolution, count);
CREATE INDEX IF NOT EXISTS refs_by_source ON refs(source_file_id, target_id, resolution, count);
CREATE TABLE IF NOT EXISTS resolved_languages (
    language TEXT PRIMARY KEY
);
CREATE TABLE IF NOT EXISTS sources (
    file_id  INTEGER PRIMARY KEY REFERENCES files(id),
    size     INTEGER NOT NULL,
    mtime_ns INTEGER NOT NULL,
    problem  TEXT,
    lines    INTEGER,
    summary  TEXT,
    -- Last: a row's columns are read in order, and this one is large.
    analysis BLOB
);
CREATE TABLE IF NOT EXISTS uses (
    name    TEXT NOT NULL,
    file_id INTEGER NOT NULL REFERENCES files(id),
    count   INTEGER NOT NULL CHECK (count > 0),
    PRIMARY KEY (name, file_id)
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS uses_by_file ON uses(file_id);
CREATE TABLE IF NOT EXISTS index_info (
    key   TEXT PRIMARY KEY,
    value TEXT NOT NULL
);
"""
    + file_rows.SCHEMA
)

# A file given to the loaders either by its path or by its id.
FileRef = str | int


class Database:
    """Handle on one index database.

    ``Database()`` or ``Database(":memory:")`` gives a fresh in-memory index;
    any other path opens that file, creating it and its schema if needed.
    With ``readonly`` the file must exist and is neither changed nor given
    a schema.  Without ``journal`` SQLite keeps no rollback journal and
    does not wait for the disk: for a file that is built once and moved
    into place only when complete.  A statement that finds the file locked
    by another connection waits up to ``timeout`` seconds for it.  The
    handle is a context manager that closes the connection on exit.
    """

    def __init__(
        self,
        path: str | os.PathLike[str] = ":memory:",
        readonly: bool = False,
        journal: bool = True,
        timeout: float = 5.0,
    ) -> None:
        self.path = os.fspath(path)
        if readonly:
            self.connection = sqlite3.connect(
                f"{Path(self.path).absolute().as_uri()}?mode=ro", uri=True, timeout=timeout
            )
        else:
            self.connection = sqlite3.connect(self.path, timeout=timeout)
        if not journal:
            self.connection.execute("PRAGMA journal_mode = OFF")
            self.connection.execute("PRAGMA synchronous = OFF")
        # Loading a reference to a declaration that does not exist is a bug in
        # whatever fills the index; let SQLite refuse it.
        self.connection.execute("PRAGMA foreign_keys = ON")
        if not readonly:
            with self.connection:
                self.connection.executescript(_SCHEMA)
                if self.connection.execute("PRAGMA user_version").fetchone()[0] == 0:
                    self.connection.execute(f"PRAGMA user_version = {SCHEMA_VERSION}")
        # Number of statements run through ``query``; loading does not count.
        self.query_count = 0

    # -- reading -----------------------------------------------------------

    def query(self, sql: str, params: Sequence[Any] = ()) -> list[tuple]:
        """Run one read statement with bound parameters and return all its rows."""
        self.query_count += 1
        return self.connection.execute(sql, params).fetchall()

    # -- loading -----------------------------------------------------------

    def add_file(self, path: str, language: str | None = None) -> int:
        """Index one file and return its id; a path already indexed is an error."""
        return self.add_files([(path, language)])[0]

    def add_files(self, files: Iterable[str | tuple[str] | tuple[str, str | None]]) -> list[int]:
        """Index many files, each a path or a (path, language) pair.

        Returns their ids in the order given.
        """
        rows = []
        for item in files:
            if isinstance(item, str):
                rows.append((item, None))
            else:
                path, *rest = item
                if len(rest) > 1:
                    raise ValueError(f"a file is (path, language), got {item!r}")
                rows.append((path, rest[0] if rest else None))
        with self.connection:
            first = self._next_id("files")
            params = [(first + i, path, language) for i, (path, language) in enumerate(rows)]
            self.connection.executemany("INSERT INTO files (id, path, language) VALUES (?, ?, ?)", params)
        return [row[0] for row in params]

    def add_symbol(
        self,
        file: FileRef,
        name: str,
        fqn: str,
        kind: str,
        start_line: int,
        end_line: int,
        exported: bool = False,
    ) -> int:
        """Record one declaration of ``file`` (a path or a file id); returns its symbol id."""
        return self.add_symbols([(file, name, fqn, kind, start_line, end_line, exported)])[0]

    def add_symbols(self, symbols: Iterable[Sequence[Any]]) -> list[int]:
        """Record many declarations, each
        ``(file, name, fqn, kind, start_line, end_line[, exported])``.

        Returns their symbol ids in the order given.  A file path that is not
        indexed raises ``KeyError``.
        """
        rows = [tuple(row) for row in symbols]
        for row in rows:
            if len(row) not in (6, 7):
                raise ValueError(
                    f"a declaration is (file, name, fqn, kind, start_line, end_line[, exported]), got {row!r}"
                )
        file_ids = self._file_ids(row[0] for row in rows)
        with self.connection:
            first = self._next_id("declarations")
            params = [
                (
                    first + i,
                    file_ids[row[0]],
                    row[1],
                    row[2],
                    row[3],
                    row[4],
                    row[5],
                    1 if len(row) == 7 and row[6] else 0,
                )
                for i, row in enumerate(rows)
            ]
            self.connection.executemany(
                "INSERT INTO declarations"
                " (id, file_id, name, fqn, kind, start_line, end_line, exported)"
                " VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                params,
            )
        return [row[0] for row in params]

    def add_reference(self, source: FileRef, target_id: int, resolution: str, count: int = 1) -> None:
        """Record ``count`` references from ``source`` (a path or a file id) to a declaration."""
        self.add_references([(source, target_id, resolution, count)])

    def add_references(self, references: Iterable[Sequence[Any]]) -> None:
        """Record many references, each ``(source, target_id, resolution[, count])``.

        A source path that is not indexed raises ``KeyError``; a target id
        that is not a declaration raises ``sqlite3.IntegrityError``.
        """
        rows = [tuple(row) for row in references]
        for row in rows:
            if len(row) not in (3, 4):
                raise ValueError(f"a reference is (source, target_id, resolution[, count]), got {row!r}")
        file_ids = self._file_ids(row[0] for row in rows)
        params = [(file_ids[row[0]], row[1], row[2], row[3] if len(row) == 4 else 1) for row in rows]
        with self.connection:
            self.connection.executemany(
                "INSERT INTO refs (source_file_id, target_id, resolution, count) VALUES (?, ?, ?, ?)",
                params,
            )

    def add_sources(self, sources: Iterable[Sequence[Any]]) -> None:
        """Record what the indexer saw of files, each
        ``(file, size, mtime_ns, problem, analysis[, lines, summary])``."""
        rows = [tuple(row) for row in sources]
        for row in rows:
            if len(row) not in (5, 7):
                raise ValueError(
                    f"a source is (file, size, mtime_ns, problem, analysis[, lines, summary]), got {row!r}"
                )
        file_ids = self._file_ids(row[0] for row in rows)
        with self.connection:
            self.connection.executemany(
                "INSERT INTO sources (file_id, size, mtime_ns, problem, analysis, lines, summary)"
                " VALUES (?, ?, ?, ?, ?, ?, ?)",
                [(file_ids[row[0]], *row[1:], *(None, None)[: 7 - len(row)]) for row in rows],
            )

    def set_info(self, info: dict[str, str]) -> None:
        """Set facts about the index as a whole; a key set before is replaced."""
        with self.connection:
            self.connection.executemany(
                "INSERT OR REPLACE INTO index_info (key, value) VALUES (?, ?)", list(info.items())
            )

    def add_resolved_language(self, language: str) -> None:
        """Record that the indexer resolves the imports of ``language``."""
        self.add_resolved_languages([language])

    def add_resolved_languages(self, languages: Iterable[str]) -> None:
        """Record several import-resolved languages; repeats are ignored."""
        with self.connection:
            self.connection.executemany(
                "INSERT OR IGNORE INTO resolved_languages (language) VALUES (?)",
                [(language,) for language in languages],
            )

    # -- what the indexer keeps -------------------------------------------

    def info(self) -> dict[str, str]:
        """The facts about the index as a whole (empty for an index made
        before they were kept)."""
        if not self._has_table("index_info"):
            return {}
        return dict(self.connection.execute("SELECT key, value FROM index_info"))

    def file_stamps(self) -> dict[str, tuple[int, int]]:
        """(size, mtime_ns) of every file the indexer saw, by path."""
        rows = self.connection.execute(
            "SELECT f.path, s.size, s.mtime_ns FROM sources AS s JOIN files AS f ON f.id = s.file_id"
        )
        return {path: (size, mtime_ns) for path, size, mtime_ns in rows}

    def file_analyses(self) -> dict[str, tuple[int, int, str | None, bytes | None, int | None, str | None]]:
        """(size, mtime_ns, problem, analysis, lines, summary) of every file the indexer saw, by path."""
        rows = self.connection.execute(
            "SELECT f.path, s.size, s.mtime_ns, s.problem, s.analysis, s.lines, s.summary"
            " FROM sources AS s JOIN files AS f ON f.id = s.file_id"
        )
        return {row[0]: row[1:] for row in rows}

    def file_texts(self, paths: Sequence[str] | None = None) -> list[tuple[str, int, int, int | None, str | None]]:
        """(path, size, mtime_ns, lines, summary) of every file the indexer read, or of those
        among ``paths``."""
        statement = (
            "SELECT f.path, s.size, s.mtime_ns, s.lines, s.summary"
            " FROM sources AS s JOIN files AS f ON f.id = s.file_id"
        )
        if paths is None:
            return self.connection.execute(statement).fetchall()
        return self.connection.execute(
            statement + " WHERE f.path IN (SELECT value FROM json_each(?))", (json.dumps(list(paths)),)
        ).fetchall()

    # -- lifecycle ---------------------------------------------------------

    def close(self) -> None:
        """Close the connection; closing twice is harmless."""
        self.connection.close()

    def __enter__(self) -> Database:
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"Database({self.path!r})"

    # -- internals ---------------------------------------------------------

    def _has_table(self, name: str) -> bool:
        return bool(
            self.connection.execute("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?", (name,)).fetchone()
        )

    def _next_id(self, table: str) -> int:
        # Ids are assigned here rather than by SQLite so that the bulk
        # loaders can report them without one statement per row.
        return self.connection.execute(f"SELECT IFNULL(MAX(id), 0) + 1 FROM {table}").fetchone()[0]

    def _file_ids(self, files: Iterable[FileRef]) -> dict[FileRef, int]:
        """Map each given file (path or id) to its id; ids map to themselves."""
        mapping: dict[FileRef, int] = {}
        paths = []
        for file in files:
            if isinstance(file, str):
                paths.append(file)
            else:
                mapping[file] = file
        if paths:
            found = dict(
                self.connection.execute(
                    "SELECT path, id FROM files WHERE path IN (SELECT value FROM json_each(?))",
                    (json.dumps(paths),),
                )
            )
            for path in paths:
                if path not in found:
                    raise KeyError(f"file not in the index: {path!r}")
            mapping.update(found)
        return mapping
