"""Index the files of every language of a tree: Python through its own
indexer (`python_tree`, which resolves imports), every other language that
`languages.language_of` knows through `languages.extract` and the name
resolver (`resolver`).

Files
    One walk finds every file: `.py` files for the Python indexer, and the
    files whose suffix names another language.  The folders skipped are the
    Python indexer's (hidden folders, `node_modules`, virtual environments,
    top-level `build` and `dist`, ...), and the same `exclude` / `keep`
    globs apply.

Parsing
    Files are read and parsed in worker processes, one per core unless told
    otherwise; a worker returns plain tuples (declarations, and the names the
    file uses with their counts).  Results are taken in file order, so the
    index is the same whatever the number of workers.  This process is the
    only writer of the index.  A worker that dies (the out-of-memory killer)
    ends the indexing with `ParsingFailed`; on Linux the workers die with
    this process, so that none is left waiting for work that never comes.

What the index keeps for later runs
    Besides files, declarations and references: each file's size and
    modification time (`sources`), whether a declaration is a definition or
    only announces one (`declarations.definition`), and every name each
    file uses with its count (`uses`), declared anywhere or not, so that
    the users of a name are found when its declarations change.

Bringing the index up to date (`refresh`)
    Changed and new files are parsed again.  A changed file keeps the ids of
    its declarations when its declarations of a name are the same ones
    (qualified names, kinds, definitions) in the same order; only their lines
    and exports are updated then.  Every other name whose declarations
    changed anywhere in the tree is resolved again for all its users, and
    every name of a changed or new file for that file, so that the result
    equals a fresh index of the tree (ids aside).  It all happens in one
    SQLite transaction: an interrupted run leaves the previous index.
"""

from __future__ import annotations

import contextlib
import fnmatch
import itertools
import json
import multiprocessing
import os
import sqlite3
import sys
import time
from collections import deque
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from multiprocessing.connection import Connection, wait
from pathlib import Path

from tarnwick.indexer import languages
from tarnwick.indexer.progress import MIN_FILES, Progress
from tarnwick.indexer.python_tree import OUTPUT_DIRS, SKIPPED_DIRS, IndexStats, index_tree
from tarnwick.indexer.resolver import Candidate, family_of, resolve_name
from tarnwick.storage.database import Database
from tarnwick.utils.path_filter import is_test_path
from tarnwick.utils.processes import start_worker
from tarnwick.workers.wiki.checkout import text_facts

PYTHON = "python"
# Rows gathered before they are written with one statement.
BATCH = 50_000
# Files given to a worker at a time.
CHUNK = 16
# Batches handed to a worker ahead: one it parses, one it takes next.
AHEAD = 2


class ParsingFailed(Exception):
    """A worker process ended before it returned the files it was given."""


def tree_files(root: Path, exclude=(), keep=(), unnamed: list[str] | None = None) -> dict[str, tuple[str, int, int]]:
    """Every file of the tree that some indexer reads, by path (relative,
    "/"-separated, sorted): (language, size, mtime_ns).

    A path that matches a glob of `exclude` is left out unless it matches
    one of `keep`; one that is no valid UTF-8 is left out and added to
    `unnamed`.  Folders are skipped as the Python indexer skips them; like
    it, the walk does not follow links to folders.
    """
    by_suffix = {suffix: name for name, language in languages.LANGUAGES.items() for suffix in language.suffixes}
    by_suffix[".py"] = PYTHON
    found: dict[str, tuple[str, int, int]] = {}
    pending = [(os.fspath(root), "")]
    while pending:
        directory, relative = pending.pop()
        try:
            with os.scandir(directory) as listing:
                entries = list(listing)
        except OSError:
            continue
        if relative and any(entry.name == "pyvenv.cfg" for entry in entries):
            continue  # a virtual environment
        for entry in entries:
            name = entry.name
            dot = name.rfind(".")
            language = by_suffix.get(name[dot:]) if dot > 0 else None
            try:
                folder = entry.is_dir()
            except OSError:
                folder = False
            if folder:
                if not entry.is_symlink() and not _skipped_folder(entry, top=not relative):
                    pending.append((entry.path, f"{relative}{name}/"))
                continue
            if language is None:
                continue
            try:
                if not entry.is_file():  # a named pipe would block its reader; a dangling link holds nothing
                    continue
            except OSError:
                continue
            path = relative + name
            if not path.isascii():
                try:
                    path.encode()
                except UnicodeEncodeError:  # undecodable bytes in a name, kept as surrogates
                    if unnamed is not None:
                        unnamed.append(path)
                    continue
            if exclude and any(fnmatch.fnmatchcase(path, glob) for glob in exclude):
                if not any(fnmatch.fnmatchcase(path, glob) for glob in keep):
                    continue
            try:
                status = entry.stat()
                found[path] = (language, status.st_size, status.st_mtime_ns)
            except OSError:
                found[path] = (language, -1, -1)
    return dict(sorted(found.items()))


def _skipped_folder(entry: os.DirEntry, top: bool) -> bool:
    name = entry.name
    if name.startswith(".") or name in SKIPPED_DIRS:
        return True
    return top and name in OUTPUT_DIRS and not os.path.isfile(os.path.join(entry.path, "__init__.py"))


# -- parsing, in worker processes ---------------------------------------------

_root: Path | None = None


def _start_worker(root: str, parent: int) -> None:
    global _root
    _root = Path(root)
    start_worker(parent)


def _work(root: str, parent: int, batches: Connection, results: Connection) -> None:
    """A worker: parse each batch it is handed and send back (number, the
    parse of each file, None), or (number, None, the error met), until it is
    handed None."""
    _start_worker(root, parent)
    while True:
        try:
            batch = batches.recv()
        except EOFError:
            return
        if batch is None:
            return
        number, items = batch
        try:
            parsed = [parse_file(_root, *item) for item in items]
        except Exception as error:
            results.send((number, None, error))
        else:
            results.send((number, parsed, None))


def parse_file(root: Path, path: str, language: str) -> tuple:
    """(problem, declarations, uses, text) of one file: `problem` says why it
    could not be read (None when it was); `uses` is a tuple of (name,
    count), every kind of use summed; `text` its (lines, summary) as a wiki
    page shows them, (None, None) when it is no text."""
    try:
        source = (root / path).read_bytes()
    except OSError as error:
        return f"cannot be read: {error.strerror or error}", (), (), (None, None)
    text = text_facts(path, source)
    try:
        decls, refs = languages.extract(language, path, source)
    except (RecursionError, MemoryError, ValueError) as error:
        return f"cannot be parsed: {error.__class__.__name__}", (), (), text
    counts: dict[str, int] = {}
    for name, _use, count in refs:
        counts[name] = counts.get(name, 0) + count
    return None, tuple(tuple(decl) for decl in decls), tuple(counts.items()), text


def default_workers() -> int:
    try:
        return max(1, len(os.sched_getaffinity(0)))
    except AttributeError:  # not on Linux
        return max(1, os.cpu_count() or 1)


def parse_files(root: Path, items: list[tuple[str, str]], workers: int | None) -> Iterator[tuple]:
    """`parse_file` of each (path, language), in the order given.

    Raises `ParsingFailed` when a worker process ends before it returned
    the files it was given, and a worker's own error as it was raised; the
    workers are stopped when the caller stops early (an error, Ctrl-C)."""
    workers = workers or default_workers()
    if workers <= 1 or len(items) < 2:
        for item in items:
            yield parse_file(root, *item)
        return
    batches = [items[start : start + CHUNK] for start in range(0, len(items), CHUNK)]
    pool = _Pool(root, min(workers, len(batches)))
    complete = False
    try:
        yield from pool.parse(batches)
        complete = True
    finally:
        pool.stop(complete)


@dataclass
class _Worker:
    """A worker process of a `_Pool`, with this process's ends of its pipes."""

    process: multiprocessing.process.BaseProcess
    batches: Connection  # this process's end: it sends
    results: Connection  # this process's end: it receives
    handed: deque[int] = field(default_factory=deque)  # the numbers of the batches it has yet to return


class _Pool:
    """Worker processes, each with a pipe of its own for the batches it is
    handed and one for its results.  Only a worker holds the sending end of
    its results, so that the pipe ends when the worker does, even halfway
    through a message; a pool whose workers share one pipe waits forever
    for the rest of that message."""

    def __init__(self, root: Path, size: int) -> None:
        context = multiprocessing.get_context()
        # A forkserver's children are the server's, not this process's.
        parent = 0 if context.get_start_method() == "forkserver" else os.getpid()
        self.workers: list[_Worker] = []
        try:
            for _ in range(size):
                batches, to_worker = context.Pipe(duplex=False)
                from_worker, results = context.Pipe(duplex=False)
                process = context.Process(
                    target=_work, args=(os.fspath(root), parent, batches, results), name="parsing", daemon=True
                )
                process.start()
                # The worker's ends are its own from now on: closed here before
                # the next worker starts, so that it does not get them either.
                batches.close()
                results.close()
                self.workers.append(_Worker(process, to_worker, from_worker))
        except BaseException:
            self.stop(complete=False)
            raise

    def parse(self, batches: list[list]) -> Iterator[tuple]:
        """The parse of each file of `batches`, in order."""
        done: dict[int, list] = {}
        waiting = iter(range(len(batches)))
        for worker in self.workers:
            for number in itertools.islice(waiting, AHEAD):
                self._hand(worker, number, batches[number])
        for number in range(len(batches)):
            while number not in done:
                busy = [worker for worker in self.workers if worker.handed]
                ready = wait([worker.results for worker in busy] + [worker.process.sentinel for worker in busy])
                for worker in busy:
                    if worker.results in ready or worker.process.sentinel in ready:
                        self._receive(worker, done)
                        for following in itertools.islice(waiting, AHEAD - len(worker.handed)):
                            self._hand(worker, following, batches[following])
            yield from done.pop(number)

    def _hand(self, worker: _Worker, number: int, batch: list) -> None:
        try:
            worker.batches.send((number, batch))
        except OSError:  # nobody reads the pipe any more
            raise ParsingFailed(self._died(worker)) from None
        worker.handed.append(number)

    def _receive(self, worker: _Worker, done: dict[int, list]) -> None:
        """Take the results the worker sent; a worker that ended before it
        returned every batch it was handed is an error."""
        while worker.handed and worker.results.poll():  # also true once the pipe ended
            try:
                number, parsed, error = worker.results.recv()
            except (EOFError, OSError):  # the pipe ended, before or in the middle of a message
                raise ParsingFailed(self._died(worker)) from None
            if error is not None:
                raise error
            worker.handed.remove(number)
            done[number] = parsed
        if worker.handed and worker.process.exitcode is not None:
            raise ParsingFailed(self._died(worker))

    @staticmethod
    def _died(worker: _Worker) -> str:
        worker.process.join(5)  # it is gone, or going, once its pipes ended
        code = worker.process.exitcode
        how = "for a reason unknown" if code is None else f"signal {-code}" if code < 0 else f"status {code}"
        return f"a process parsing the tree's files ended ({how}) before it returned them"

    def stop(self, complete: bool) -> None:
        """End the workers: once they are done, as soon as they read that
        there is no more work; else (an error, Ctrl-C) at once."""
        for worker in self.workers:
            if complete:
                with contextlib.suppress(OSError):
                    worker.batches.send(None)
            elif worker.process.is_alive():
                worker.process.terminate()
        for worker in self.workers:
            worker.process.join()
            worker.batches.close()
            worker.results.close()


# -- the index -----------------------------------------------------------------


def _next_id(connection: sqlite3.Connection, table: str) -> int:
    return connection.execute(f"SELECT IFNULL(MAX(id), 0) + 1 FROM {table}").fetchone()[0]


def _write(connection: sqlite3.Connection, sql: str, rows: list) -> None:
    if rows:
        connection.executemany(sql, rows)
        rows.clear()


_INSERT_DECL = (
    "INSERT INTO declarations (id, file_id, name, fqn, kind, start_line, end_line, exported, definition)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"
)
_INSERT_REF = "INSERT INTO refs (source_file_id, target_id, resolution, count) VALUES (?, ?, ?, ?)"
_INSERT_USE = "INSERT INTO uses (name, file_id, count) VALUES (?, ?, ?)"
_INSERT_SOURCE = (
    "INSERT INTO sources (file_id, size, mtime_ns, problem, analysis, lines, summary) VALUES (?, ?, ?, ?, NULL, ?, ?)"
)


def build(
    db: Database,
    root: Path,
    files: dict[str, tuple[str, int, int]],
    stats: IndexStats,
    workers: int | None = None,
    progress=sys.stderr,
) -> None:
    """Index the files of `files` that are not Python into `db`, which
    holds none of them yet.

    Declarations and uses are written as the workers hand them over; names
    are then resolved in name order, reading both back sorted by name, so
    that memory does not grow with the size of the tree.
    """
    connection = db.connection
    todo = [(path, entry) for path, entry in files.items() if entry[0] != PYTHON]
    if not todo:
        return
    # Indexes are made once the rows are in: sorting once beats keeping
    # them in order row by row.
    indexes = connection.execute(
        "SELECT name, sql FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL"
        " AND tbl_name IN ('declarations', 'refs', 'uses')"
    ).fetchall()
    for name, _sql in indexes:
        connection.execute(f'DROP INDEX "{name}"')
    _load(connection, root, todo, stats, workers, progress)
    started = time.perf_counter()
    for _name, sql in indexes:
        connection.execute(sql)
    if progress is not None and len(todo) >= MIN_FILES:
        print(f"indexed the index's tables in {time.perf_counter() - started:.1f} s", file=progress, flush=True)


def _load(connection: sqlite3.Connection, root: Path, todo: list, stats: IndexStats, workers, progress) -> None:
    first = _next_id(connection, "files")
    connection.executemany(
        "INSERT INTO files (id, path, language) VALUES (?, ?, ?)",
        [(first + i, path, entry[0]) for i, (path, entry) in enumerate(todo)],
    )
    decl_id = _next_id(connection, "declarations")
    decl_rows: list = []
    use_rows: list = []
    source_rows: list = []
    bar = Progress(progress, len(todo), "parsing")
    items = [(path, entry[0]) for path, entry in todo]
    for i, (problem, decls, uses, text) in enumerate(parse_files(root, items, workers)):
        file_id = first + i
        for name, fqn, kind, start, end, exported, definition in decls:
            decl_rows.append((decl_id, file_id, name, fqn, kind, start, end, int(exported), int(definition)))
            decl_id += 1
        use_rows.extend((name, file_id, count) for name, count in uses)
        source_rows.append((file_id, *todo[i][1][1:], problem, *text))
        if problem is not None:
            stats.unparsable[todo[i][0]] = problem
        stats.declarations += len(decls)
        if len(decl_rows) >= BATCH:
            _write(connection, _INSERT_DECL, decl_rows)
        if len(use_rows) >= BATCH:
            _write(connection, _INSERT_USE, use_rows)
        bar.update(i + 1)
    bar.close()
    _write(connection, _INSERT_DECL, decl_rows)
    _write(connection, _INSERT_USE, use_rows)
    _write(connection, _INSERT_SOURCE, source_rows)
    stats.files += len(todo)
    stats.parsed += len(todo)

    started = time.perf_counter()
    paths = {first + i: path for i, (path, _entry) in enumerate(todo)}
    families = {first + i: family_of(entry[0]) for i, (_path, entry) in enumerate(todo)}
    production = {file_id: not is_test_path(path) for file_id, path in paths.items()}
    declared = connection.execute("SELECT name, id, file_id, definition, start_line FROM declarations ORDER BY name")
    used = connection.execute("SELECT name, file_id, count FROM uses ORDER BY name")
    rows: list = []
    for _name, decls, users in _merge_by_name(declared, used):
        by_family: dict[str, list[Candidate]] = {}
        for _n, decl_id, file_id, definition, start in decls:
            family = families.get(file_id)
            if family is not None:  # not a Python file
                by_family.setdefault(family, []).append(
                    (decl_id, file_id, paths[file_id], bool(definition), production[file_id], start)
                )
        if not by_family:
            continue
        users_by: dict[str, list[tuple[int, str, int]]] = {}
        for _n, file_id, count in users:
            users_by.setdefault(families[file_id], []).append((file_id, paths[file_id], count))
        for family, candidates in by_family.items():
            for row in resolve_name(candidates, users_by.get(family, ())):
                rows.append(row)
                _count(stats, row)
        if len(rows) >= BATCH:
            _write(connection, _INSERT_REF, rows)
    _write(connection, _INSERT_REF, rows)
    if progress is not None and len(todo) >= MIN_FILES:
        print(
            f"resolved the names of {len(todo)} files into {stats.references} references"
            f" in {time.perf_counter() - started:.1f} s",
            file=progress,
            flush=True,
        )


def _merge_by_name(declared: Iterable[tuple], used: Iterable[tuple]) -> Iterator[tuple[str, list, list]]:
    """(name, its declaration rows, its use rows) for every name that has
    declarations, from two streams of rows sorted by name (first item)."""
    used = iter(used)
    use = next(used, None)

    def uses_of(name: str) -> list:
        nonlocal use
        while use is not None and use[0] < name:
            use = next(used, None)
        users = []
        while use is not None and use[0] == name:
            users.append(use)
            use = next(used, None)
        return users

    group: list = []
    for row in declared:
        if group and row[0] != group[0][0]:
            yield group[0][0], group, uses_of(group[0][0])
            group = []
        group.append(row)
    if group:
        yield group[0][0], group, uses_of(group[0][0])


def _count(stats: IndexStats, row: tuple) -> None:
    stats.references += 1
    stats.by_resolution[row[2]] = stats.by_resolution.get(row[2], 0) + row[3]


# -- bringing an index up to date ----------------------------------------------


def refresh(
    db: Database,
    root: Path,
    files: dict[str, tuple[str, int, int]],
    stats: IndexStats,
    exclude=(),
    keep=(),
    workers: int | None = None,
    progress=sys.stderr,
) -> None:
    """Bring `db` (an index of this tree by this engine) up to date with
    `files`, inside the caller's transaction."""
    connection = db.connection
    indexed = {
        path: (file_id, language, size, mtime_ns)
        for file_id, path, language, size, mtime_ns in connection.execute(
            "SELECT f.id, f.path, f.language, s.size, s.mtime_ns FROM files AS f JOIN sources AS s ON s.file_id = f.id"
        )
    }
    python_now = {path: entry[1:] for path, entry in files.items() if entry[0] == PYTHON}
    python_then = {path: entry[2:] for path, entry in indexed.items() if entry[1] == PYTHON}
    if python_now != python_then:
        _refresh_python(db, root, stats, exclude, keep, progress)

    changed, added, removed = [], [], []
    for path, (language, size, mtime_ns) in files.items():
        if language == PYTHON:
            continue
        old = indexed.get(path)
        if old is None:
            added.append(path)
        elif old[1] != language or old[2:] != (size, mtime_ns):
            changed.append(path)
    removed = [path for path, entry in indexed.items() if entry[1] != PYTHON and path not in files]
    if not (changed or added or removed):
        return

    todo = changed + added
    bar = Progress(progress, len(todo), f"parsing {len(todo)} files")
    parsed = {}
    for i, result in enumerate(parse_files(root, [(path, files[path][0]) for path in todo], workers)):
        parsed[todo[i]] = result
        bar.update(i + 1)
    bar.close()
    stats.parsed += len(todo)

    # What each changed or removed file declared, by name, in line order.
    old_decls: dict[int, dict[str, list[tuple]]] = {}
    for path in changed + removed:
        file_id = indexed[path][0]
        by_name: dict[str, list[tuple]] = {}
        for row in connection.execute(
            "SELECT id, name, fqn, kind, definition, start_line, end_line, exported FROM declarations"
            " WHERE file_id = ? ORDER BY start_line, id",
            (file_id,),
        ):
            by_name.setdefault(row[1], []).append(row)
        old_decls[file_id] = by_name

    # Which names change their declarations, and what happens to each
    # declaration of a changed file.
    affected: set[tuple[str, str]] = set()
    kept_updates, dropped, new_decls = [], [], []  # (id, start, end, exported), ids, (file id, decl)
    for path in removed:
        file_id, language = indexed[path][:2]
        for name, rows in old_decls[file_id].items():
            affected.add((family_of(language), name))
            dropped.extend(row[0] for row in rows)
    for path in changed + added:
        language = files[path][0]
        family = family_of(language)
        problem, decls, _uses, _text = parsed[path]
        now: dict[str, list[tuple]] = {}
        for decl in sorted(decls, key=lambda d: d[3]):
            now.setdefault(decl[0], []).append(decl)
        before = old_decls.get(indexed[path][0], {}) if path in indexed else {}
        file_key = indexed[path][0] if path in indexed else path
        for name in before.keys() | now.keys():
            old_rows, new_rows = before.get(name, []), now.get(name, [])
            if [(r[2], r[3], bool(r[4])) for r in old_rows] == [(d[1], d[2], bool(d[6])) for d in new_rows]:
                for r, d in zip(old_rows, new_rows, strict=True):
                    if (r[5], r[6], bool(r[7])) != (d[3], d[4], bool(d[5])):
                        kept_updates.append((d[3], d[4], int(d[5]), r[0]))
            else:
                affected.add((family, name))
                dropped.extend(r[0] for r in old_rows)
                new_decls.extend((file_key, d) for d in new_rows)

    # Every reference to a declaration of an affected name goes, and every
    # reference from a changed or removed file; they are made again below.
    targets = _declarations_named(connection, affected, _file_facts(connection))
    connection.executemany(
        "DELETE FROM refs WHERE target_id = ?", [(decl[0],) for decls in targets.values() for decl in decls]
    )
    gone = [(indexed[path][0],) for path in changed + removed]
    connection.executemany("DELETE FROM refs WHERE source_file_id = ?", gone)
    connection.executemany("DELETE FROM uses WHERE file_id = ?", gone)
    connection.executemany("DELETE FROM declarations WHERE id = ?", [(i,) for i in dropped])
    connection.executemany(
        "UPDATE declarations SET start_line = ?, end_line = ?, exported = ? WHERE id = ?", kept_updates
    )
    removed_ids = [(indexed[path][0],) for path in removed]
    connection.executemany("DELETE FROM sources WHERE file_id = ?", removed_ids)
    connection.executemany("DELETE FROM files WHERE id = ?", removed_ids)

    first = _next_id(connection, "files")
    file_ids = {path: indexed[path][0] for path in changed}
    file_ids.update((path, first + i) for i, path in enumerate(added))
    connection.executemany(
        "INSERT INTO files (id, path, language) VALUES (?, ?, ?)", [(file_ids[p], p, files[p][0]) for p in added]
    )
    connection.executemany("UPDATE files SET language = ? WHERE id = ?", [(files[p][0], file_ids[p]) for p in changed])
    connection.executemany("DELETE FROM sources WHERE file_id = ?", [(file_ids[p],) for p in changed])
    connection.executemany(_INSERT_SOURCE, [(file_ids[p], *files[p][1:], parsed[p][0], *parsed[p][3]) for p in todo])
    for path in todo:
        if parsed[path][0] is not None:
            stats.unparsable[path] = parsed[path][0]
    decl_id = _next_id(connection, "declarations")
    rows = []
    for file_key, (name, fqn, kind, start, end, exported, definition) in new_decls:
        file_id = file_key if isinstance(file_key, int) else file_ids[file_key]
        rows.append((decl_id, file_id, name, fqn, kind, start, end, int(exported), int(definition)))
        decl_id += 1
    _write(connection, _INSERT_DECL, rows)
    connection.executemany(_INSERT_USE, [(name, file_ids[p], count) for p in todo for name, count in parsed[p][2]])

    # The names to resolve again, with the users to resolve them for: every
    # user of a name whose declarations changed (None), else the changed and
    # new files that use it, with their counts.
    work: dict[tuple[str, str], list[tuple[int, str, int]] | None] = dict.fromkeys(affected)
    for path in todo:
        family = family_of(files[path][0])
        for name, count in parsed[path][2]:
            key = (family, name)
            if key not in work:
                work[key] = []
            if work[key] is not None:
                work[key].append((file_ids[path], path, count))
    _resolve_again(connection, work, stats)


def _file_facts(connection: sqlite3.Connection) -> dict[int, tuple[str, str | None, bool]]:
    """(path, language family or None for Python, production) of every file."""
    return {
        file_id: (path, None if language in (None, PYTHON) else family_of(language), not is_test_path(path))
        for file_id, path, language in connection.execute("SELECT id, path, language FROM files")
    }


def _chunks(items: list, size: int = 2000) -> Iterator[list]:
    for start in range(0, len(items), size):
        yield items[start : start + size]


def _declarations_named(connection: sqlite3.Connection, keys: Iterable[tuple[str, str]], facts: dict) -> dict:
    """The declarations of each (family, name), as the resolver takes them."""
    result: dict[tuple[str, str], list[Candidate]] = {key: [] for key in keys}
    names = sorted({name for _family, name in result})
    for chunk in _chunks(names):
        for name, decl_id, file_id, definition, start in connection.execute(
            "SELECT name, id, file_id, definition, start_line FROM declarations"
            " WHERE name IN (SELECT value FROM json_each(?))",
            (json.dumps(chunk),),
        ):
            path, family, production = facts[file_id]
            found = result.get((family, name))
            if found is not None:
                found.append((decl_id, file_id, path, bool(definition), production, start))
    return result


def _resolve_again(connection: sqlite3.Connection, work: dict, stats: IndexStats) -> None:
    facts = _file_facts(connection)
    decls_of = _declarations_named(connection, list(work), facts)
    # Every user of the names whose declarations changed.
    users_of: dict[tuple[str, str], list[tuple[int, str, int]]] = {}
    for chunk in _chunks(sorted({key[1] for key, users in work.items() if users is None})):
        for name, file_id, count in connection.execute(
            "SELECT name, file_id, count FROM uses WHERE name IN (SELECT value FROM json_each(?))",
            (json.dumps(chunk),),
        ):
            path, family, _production = facts[file_id]
            key = (family, name)
            if key in work and work[key] is None:
                users_of.setdefault(key, []).append((file_id, path, count))
    rows: list = []
    for key, users in work.items():
        decls = decls_of[key]
        if not decls:
            continue
        if users is None:
            users = users_of.get(key, [])
        for row in resolve_name(decls, sorted(users)):
            rows.append(row)
            _count(stats, row)
        if len(rows) >= BATCH:
            _write(connection, _INSERT_REF, rows)
    _write(connection, _INSERT_REF, rows)


def _refresh_python(db: Database, root: Path, stats: IndexStats, exclude, keep, progress) -> None:
    """Index the Python files again (their imports are resolved over all of
    them) and replace the rows of the Python files with the new ones."""
    connection = db.connection
    scratch = Database()
    with scratch:
        found = index_tree(root, scratch, progress, exclude, keep, previous=db)
        ids = [row[0] for row in connection.execute("SELECT id FROM files WHERE language = ?", (PYTHON,))]
        params = [(i,) for i in ids]
        connection.executemany("DELETE FROM refs WHERE source_file_id = ?", params)
        connection.executemany("DELETE FROM declarations WHERE file_id = ?", params)
        connection.executemany("DELETE FROM sources WHERE file_id = ?", params)
        connection.executemany("DELETE FROM files WHERE id = ?", params)
        _copy_rows(scratch.connection, connection)
    _merge(stats, found)


def _copy_rows(source: sqlite3.Connection, target: sqlite3.Connection) -> None:
    """Append every row of the index `source` to `target`, with new ids."""
    files = _next_id(target, "files") - 1
    decls = _next_id(target, "declarations") - 1
    target.executemany(
        "INSERT INTO files (id, path, language) VALUES (?, ?, ?)",
        ((i + files, path, language) for i, path, language in source.execute("SELECT id, path, language FROM files")),
    )
    target.executemany(
        "INSERT INTO sources (file_id, size, mtime_ns, problem, analysis, lines, summary) VALUES (?, ?, ?, ?, ?, ?, ?)",
        (
            (i + files, *rest)
            for i, *rest in source.execute(
                "SELECT file_id, size, mtime_ns, problem, analysis, lines, summary FROM sources"
            )
        ),
    )
    target.executemany(
        "INSERT INTO declarations (id, file_id, name, fqn, kind, start_line, end_line, exported, definition)"
        " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
        (
            (i + decls, f + files, *rest)
            for i, f, *rest in source.execute(
                "SELECT id, file_id, name, fqn, kind, start_line, end_line, exported, definition FROM declarations"
            )
        ),
    )
    target.executemany(
        _INSERT_REF,
        (
            (s + files, t + decls, resolution, count)
            for s, t, resolution, count in source.execute(
                "SELECT source_file_id, target_id, resolution, count FROM refs"
            )
        ),
    )
    target.executemany(
        "INSERT OR IGNORE INTO resolved_languages (language) VALUES (?)",
        source.execute("SELECT language FROM resolved_languages").fetchall(),
    )


def _merge(stats: IndexStats, other: IndexStats) -> None:
    stats.files += other.files
    stats.parsed += other.parsed
    stats.reused += other.reused
    stats.declarations += other.declarations
    stats.references += other.references
    for resolution, n in other.by_resolution.items():
        stats.by_resolution[resolution] = stats.by_resolution.get(resolution, 0) + n
    stats.unparsable.update(other.unparsable)


def index_python(db: Database, root: Path, stats: IndexStats, exclude=(), keep=(), previous=None, progress=None):
    """The Python files of the tree, indexed by the Python indexer into `db`."""
    _merge(stats, index_tree(root, db, progress, exclude, keep, previous))
