"""Ground one wiki page of a source tree and print it as Markdown.

    python3 -m tarnwick.tools.ground [page] [PAGE ...] [--tree DIR] [--index FILE]
    python3 -m tarnwick.tools.ground wiki [--tree DIR] --out DIR [--pages FILE] [--jobs N]

The tree is indexed into a SQLite file, which every later run first brings
up to date (files changed, added or removed since are indexed again; see
`tarnwick.indexer.index_file`). Then the whole grounding pass runs through
the module `scope`: load the page's facts from the index and the checkout,
count the production fan-in, render the file cards and the consumers
section, rank the declarations, choose a quota of declaration blocks, seed
each file, and list the page's neighbours and name-match counts. The time
the module's calls took closes the document.

PAGE arguments are paths or glob patterns ("email/*.py") relative to the
tree. With no arguments the tool grounds a page of the `email` package of
this interpreter's own standard library.  The sub-command `wiki` grounds
every page of the tree and writes the wiki as a folder of Markdown (see
`tarnwick.tools.wiki`); `ground_page` is the one function both use.
"""

from __future__ import annotations

import argparse
import contextlib
import fnmatch
import hashlib
import os
import re
import sqlite3
import sys
import textwrap
import time
from dataclasses import dataclass
from pathlib import Path

from tarnwick.indexer.index_file import (
    IndexFileError,
    IndexingFailed,
    IndexingInterrupted,
    TreeSettings,
    current_index,
    printable,
)
from tarnwick.utils.processes import stopped_status, stops_interrupt

DEFAULT_PAGE = ["email/parser.py", "email/feedparser.py", "email/message.py", "email/header.py"]
# The standard library without its test suite (but for the email tests) and
# without a few large packages that never touch email, to index in seconds.
DEFAULT_EXCLUDE = ["test/*", "idlelib/*", "tkinter/*", "lib2to3/*", "turtledemo/*", "ensurepip/*", "pydoc_data/*"]
DEFAULT_KEEP = ["test/test_email/*"]
# The module takes counts as signed 64-bit integers.
LARGEST_COUNT = 2**63 - 1
PYTHON = f"py{sys.version_info.major}{sys.version_info.minor}"

EPILOG = [
    "Page paths are relative to the tree and may be glob patterns ('email/*.py'). Without any, the page is "
    f"{', '.join(DEFAULT_PAGE)} of the standard library.",
    f"The index of a tree is {{home}}/<tree name>-<hash of its path>-{PYTHON}.sqlite unless --index names "
    "another file. Each run first brings it up to date: files changed, added or removed since are indexed again.",
    "'ground wiki --out DIR' grounds every page of the tree and writes the wiki into DIR (see 'ground wiki --help').",
]


class GroundError(Exception):
    """A problem with the user's input or the index, reported as one line."""


@dataclass(frozen=True)
class Quota:
    """How many declaration blocks a page gets and how they spread, and how many neighbours it lists."""

    total: int = 24
    floor: int = 2
    max_share: float = 0.4
    neighbours: int = 12


class _Parser(argparse.ArgumentParser):
    def error(self, message: str):
        """Report a bad argument in one line, with argparse's exit status 2."""
        self.exit(2, f"{self.prog}: error: {message} (see --help)\n")


def default_tree() -> Path:
    return Path(os.__file__).resolve().parent


def index_home() -> Path:
    """Where indexes live: build/demo/ of the checkout this tool runs from,
    else the user's cache directory."""
    checkout = Path(__file__).resolve().parent.parent.parent.parent  # host/tarnwick/tools/ground.py
    if (checkout / "host" / "tarnwick").is_dir():
        return checkout / "build" / "demo"
    return Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "tarnwick"


def default_index(tree: Path) -> Path:
    """The index of `tree` (resolved): a readable name and a hash of its path, so that
    trees whose last folders share a name get indexes of their own."""
    digest = hashlib.sha256(os.fsencode(tree)).hexdigest()[:12]
    name = "stdlib" if tree == default_tree() else tree.name or "root"
    return index_home() / f"{name}-{digest}-{PYTHON}.sqlite"


def _count(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a whole number: {text!r}") from None
    if not 0 <= value <= LARGEST_COUNT:
        raise argparse.ArgumentTypeError(f"must be from 0 to {LARGEST_COUNT}, not {text}")
    return value


def _share(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}") from None
    if not 0.0 <= value <= 1.0:  # false for NaN too
        raise argparse.ArgumentTypeError(f"must be a number from 0 to 1, not {text}")
    return value


def _epilog(paragraphs: list[str]) -> str:
    return "\n\n".join(
        textwrap.fill(
            paragraph.format(home=printable(index_home())), 79, break_long_words=False, break_on_hyphens=False
        )
        for paragraph in paragraphs
    )


def add_tree_options(parser: argparse.ArgumentParser) -> None:
    """The options that choose the tree and its index, and the quota of each page."""
    parser.add_argument("--tree", type=Path, help="root of the source tree (default: the standard library)")
    parser.add_argument("--index", type=Path, help="index file (default: see below)")
    parser.add_argument("--reindex", action="store_true", help="index the whole tree again, reusing nothing")
    parser.add_argument(
        "--exclude",
        action="append",
        metavar="GLOB",
        help="leave matching files out of the index (default for the standard library: its "
        "tests and a few large unrelated packages)",
    )
    parser.add_argument("--keep", action="append", metavar="GLOB", help="index matching files even if excluded")
    parser.add_argument("--total", type=_count, default=24, help="declaration blocks to select (default 24)")
    parser.add_argument("--floor", type=_count, default=2, help="blocks each file gets first (default 2)")
    parser.add_argument(
        "--max-share", type=_share, default=0.4, help="largest share of one file, from 0 to 1 (default 0.4)"
    )
    parser.add_argument("--neighbours", type=_count, default=12, help="neighbours to list (default 12)")


def resolve_tree(parser: argparse.ArgumentParser, args: argparse.Namespace) -> None:
    """Set `args.tree` to the resolved tree, the standard library by default."""
    tree = (args.tree or default_tree()).resolve()
    if not tree.is_dir():
        what = "not a directory" if tree.exists() else "no such directory"
        parser.error(f"argument --tree: {what}: {printable(args.tree)}")
    args.tree = tree


def quota(args: argparse.Namespace) -> Quota:
    return Quota(args.total, args.floor, args.max_share, args.neighbours)


def _parser() -> _Parser:
    parser = _Parser(
        prog="ground",
        description=__doc__.split("\n\n")[0],
        epilog=_epilog(EPILOG),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("page", nargs="*", help="paths or glob patterns of the page's files, relative to the tree")
    add_tree_options(parser)
    return parser


def parse_args(argv: list[str]) -> argparse.Namespace:
    """The arguments, with `tree` resolved; a bad one exits with status 2."""
    parser = _parser()
    args = parser.parse_args(argv)
    resolve_tree(parser, args)
    if not args.page and args.tree != default_tree():
        parser.error(
            "name the page's files: paths or glob patterns relative to the tree (the default page is one of "
            "the standard library)"
        )
    for page in args.page:
        if os.path.isabs(page):
            inside = os.path.relpath(page, args.tree)
            hint = f"; write {inside!r}" if not inside.startswith("..") else ""
            parser.error(f"page paths are relative to the tree {printable(args.tree)}: {page!r} is absolute{hint}")
    return args


def open_index(args: argparse.Namespace):
    """The current index of the tree; the standard library has its own default exclusions."""
    stdlib = args.tree == default_tree()
    exclude = args.exclude if args.exclude is not None else (DEFAULT_EXCLUDE if stdlib else [])
    keep = args.keep if args.keep is not None else (DEFAULT_KEEP if stdlib else [])
    settings = TreeSettings(args.tree, tuple(exclude), tuple(keep))
    try:
        return current_index(args.index or default_index(args.tree), settings, args.reindex, _say)
    except (IndexFileError, IndexingFailed) as error:
        raise GroundError(str(error)) from None


def _say(message: str) -> None:
    print(f"ground: {message}", file=sys.stderr, flush=True)


def index_failed(args: argparse.Namespace, error: sqlite3.DatabaseError) -> str:
    """One line for an index that SQLite could not read while pages were grounded."""
    line = f"cannot read the index {printable(args.index or default_index(args.tree))}: {error}"
    if getattr(error, "sqlite_errorname", None) in ("SQLITE_CORRUPT", "SQLITE_NOTADB"):
        line += "; run again with --reindex to build it anew"
    return line


def write_out(text: str) -> str | None:
    """Write `text` to stdout; what went wrong, if anything, in a few words.  A reader that
    went away (`| head`) is no error."""
    try:
        if sys.stdout is None:
            return "cannot write to standard output: it is closed"
        sys.stdout.write(text)
        sys.stdout.flush()
    except BrokenPipeError:
        # Python would complain once more when it flushes stdout at exit.
        with contextlib.suppress(OSError, ValueError):
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    except OSError as error:
        return f"cannot write to standard output: {error.strerror or error}"
    return None


def page_paths(db, patterns: list[str]) -> list[str]:
    indexed = [row[0] for row in db.query("SELECT path FROM files ORDER BY path")]
    chosen: dict[str, None] = {}
    known = set(indexed)
    for pattern in patterns:
        if pattern not in known and any(ch in pattern for ch in "*?["):
            chosen.update(dict.fromkeys(path for path in indexed if fnmatch.fnmatchcase(path, pattern)))
        else:
            chosen[pattern] = None  # a plain path the index lacks still gets a "not in the index" card
    if not any(path in known for path in chosen):
        folders = [
            pattern.rstrip("/")
            for pattern in patterns
            if any(path.startswith(f"{pattern.rstrip('/')}/") for path in indexed)
        ]
        hint = f"; for the files of a folder, write '{folders[0]}/*'" if folders else ""
        raise GroundError("the page matches no indexed file: " + " ".join(patterns) + hint)
    return list(chosen)


def plural(count: int, word: str) -> str:
    return f"{count} {word}" if count == 1 else f"{count} {word}s"


def one_line(text: str) -> str:
    """`text` with each line break made a space, so that it stays inside one Markdown line."""
    return " ".join(text.splitlines()) if "\n" in text or "\r" in text else text


def code(text: str) -> str:
    """`text` as a Markdown code span, on one line: fenced by one backtick more than its
    longest run of backticks, with a space inside the fences where the text would
    otherwise lose or merge with one (a path may hold backticks)."""
    if "`" not in text and "\n" not in text and "\r" not in text and not (text[:1] == text[-1:] == " "):
        return f"`{text}`"  # the common case
    text = one_line(text)
    fence = "`" * (max(map(len, re.findall("`+", text)), default=0) + 1)
    pad = text[:1] == "`" or text[-1:] == "`" or (text[:1] == text[-1:] == " " and text.strip(" ") != "")
    return f"{fence} {text} {fence}" if pad else f"{fence}{text}{fence}"


class Timer:
    """Sums the time spent in the module's calls."""

    def __init__(self):
        self.spent: dict[str, float] = {}

    def __call__(self, function, *args):
        start = time.perf_counter()
        result = function(*args)
        self.spent[function.__name__] = self.spent.get(function.__name__, 0.0) + time.perf_counter() - start
        return result


NEIGHBOURS_NOTE = (
    "Declarations in other production files that this page's files reference most; every edge counts "
    "but a name match to an attribute, a field, a property or a constant."
)
NAME_MATCHES_NOTE = (
    "Pairs of files joined by `unique` references to an attribute, a field, a property or a constant: "
    "the name matches one declaration, but no import or local binding ties the reference to it, so "
    "these edges are not dependencies."
)


@dataclass
class Page:
    """One grounded page: its document and what the wiki's index page says of it."""

    document: str
    files: int
    declarations: int
    # Production files outside the page that use it, with the references
    # counted as the consumers section counts them.
    consumers: dict[str, int]
    unused: int


def ground_page(db, read_lines, paths: list[str], heading: str, quota: Quota, timer: Timer | None = None) -> Page:
    """Ground the page of `paths` from the open index `db` and the checkout's `read_lines`.

    The document holds the file cards, the consumers, the declaration
    blocks, the seeds, the neighbours and the name matches, and nothing that
    changes from run to run: the same index gives the same bytes.  The
    module's calls go through `timer` when one is given.
    """
    import scope

    call = timer or (lambda function, *args: function(*args))
    facts = call(scope.load_scope_facts, db, paths, read_lines)
    missing = [path for path in paths if path not in facts.paths]
    fan_in = call(scope.production_fan_in, facts)
    cards = call(scope.render_file_cards, facts, fan_in, "## Files", missing)
    consumers = call(scope.render_consumers, facts, fan_in, "## Consumers")
    ranked = call(scope.ranked_by_file, facts, fan_in)
    blocks = call(scope.select_with_quota, ranked, fan_in, quota.total, quota.floor, quota.max_share)
    seeds = call(scope.file_seeds, facts, fan_in)
    closest = call(scope.neighbours, facts, quota.neighbours)
    name_matches = call(scope.name_match_counts, facts)
    users, used = _consumer_files(facts)
    unused = call(scope._unused_outside, facts, used, fan_in)

    out = [f"# {one_line(heading)}", "", cards, consumers]
    out += [
        "## Declaration blocks",
        "",
        f"{len(blocks)} of {plural(len(facts.symbols), 'declaration')} (total {quota.total}, floor {quota.floor}, "
        f"max share {quota.max_share}), every file's best first:",
        "",
    ]
    out += [f"- {code(s.name)} ({s.kind}, {code(f'{s.path}:L{s.start_line}-{s.end_line}')})" for s in blocks]
    out += ["", "## Seeds", ""]
    out += [f"- {code(path)}: lines {start}-{end}" for path, (start, end) in seeds.items()]
    out += ["", "## Neighbours", "", NEIGHBOURS_NOTE, ""]
    out += [f"- {code(s.fqn)} ({code(s.path)}, {s.kind}): {plural(count, 'ref')}" for s, count in closest] or ["None."]
    out += ["", "## Name matches", "", NAME_MATCHES_NOTE, ""]
    out += [
        f"- {code(source)} -> {code(target)}: {plural(count, 'ref')}"
        for (source, target), count in name_matches.items()
    ]
    if not name_matches:
        out.append("None.")
    out.append("")
    return Page("\n".join(out), len(facts.files), len(facts.symbols), users, len(unused))


def _consumer_files(facts) -> tuple[dict[str, int], set[int]]:
    """The production files outside the page that use it, with their counted
    references, and the ids of the page's declarations they use: the
    consumers section's count."""
    import scope

    users: dict[str, int] = {}
    used: set[int] = set()
    inside, tests, resolved = facts.paths, facts.test_sources, facts.import_resolved
    # The rule's answers by what it reads: a page's references take a few
    # (resolution, kind, resolved) values, asked once each.
    evidence: dict[tuple[str, str, bool], bool] = {}
    for ref in facts.inbound:
        source = ref.source_path
        if source in inside or source in tests:
            continue
        key = (ref.resolution, ref.target_kind, resolved(ref.target_path))
        use = evidence.get(key)
        if use is None:
            use = evidence[key] = scope.is_use(*key)
        if use:
            users[source] = users.get(source, 0) + ref.refs
            used.add(ref.target_id)
    return users, used


def ground(args: argparse.Namespace) -> str:
    """The one-page document, closed by the time the module's calls took."""
    from tarnwick.workers.wiki.checkout import checkout_reader

    timer = Timer()
    with open_index(args) as db:
        paths = page_paths(db, args.page or DEFAULT_PAGE)
        heading = f"Grounding of {plural(len(paths), 'file')} in {code(printable(args.tree))}"
        page = ground_page(db, checkout_reader(args.tree), paths, heading, quota(args), timer)
    total = sum(timer.spent.values())
    detail = ", ".join(f"{name} {seconds * 1e3:.1f} ms" for name, seconds in timer.spent.items())
    return f"{page.document}\n---\nModule calls took {total * 1e3:.1f} ms: {detail}.\n"


def main(argv: list[str] | None = None) -> int:
    argv = sys.argv[1:] if argv is None else argv
    with _messages_anyway(), stops_interrupt() as taken:
        if argv[:1] == ["wiki"]:
            try:
                from tarnwick.tools import wiki
            except KeyboardInterrupt:
                how, status = stopped_status(taken)
                _say(how)
                return status
            return wiki.main(argv[1:], taken)
        return _page_main(argv[1:] if argv[:1] == ["page"] else argv, taken)


def _page_main(argv: list[str], taken: list[int]) -> int:
    args = None
    try:
        args = parse_args(argv)
        problem = write_out(ground(args))
        if problem is not None:
            _say(f"error: {problem}")
            return 1
    except SystemExit as done:  # --help, or a bad argument
        return done.code
    except GroundError as error:
        _say(f"error: {error}")
        return 1
    except sqlite3.DatabaseError as error:
        _say(f"error: {index_failed(args, error)}")
        return 1
    except ImportError as error:
        _say(f"error: cannot import {error.name}: is the module built and host/ on the path?")
        return 1
    except IndexingInterrupted as error:
        _say(str(error))
        return stopped_status(taken)[1]
    except KeyboardInterrupt:
        how, status = stopped_status(taken)
        _say(how)
        return status
    return 0


class _Messages:
    """Standard error as the command writes its messages to it: once it cannot be written (it
    is full, or its reader went away), what follows goes nowhere, and so does what Python
    would flush at exit."""

    def __init__(self, stream) -> None:
        self._stream = stream

    def write(self, text: str) -> int:
        try:
            return self._stream.write(text)
        except (OSError, ValueError):
            self._drop()
            return len(text)

    def flush(self) -> None:
        try:
            self._stream.flush()
        except (OSError, ValueError):
            self._drop()

    def _drop(self) -> None:
        with contextlib.suppress(OSError, ValueError):
            nowhere = os.open(os.devnull, os.O_WRONLY)
            os.dup2(nowhere, self._stream.fileno())
            os.close(nowhere)
        self._stream = open(os.devnull, "w", encoding="utf-8")

    def __getattr__(self, name: str):
        return getattr(self._stream, name)


@contextlib.contextmanager
def _messages_anyway():
    """Messages and the run go on when standard error cannot take them.  A standard stream that
    was closed when the command started gets /dev/null on its descriptor, so that no file the
    command opens (the index) takes that descriptor and receives what is meant for the stream."""
    for number, name in ((1, "stdout"), (2, "stderr")):
        if getattr(sys, name) is None:
            with contextlib.suppress(OSError):
                nowhere = os.open(os.devnull, os.O_WRONLY)
                if nowhere != number:
                    os.dup2(nowhere, number)
                    os.close(nowhere)
    kept = sys.stderr
    sys.stderr = _Messages(kept if kept is not None else open(os.devnull, "w", encoding="utf-8"))
    try:
        yield
    finally:
        sys.stderr = kept


if __name__ == "__main__":
    sys.exit(main())
