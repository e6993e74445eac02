"""Ground every page of a source tree and write the wiki as a folder of Markdown.

    ground wiki [--tree DIR] --out DIR [--pages FILE] [--jobs N]

The index of the tree is brought up to date as for one page.  The pages are
the folders that directly hold indexed files (each page is the files of its
folder, not those of its subfolders), or the pages of a TOML page map: a
title, then the paths or glob patterns of its files.

    "Email parsing" = ["email/parser.py", "email/feedparser.py"]
    Storage = ["storage/*.py"]

Pages are grounded by `--jobs` processes, this one and worker processes
beside it, each of which opens the index read-only once; every page goes
through `ground_page`, the function that the one-page command prints.
A file unchanged since it was indexed is not read again: its line count
and summary are the index's.  The folder gets `index.md`, which lists every
page and draws the strongest uses between pages, and one document per page
under `pages/`.  Nothing in them changes from run to run: the same index
gives the same bytes, whatever the number of workers.  The wiki is written
beside the output folder and moved into place only when complete.
"""

from __future__ import annotations

import argparse
import contextlib
import fnmatch
import functools
import gc
import hashlib
import itertools
import multiprocessing
import multiprocessing.process
import os
import pickle
import queue
import re
import shutil
import signal
import sqlite3
import sys
import threading
import time
import tomllib
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass, field
from multiprocessing import connection
from multiprocessing.connection import Connection
from pathlib import Path

from tarnwick.indexer.index_file import IndexingInterrupted, printable
from tarnwick.indexer.progress import terminal_bar
from tarnwick.tools import ground as tool
from tarnwick.utils.processes import running, start_worker, stopped_status

# The title of the page of the files at the top of the tree.
TOP_TITLE = "(top level)"
# Uses between pages drawn on the index page, the heaviest first.
MAX_EDGES = 40
# A worker reads the rows of a batch of pages at once: at most this many files
# (a larger page is a batch of its own), which bounds its memory on a large tree.
BATCH_FILES = 1000
# With several workers, batches are made small enough for each to get about this many.
BATCHES_PER_WORKER = 4
# Unless --jobs says otherwise, a process per this many files at most: on
# fewer, a second process costs more than it saves (its start, and the rows
# that the processes' batches both read).
FILES_PER_JOB = 200
# Seconds that closing a pool waits for its idle workers to end by themselves.
CLOSE_SECONDS = 2.0
# Seconds a process waits for a worker's results before it looks whether the workers still run.
WAIT_SECONDS = 0.1
# Seconds between two progress lines when stderr is no terminal.
PROGRESS_EVERY = 3.0
# The index page's first words and the head of its table, by which a folder is known as a wiki
# this command wrote.
INDEX_TITLE = "# Wiki of "
TABLE_HEAD = "| Page | Files | Declarations | Consumer files | Unused public declarations |"
# Bytes of a page's file name at most before its number and ".md" (file systems allow 255).
MAX_NAME_BYTES = 120

# The module's sibling functions that query the index, and those that read or
# summarise files: the time spent in them is told apart from the module's own.
QUERY_FUNCTIONS = (
    "scope_files",
    "inbound_references",
    "import_resolved_languages",
    "scope_symbols",
    "outbound_references",
    "importing_tests",
)
FILE_FUNCTIONS = ("file_summary",)

EPILOG = [
    "Without --pages, every folder that directly holds indexed files is one page. A page map is a TOML file "
    'of titles, each with a list of paths or glob patterns relative to the tree: Storage = ["storage/*.py"].',
    "The wiki is DIR/index.md and one document per page under DIR/pages/. It is written beside DIR and "
    "moved into place only when complete; an existing DIR must be empty or hold a wiki written before and "
    "nothing else, and it may not hold the index or the current folder.",
    "The index of a tree is {home}/<tree name>-<hash of its path>-" + tool.PYTHON + ".sqlite unless --index "
    "names another file. Each run first brings it up to date.",
]


class PageMapError(Exception):
    """A page map that cannot be used, said in one line; the command exits with status 2."""


@dataclass
class Split:
    """Seconds spent in the index's queries, in reading files and in the module's own calls."""

    queries: float = 0.0
    files: float = 0.0
    module: float = 0.0

    def add(self, other: Split) -> None:
        self.queries += other.queries
        self.files += other.files
        self.module += other.module


@dataclass
class Result:
    """What a worker sends back for one page."""

    number: int
    page: tool.Page
    split: Split = field(default_factory=Split)


def default_jobs() -> int:
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:  # not on every platform
        return os.cpu_count() or 1


def _jobs(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a whole number: {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be 1 or more, not {text}")
    return value


def parse_args(argv: list[str]) -> argparse.Namespace:
    parser = tool._Parser(
        prog="ground wiki",
        description=__doc__.split("\n\n")[0],
        epilog=tool._epilog(EPILOG),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--out", type=Path, required=True, metavar="DIR", help="folder of the wiki")
    parser.add_argument(
        "--pages", type=Path, metavar="FILE", help="TOML page map, '-' for stdin (default: one page per folder)"
    )
    parser.add_argument(
        "--jobs",
        type=_jobs,
        metavar="N",
        help=f"processes that ground pages, this one and N-1 workers, at most one per core (default: one per core, "
        f"and at most one per {FILES_PER_JOB} files)",
    )
    tool.add_tree_options(parser)
    args = parser.parse_args(argv)
    tool.resolve_tree(parser, args)
    problem = _out_problem(args.out, Path(args.index or tool.default_index(args.tree)))
    if problem is not None:
        parser.error(f"argument --out: {printable(args.out)} {problem}")
    return args


def _out_problem(out: Path, index: Path) -> str | None:
    """Why the wiki cannot go to `out`, if it cannot: the wiki replaces the whole folder, so
    the folder must be new, empty or a wiki this command wrote and nothing else, and it must
    hold neither the current folder nor the index."""
    whole = out.resolve()
    try:
        here = [("the current folder", Path.cwd())]
    except OSError:  # a current folder that was removed: the wiki cannot replace it
        here = []
    for what, place in [*here, ("the index", index.absolute())]:
        place = place.resolve()
        if place == whole or whole in place.parents:
            how = "is" if place == whole else "holds"
            return f"{how} {what}, and the wiki replaces the whole folder: choose another folder"
    if not out.exists():
        return None
    if not out.is_dir():
        return "is no folder"
    if os.path.ismount(out):
        return "is a mount point, which the wiki cannot replace: choose a folder inside it"
    return _foreign(out)


def _foreign(out: Path) -> str | None:
    """What keeps the folder `out` from being replaced by a wiki, if anything: it must be empty
    or a wiki this command wrote, its index page and the page documents that page links to."""
    entries = sorted(entry.name for entry in out.iterdir())
    if not entries:
        return None
    linked = _wiki_pages(out)
    if linked is None:
        return "is neither an empty folder nor a wiki written before"
    pages = out / "pages"
    others = [name for name in entries if name not in ("index.md", "pages")]
    if not others and pages.is_dir() and not pages.is_symlink():
        others = [f"pages/{entry.name}" for entry in pages.iterdir() if not _is_page_file(entry, linked)]
    elif "pages" in entries and not others:
        others = ["pages"]
    if others:
        return (
            f"holds {min(others)!r}, which no wiki of this command holds, and the wiki replaces the whole "
            "folder: move it away or choose another folder"
        )
    return None


def _is_page_file(entry: Path, linked: set[str]) -> bool:
    return entry.name in linked and entry.is_file() and not entry.is_symlink()


# A row of the index page's table of pages, with the document it links to.
_PAGE_ROW = re.compile(r"^\| \[.*\]\(pages/([\w.-]+\.md)\) \|", re.MULTILINE)


def _wiki_pages(folder: Path) -> set[str] | None:
    """The page documents that the index page of a wiki this command wrote in `folder` links
    to; None when `folder` holds no such index page."""
    try:
        text = (folder / "index.md").read_bytes().decode("utf-8")
    except (OSError, UnicodeDecodeError):
        return None
    if not text.startswith(INDEX_TITLE) or f"\n{TABLE_HEAD}\n" not in text:
        return None
    return set(_PAGE_ROW.findall(text))


def _is_wiki(folder: Path) -> bool:
    return _wiki_pages(folder) is not None


# -- pages ---------------------------------------------------------------------


def read_page_map(path: Path) -> dict[str, list[str]]:
    """The titles and patterns of a page map; `PageMapError` says what is wrong with it."""
    try:
        if str(path) == "-" and sys.stdin is None:
            raise PageMapError("cannot read it: standard input is closed")
        text = (sys.stdin.buffer.read() if str(path) == "-" else path.read_bytes()).decode("utf-8-sig")
    except OSError as error:
        raise PageMapError(f"cannot read it: {error.strerror or error}") from None
    except UnicodeDecodeError:
        raise PageMapError("it is no TOML: not UTF-8 text") from None
    try:
        data = tomllib.loads(text)
    except tomllib.TOMLDecodeError as error:
        twice = _title_used_twice(text)
        if twice is not None:
            raise PageMapError(f"the title {twice!r} is used twice") from None
        raise PageMapError(f"it is no TOML: {' '.join(str(error).split())}") from None
    if not data:
        raise PageMapError("it holds no pages")
    pages = {}
    for title, patterns in data.items():
        if isinstance(patterns, str):
            patterns = [patterns]
        if not isinstance(patterns, list) or not patterns or not all(isinstance(p, str) for p in patterns):
            # `web.src = [...]` is the key `src` in the table `web`: a title with dots is quoted.
            dotted = f' (a title with dots is quoted: "{title}.{next(iter(patterns))}")' if _is_table(patterns) else ""
            raise PageMapError(f"the page {title!r} is no list of paths or glob patterns{dotted}")
        if not title.strip():
            raise PageMapError("a page has an empty title")
        pages[title] = patterns
    return pages


def _is_table(value: object) -> bool:
    return isinstance(value, dict) and len(value) == 1 and isinstance(next(iter(value.values())), list)


_KEY_LINE = re.compile(r"^\s*([^#\[\s=][^=]*?)\s*=")


def _title_used_twice(text: str) -> str | None:
    """The first top-level title that the page map gives twice, if any."""
    seen = set()
    for line in text.splitlines():
        if line.lstrip().startswith("["):
            break  # a table: no more top-level titles
        match = _KEY_LINE.match(line)
        if not match:
            continue
        try:
            key = tomllib.loads(f"{match[1]} = 0")
        except tomllib.TOMLDecodeError:
            continue  # not a key: a line inside a value
        title = next(iter(key))
        if title in seen:
            return title
        seen.add(title)
    return None


def folder_pages(indexed: list[str]) -> list[tuple[str, list[str]]]:
    """One page per folder that directly holds indexed files, by folder."""
    folders: dict[str, list[str]] = {}
    for path in indexed:
        folders.setdefault(path.rpartition("/")[0], []).append(path)
    return [(folder or TOP_TITLE, sorted(paths)) for folder, paths in sorted(folders.items())]


def mapped_pages(page_map: dict[str, list[str]], indexed: list[str]) -> list[tuple[str, list[str]]]:
    """The pages of a page map, each with the indexed files its patterns match, in the map's order."""
    pages, known = [], set(indexed)
    for title, patterns in page_map.items():
        chosen: list[str] = []
        for pattern in patterns:
            # An indexed path is itself, whatever it holds ('app/[slug]/page.tsx').
            matches = [pattern] if pattern in known else [p for p in indexed if fnmatch.fnmatchcase(p, pattern)]
            if not matches:
                raise PageMapError(f"the pattern {pattern!r} of the page {title!r} matches no indexed file")
            chosen.extend(path for path in matches if path not in chosen)
        pages.append((title, chosen))
    return pages


def file_names(titles: Iterable[str]) -> list[str]:
    """A file name for each page's document: its title made safe, unique regardless of case."""
    taken: set[str] = set()
    names = []
    for title in titles:
        base = re.sub(r"[^\w.-]+", "-", title).strip(".-") or "page"
        if len(base.encode()) > MAX_NAME_BYTES:  # a folder deep down: its head, and a digest of the whole title
            digest = hashlib.sha256(title.encode("utf-8", "surrogatepass")).hexdigest()[:12]
            head = base.encode()[: MAX_NAME_BYTES - len(digest) - 1].decode("utf-8", "ignore")
            base = f"{head.rstrip('.-')}-{digest}"
        name, number = base, 1
        while name.casefold() in taken:
            number += 1
            name = f"{base}-{number}"
        taken.add(name.casefold())
        names.append(f"{name}.md")
    return names


# -- grounding -----------------------------------------------------------------


class Worker:
    """Grounds pages from one read-only handle on the index; one per worker process."""

    def __init__(self, index: Path, tree: Path, quota: tool.Quota) -> None:
        import scope
        from tarnwick.storage.database import Database
        from tarnwick.workers.wiki.checkout import indexed_reader

        self.scope = scope
        self.db = Database(index, readonly=True)
        self.tree = tree
        self.quota = quota
        self.split = Split()
        self.timer = tool.Timer()
        # The index read every file it holds as it indexed it, and kept the
        # line count and summary a page shows: a file unchanged since is not
        # read again.  What the index knows of a batch's files is read with
        # the batch, so that each process reads it only for its own pages.
        self.reader = indexed_reader(tree, ())
        self.read_lines = _timed(self.reader, self.split, "files")

    def patch_siblings(self) -> Callable[[], None]:
        """Time the sibling functions that the module calls through its own
        attributes, and remember `is_test_path`'s answers (it is asked of the
        same source files page after page); returns the function that puts
        the originals back."""
        from tarnwick.workers.wiki.checkout import indexed_summary

        originals = {name: getattr(self.scope, name) for name in (*QUERY_FUNCTIONS, *FILE_FUNCTIONS, "is_test_path")}
        for name, function in originals.items():
            if name == "is_test_path":
                setattr(self.scope, name, functools.cache(function))
                continue
            if name == "file_summary":  # the summaries of unchanged files come from the index
                function = indexed_summary(function)
            setattr(self.scope, name, _timed(function, self.split, "queries" if name in QUERY_FUNCTIONS else "files"))

        def restore() -> None:
            for name, function in originals.items():
                setattr(self.scope, name, function)

        return restore

    def ground(self, batch: list[tuple[int, str, list[str]]]) -> list[Result]:
        """Ground a batch of pages from one bulk read of their files' rows.

        The cyclic garbage collector waits until the batch is done: the
        batch's records hold no cycles, and a collection every few hundred
        of the many records made would walk all the others each time."""
        from tarnwick.storage.grounding_queries import PrefetchedIndex

        collecting = gc.isenabled()
        gc.disable()
        try:
            start = time.perf_counter()
            pages = [paths for _, _, paths in batch]
            self.reader.learn(self.db.file_texts([path for paths in pages for path in paths]))
            db = PrefetchedIndex(self.db, pages)
            read = time.perf_counter() - start
            results = [self._ground_page(db, task) for task in batch]
        finally:
            if collecting:
                gc.enable()
        results[0].split.queries += read
        return results

    def _ground_page(self, db, task: tuple[int, str, list[str]]) -> Result:
        number, title, paths = task
        before = Split(self.split.queries, self.split.files, sum(self.timer.spent.values()))
        heading = f"{_text(title)}: grounding of {tool.plural(len(paths), 'file')} in {tool.code(printable(self.tree))}"
        page = tool.ground_page(db, self.read_lines, paths, heading, self.quota, self.timer)
        queries, files = self.split.queries - before.queries, self.split.files - before.files
        module = sum(self.timer.spent.values()) - before.module - queries - files
        return Result(number, page, Split(queries, files, module))

    def close(self) -> None:
        self.db.close()


def _timed(function: Callable, split: Split, bucket: str) -> Callable:
    def timed(*args):
        start = time.perf_counter()
        try:
            return function(*args)
        finally:
            setattr(split, bucket, getattr(split, bucket) + time.perf_counter() - start)

    return timed


def _serve(
    parent: int, handout: _Handout, orders: Connection, results: Connection, inherited: list[Connection]
) -> None:
    """A worker process: for each run it is given, grounds the batches it takes until none is
    left and sends back their results, then waits for the next run; it ends when no more runs
    come, or after sending the error that stopped it.  Ctrl-C is the parent's to handle, and
    the worker ends with the parent.  A thread sends the results while the next batch is
    grounded.  The worker ends without taking its heap apart first."""
    start_worker(parent)
    for other in inherited:  # the sending ends of the pool's orders, its own included, which a fork copied
        other.close()
    outgoing: queue.SimpleQueue = queue.SimpleQueue()
    sender = threading.Thread(target=_send_each, args=(outgoing, results))
    sender.start()
    run = 0
    try:
        while True:
            try:
                run, index, tree, quota, work = orders.recv()
            except EOFError:  # the pool is closed
                break
            # A worker of its own for each run: the index may have changed since the last.
            worker = Worker(index, tree, quota)
            restore = worker.patch_siblings()
            try:
                while (batch := handout.take(run, work)) is not None:
                    outgoing.put((run, worker.ground(batch)))
            finally:
                restore()
                worker.close()
    except BaseException as error:  # sent to the parent, which raises it
        outgoing.put((run, _sendable(error)))
    outgoing.put(None)
    sender.join()
    os._exit(0)


def _send_each(outgoing: queue.SimpleQueue, results: Connection) -> None:
    """Sends what comes, until None; a parent that went away leaves nothing to send to."""
    while (item := outgoing.get()) is not None:
        try:
            results.send(item)
        except OSError:
            return


def _sendable(error: BaseException) -> BaseException:
    """`error`, or, when it cannot be pickled, a RuntimeError that says what it was."""
    try:
        pickle.dumps(error)
    except Exception:
        return RuntimeError(f"a worker process failed with an error that cannot be sent back: {error!r}")
    return error


# Runs of worker processes are numbered in this process, across pools: a worker that asks for
# a batch of a run other than the one the handout serves gets none.
_RUNS = itertools.count(1)


class _Handout:
    """The batches of a run, each handed to the first process that asks for one: the number of
    the run and of its next batch are kept in memory that the processes share, so that no
    process waits for another to hand it work.  A worker late for its run, even one that asks
    once its pool is gone and that memory serves another pool, finds another run's number and
    takes nothing."""

    def __init__(self, context) -> None:
        self.state = context.Array("q", 2)  # the run, the number of its next batch

    def open(self, run: int) -> None:
        with self.state.get_lock():
            self.state[0], self.state[1] = run, 0

    def take(self, run: int, work: list[list[tuple[int, str, list[str]]]]) -> list[tuple[int, str, list[str]]] | None:
        with self.state.get_lock():
            if self.state[0] != run:
                return None
            number = self.state[1]
            self.state[1] = number + 1
        return work[number] if number < len(work) else None


class _Arrivals:
    """The results that the worker processes send back, each through its own pipe."""

    def __init__(self) -> None:
        self.processes: dict[Connection, multiprocessing.process.BaseProcess] = {}  # by the pipe still open
        self.every: list[multiprocessing.process.BaseProcess] = []
        self.run = 0

    def add(self, reader: Connection, process: multiprocessing.process.BaseProcess) -> None:
        self.processes[reader] = process
        self.every.append(process)

    def ready(self) -> list[Result] | None:
        """A batch's results if some have come, else None."""
        return self._next(0)

    def wait(self) -> list[Result]:
        """The next batch's results; a worker that ended before sending them all is an error."""
        while True:
            if not self.processes:
                raise tool.GroundError("a worker process ended (status 0) before its pages were grounded")
            got = self._next(WAIT_SECONDS)
            if got is not None:
                return got

    def _next(self, timeout: float) -> list[Result] | None:
        for reader in connection.wait(list(self.processes), timeout):
            try:
                run, got = reader.recv()
            except (EOFError, OSError):  # the worker has ended: with status 0 once it sent everything
                process = self.processes.pop(reader)
                reader.close()
                process.join(WAIT_SECONDS)
                code = process.exitcode
                if code != 0:
                    how = "still running" if code is None else f"signal {-code}" if code < 0 else f"status {code}"
                    raise tool.GroundError(f"a worker process ended ({how}) before its pages were grounded") from None
                continue
            if run != self.run:  # what a worker sent for an earlier run
                continue
            if isinstance(got, BaseException):
                raise got
            return got
        return None

    def close(self) -> None:
        for reader in self.processes:
            reader.close()


class Workers:
    """Worker processes that ground pages beside this one, run after run.

    The command starts them before it brings the index up to date: their start
    costs the run nothing, and, forked while this process is still small, they
    copy little of its memory, and it little of theirs as it grows.  A host
    that grounds one wiki after another may keep them across the runs.  The
    processes are forked (in milliseconds, with the module already imported);
    a process that already runs other threads (a host that calls this from a
    threaded program) starts fresh interpreters instead, as a fork could copy a
    lock another thread holds."""

    def __init__(self, count: int) -> None:
        import scope  # noqa: F401  (imported once, here, for every process)

        methods = multiprocessing.get_all_start_methods()
        forkable = "fork" in methods and threading.active_count() == 1
        context = multiprocessing.get_context("fork" if forkable else "spawn")
        self.handout, self.arrivals = _Handout(context), _Arrivals()
        self.orders: list[Connection] = []
        try:
            with _sigint_held():
                for _ in range(count):
                    # Each worker sends its results through a pipe of its own, whose sending end
                    # only it holds: a worker that dies, even halfway through a message, ends it.
                    reader, writer = context.Pipe(duplex=False)
                    given, orders = context.Pipe(duplex=False)
                    # A worker ends when no more runs can come: at the end of its pipe of orders,
                    # once every sending end is closed, the copies a fork gave workers included.
                    inherited = [*self.orders, orders] if forkable else []
                    process = context.Process(
                        target=_serve, args=(os.getpid(), self.handout, given, writer, inherited), daemon=True
                    )
                    self.arrivals.add(reader, process)
                    self.orders.append(orders)
                    process.start()
                    writer.close()
                    given.close()
        except OSError as error:  # out of processes or of file descriptors
            self.close(stop=True)
            raise tool.GroundError(
                f"cannot start {count} worker {'process' if count == 1 else 'processes'}: {error.strerror or error}; "
                "try a smaller --jobs"
            ) from None
        except BaseException:
            self.close(stop=True)
            raise

    def __len__(self) -> int:
        return len(self.orders)

    def __enter__(self) -> Workers:
        return self

    def __exit__(self, kind, error, trace) -> None:
        self.close(stop=kind is not None)

    def start(self, index: Path, tree: Path, quota: tool.Quota, work: list, count: int) -> int:
        """Give `count` of the workers the batches `work` to take from; returns the run's number."""
        run = next(_RUNS)
        self.handout.open(run)
        self.arrivals.run = run
        for orders in self.orders[:count]:
            try:
                orders.send((run, index, tree, quota, work))
            except OSError:  # a worker that ended since the last run (killed, say) takes no part
                continue
        return run

    def close(self, stop: bool = False) -> None:
        """No more runs: the workers end, and have ended when this returns (none is left for the
        interpreter's exit to wait for).  An idle worker ends as its pipe of orders closes; one
        that does not within `CLOSE_SECONDS` (a process forked meanwhile holds a copy of the
        pipe), or any worker with `stop` (an interrupted or failed run), is ended at once."""
        for orders in self.orders:
            orders.close()
        self.orders = []
        started = [process for process in self.arrivals.every if process.pid is not None]
        deadline = time.monotonic() + (0 if stop else CLOSE_SECONDS)
        for process in started:
            process.join(max(0.0, deadline - time.monotonic()))
        for process in started:
            if process.is_alive():
                process.terminate()
            process.join()
        self.arrivals.close()
        self.arrivals.processes = {}


def batches(tasks: list[tuple[int, str, list[str]]], jobs: int) -> list[list[tuple[int, str, list[str]]]]:
    """The pages in batches that a worker reads in bulk, largest pages first.

    A batch holds at most `BATCH_FILES` files (a larger page is a batch of
    its own), which bounds a worker's memory on a large tree; with several
    workers, batches are smaller still, so that each worker gets a few."""
    tasks = sorted(tasks, key=lambda task: -len(task[2]))
    total = sum(len(task[2]) for task in tasks)
    limit = BATCH_FILES if jobs <= 1 else max(1, min(BATCH_FILES, total // (jobs * BATCHES_PER_WORKER)))
    result: list[list[tuple[int, str, list[str]]]] = []
    files = limit
    for task in tasks:
        if files + len(task[2]) > limit:
            result.append([])
            files = 0
        result[-1].append(task)
        files += len(task[2])
    return result


def ground_pages(
    index: Path,
    tree: Path,
    quota: tool.Quota,
    tasks: list[tuple[int, str, list[str]]],
    jobs: int,
    workers: Workers | None = None,
) -> Iterator[Result]:
    """Ground the pages in `jobs` processes, this one and `jobs - 1` workers (of `workers`, or
    started for this run); the results come as they are done, a batch at a time.  The largest
    pages are handed out first."""
    work = batches(tasks, jobs)
    if jobs <= 1 or len(work) <= 1:
        yield from _ground_here(Worker(index, tree, quota), functools.partial(next, iter(work), None), len(work), None)
        return
    own = workers is None
    if own:
        workers = Workers(jobs - 1)
    complete = False
    try:
        run = workers.start(index, tree, quota, work, min(len(workers), jobs - 1))
        here = Worker(index, tree, quota)
        yield from _ground_here(here, functools.partial(workers.handout.take, run, work), len(work), workers.arrivals)
        complete = True
    finally:
        # Every worker has sent its last results, or had none to take: a pool started for
        # this run lets them end on their own.  An interrupted or failed run stops them now.
        if own or not complete:
            workers.close(stop=not complete)


@contextlib.contextmanager
def _sigint_held() -> Iterator[None]:
    """Ctrl-C waits while the block runs, and processes started in it never see it: a worker
    ignores it only once it has started.  Where signals cannot be held, it comes at once."""
    if not hasattr(signal, "pthread_sigmask"):
        yield
        return
    held = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, held)


def _ground_here(
    worker: Worker, take: Callable[[], list | None], total: int, arrivals: _Arrivals | None
) -> Iterator[Result]:
    """Ground the batches that `take` hands this process with `worker`, and yield the workers'
    results as they come (a worker's error is raised here), until `total` batches are done."""
    restore = worker.patch_siblings()
    try:
        for _ in range(total):
            results = arrivals.ready() if arrivals is not None else None
            if results is None:
                batch = take()
                if batch is not None:
                    results = worker.ground(batch)
                else:  # the workers hold the batches left
                    assert arrivals is not None
                    results = arrivals.wait()
            yield from results
    finally:
        restore()
        worker.close()


# -- progress ------------------------------------------------------------------


class Progress:
    """A progress bar on a terminal; elsewhere a line every few seconds."""

    def __init__(self, total: int, stream=None) -> None:
        self.stream = stream or sys.stderr
        self.total = total
        self.done = 0
        self.start = self.last = time.monotonic()
        self.bar = None
        if self.stream.isatty():
            columns, rows = _size(self.stream)
            try:
                self.bar = terminal_bar(
                    total=total, unit="page", desc="ground", file=self.stream, leave=False, ncols=columns, nrows=rows
                )
            except ImportError:
                pass

    def update(self) -> None:
        self.done += 1
        if self.bar is not None:
            self.bar.update()
            return
        now = time.monotonic()
        if now - self.last >= PROGRESS_EVERY and self.done < self.total:
            self.last = now
            rate = self.done / (now - self.start)
            left = (self.total - self.done) / rate
            print(
                f"ground: {self.done}/{self.total} pages, {rate:.1f} pages/s, {left:.0f} s left",
                file=self.stream,
                flush=True,
            )

    def close(self) -> None:
        if self.bar is not None:
            self.bar.close()


def _size(stream) -> tuple[int, int]:
    """The terminal's columns and rows; a pseudo-terminal nobody sized says 0 (and the bar would hide)."""
    try:
        size = os.get_terminal_size(stream.fileno())
    except (OSError, ValueError, AttributeError):
        return 80, 24
    return size.columns or 80, size.lines or 24


# -- the index page --------------------------------------------------------------


def page_uses(pages: list[tuple[str, list[str]]], grounded: list[tool.Page]) -> dict[tuple[int, int], int]:
    """(user page, used page) -> references: a page uses another when one of its files is a
    consumer of the other, with the references the consumers section counts."""
    pages_of: dict[str, list[int]] = {}
    for number, (_, paths) in enumerate(pages):
        for path in paths:
            pages_of.setdefault(path, []).append(number)
    uses: dict[tuple[int, int], int] = {}
    for used, page in enumerate(grounded):
        for path, refs in page.consumers.items():
            for user in pages_of.get(path, ()):
                if user != used:
                    uses[user, used] = uses.get((user, used), 0) + refs
    return uses


def _cell(text: str) -> str:
    """`text` inside one table cell: its bars escaped (the table's escape, which holds in code spans too)."""
    return tool.one_line(text).replace("|", "\\|")


def _text(text: str) -> str:
    """`text` as Markdown shows it, on one line: the characters that would make a link, a code span,
    emphasis or HTML of it escaped, and the table's bars."""
    return re.sub(r"([\[\]\\`*_<>])", r"\\\1", tool.one_line(text)).replace("|", "\\|")


def _label(text: str) -> str:
    return tool.one_line(text).replace('"', "#quot;")


def index_page(tree: Path, pages: list[tuple[str, list[str]]], names: list[str], grounded: list[tool.Page]) -> str:
    files = {path for _, paths in pages for path in paths}
    out = [
        f"{INDEX_TITLE}{tool.code(printable(tree))}",
        "",
        f"{tool.plural(len(pages), 'page')}, {tool.plural(len(files), 'file')}. "
        "Each page links to its grounding: file cards, consumers, declaration blocks, seeds, neighbours "
        "and name matches. Consumer files are the production files outside the page that use its code, "
        "counted from evidence; unused are its public declarations that no production file outside uses.",
        "",
        TABLE_HEAD,
        "|---|---|---|---|---|",
    ]
    for (title, paths), name, page in zip(pages, names, grounded, strict=True):
        listed = ", ".join(_cell(tool.code(path)) for path in paths)
        out.append(
            f"| [{_text(title)}](pages/{name}) | {listed} | {page.declarations} | {len(page.consumers)} "
            f"| {page.unused} |"
        )
    uses = page_uses(pages, grounded)
    strongest = sorted(uses.items(), key=lambda item: (-item[1], item[0]))[:MAX_EDGES]
    out += ["", "## Uses between pages", ""]
    if not strongest:
        out += ["No page uses another.", ""]
        return "\n".join(out)
    shown = "every one" if len(strongest) == len(uses) else f"the {len(strongest)} heaviest of {len(uses)}"
    out += [
        "A page uses another when one of its files uses the other's code, counted from evidence as the "
        f"consumers section counts; {shown}, labelled with their references.",
        "",
        "```mermaid",
        "graph LR",
    ]
    nodes = sorted({number for edge, _ in strongest for number in edge})
    out += [f'  p{number}["{_label(pages[number][0])}"]' for number in nodes]
    out += [f"  p{user} -->|{refs}| p{used}" for (user, used), refs in strongest]
    out += ["```", ""]
    return "\n".join(out)


# -- writing ---------------------------------------------------------------------


class WrittenThenInterrupted(KeyboardInterrupt):
    """Ctrl-C came once the wiki was in place, while the workers ended."""

    def __init__(self, line: str) -> None:
        super().__init__(line)
        self.line = line


def most_jobs(args: argparse.Namespace) -> int:
    """The processes that may ground pages: `--jobs`, but never more than the cores this process
    may run on, as each keeps a core busy (more only take turns, and cost their start)."""
    return min(args.jobs or default_jobs(), default_jobs())


def write_wiki(args: argparse.Namespace) -> str:
    """Ground every page and move the complete wiki into place; returns the summary line."""
    page_map = read_page_map(args.pages) if args.pages is not None else None
    # The workers start now, while the index is brought up to date; those the pages do not need
    # stay idle, and every worker has ended when this returns.
    line = None
    try:
        with Workers(most_jobs(args) - 1) as workers:
            line = _write_wiki(args, page_map, workers)
    except KeyboardInterrupt:
        if line is None:
            raise
        raise WrittenThenInterrupted(line) from None
    return line


def _write_wiki(args: argparse.Namespace, page_map: dict[str, list[str]] | None, workers: Workers) -> str:
    with tool.open_index(args) as db:
        index = Path(db.path)
        indexed = [row[0] for row in db.query("SELECT path FROM files ORDER BY path")]
    pages = folder_pages(indexed) if page_map is None else mapped_pages(page_map, indexed)
    if not pages:
        raise tool.GroundError(f"the index of {printable(args.tree)} holds no files")
    names = file_names(title for title, _ in pages)

    started = time.perf_counter()  # the index is up to date: from here on, the wiki's own time
    out = args.out.absolute()
    partial = _beside(out, "partial")
    try:
        with _writing(out):
            shutil.rmtree(partial, ignore_errors=True)
            (partial / "pages").mkdir(parents=True)
        grounded: list[tool.Page | None] = [None] * len(pages)
        split = Split()
        tasks = [(number, title, paths) for number, (title, paths) in enumerate(pages)]
        files = len({path for _, paths in pages for path in paths})
        jobs = min(most_jobs(args) if args.jobs else max(1, min(default_jobs(), files // FILES_PER_JOB)), len(pages))
        results = ground_pages(index, args.tree, tool.quota(args), tasks, jobs, workers)
        progress = None
        try:
            for result in results:
                if progress is None:
                    progress = Progress(len(pages))
                grounded[result.number] = result.page
                split.add(result.split)
                with _writing(out):
                    (partial / "pages" / names[result.number]).write_text(result.page.document, encoding="utf-8")
                result.page.document = ""  # written: keep only the counts
                progress.update()
        finally:
            if progress is not None:
                progress.close()
            results.close()  # stops the workers, even when interrupted
        pages_done = [page for page in grounded if page is not None]
        with _writing(out):
            (partial / "index.md").write_text(index_page(args.tree, pages, names, pages_done), encoding="utf-8")
            _move_into_place(partial, out)
    except BaseException:
        shutil.rmtree(partial, ignore_errors=True)
        raise
    seconds = time.perf_counter() - started
    summed = " summed over the workers" if jobs > 1 else ""
    return (
        f"Wrote the wiki of {tool.plural(len(pages), 'page')} ({tool.plural(files, 'file')}) to "
        f"{printable(out.resolve() / 'index.md')} in {seconds:.2f} s, {len(pages) / seconds:.1f} pages/s; "
        f"index queries {split.queries:.2f} s, reading files {split.files:.2f} s, "
        f"module calls {split.module:.2f} s{summed}."
    )


@contextlib.contextmanager
def _writing(out: Path) -> Iterator[None]:
    """An error of the file system while the block writes the wiki says so in one line."""
    try:
        yield
    except OSError as error:
        raise tool.GroundError(f"cannot write the wiki {printable(out)}: {error}") from None


def _beside(out: Path, what: str, pid: int | None = None) -> Path:
    """The hidden folder beside `out` of this run (or of the run `pid`), `.<name>.<what>-<pid>`:
    the name cut short where the whole would pass the 255 bytes a file name may hold."""
    tail = f".{what}-{os.getpid() if pid is None else pid}".encode()
    return out.parent / os.fsdecode(b"." + os.fsencode(out.name)[: 254 - len(tail)] + tail)


def _move_into_place(partial: Path, out: Path) -> None:
    """Put the complete wiki at `out`, the previous one (or an empty folder) out of the way
    first.  Runs that write the same folder take turns here, the last one's wiki stays; and a
    folder that came to hold anything else while the pages were grounded is left as it is."""
    with _turn(out.parent):
        _clear_leftovers(out)
        previous = _beside(out, "previous")
        try:
            out.rename(previous)
        except FileNotFoundError:
            partial.rename(out)
            return
        try:
            problem = _foreign(previous)
            if problem is not None:
                raise tool.GroundError(
                    f"the folder {printable(out)} changed while the pages were grounded: it {problem}"
                )
            partial.rename(out)
        except BaseException:  # the folder goes back as it was
            with contextlib.suppress(OSError):
                previous.rename(out)
            raise
        if previous.is_symlink():  # a link to a folder of the user's: the link goes, the folder stays
            previous.unlink()
        else:
            shutil.rmtree(previous)


@contextlib.contextmanager
def _turn(folder: Path) -> Iterator[None]:
    """An exclusive lock on `folder` for the block; where folders cannot be locked, none."""
    try:
        import fcntl

        descriptor = os.open(folder, os.O_RDONLY)
    except (ImportError, OSError):
        yield
        return
    try:
        with contextlib.suppress(OSError):
            fcntl.flock(descriptor, fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)


def _clear_leftovers(out: Path) -> None:
    """What runs that were killed left beside `out`: the folders they were writing go, and the
    previous wiki that one had moved aside goes back in place when no wiki took it."""
    pattern = re.compile(r"\.(partial|previous)-(\d+)$")
    for entry in sorted(out.parent.iterdir()):
        found = pattern.search(entry.name)
        if found is None or entry != _beside(out, found[1], int(found[2])) or running(int(found[2])):
            continue
        with contextlib.suppress(OSError):
            if found[1] == "previous" and not os.path.lexists(out):
                entry.rename(out)
            elif entry.is_symlink():
                entry.unlink()
            else:
                shutil.rmtree(entry)


def main(argv: list[str], taken: list[int] | None = None) -> int:
    """`ground wiki`; `taken` lists the stop signals the command has taken (see stops_interrupt)."""
    args = None
    try:
        args = parse_args(argv)
        line = write_wiki(args)
    except SystemExit as done:  # --help, or a bad argument
        return done.code
    except PageMapError as error:
        tool._say(f"error: page map {printable(args.pages)}: {error}")
        return 2
    except tool.GroundError as error:
        tool._say(f"error: {error}")
        return 1
    except sqlite3.DatabaseError as error:
        tool._say(f"error: {tool.index_failed(args, error)}")
        return 1
    except ImportError as error:
        tool._say(f"error: cannot import {error.name}: is the module built and host/ on the path?")
        return 1
    except IndexingInterrupted as error:
        tool._say(str(error))
        return stopped_status(taken or [])[1]
    except WrittenThenInterrupted as done:
        how, status = stopped_status(taken or [])
        tool.write_out(done.line + "\n")
        tool._say(f"{how} once the wiki was written")
        return status
    except KeyboardInterrupt:
        how, status = stopped_status(taken or [])
        if args is None:
            tool._say(how)
            return status
        kept = f"the previous wiki {printable(args.out)} was kept" if _is_wiki(args.out) else "no wiki was written"
        tool._say(f"{how}; {kept}")
        return status
    problem = tool.write_out(line + "\n")
    if problem is not None:
        tool._say(f"error: {problem}")
        return 1
    return 0
