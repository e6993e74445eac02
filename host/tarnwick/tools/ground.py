"""Ground one wiki page of a Python source tree and print it as Markdown.

    python3 -m tarnwick.tools.ground [PAGE ...] [--tree DIR] [--index FILE]

The tree is indexed into a SQLite file (reused when it exists; --reindex
builds it again), then the whole grounding pass runs through the module
`scope`: load the page's facts from the index and the checkout, count the
production fan-in, render the file cards and the consumers section, rank the
declarations, choose a quota of declaration blocks, seed each file, and list
the page's neighbours and name-match counts. The time the module's calls took
closes the document.

PAGE arguments are repository-relative paths or glob patterns ("email/*.py").
With no arguments the tool grounds a page of the `email` package of this
interpreter's own standard library.
"""

from __future__ import annotations

import argparse
import fnmatch
import os
import sqlite3
import sys
import time
from pathlib import Path

DEFAULT_PAGE = ["email/parser.py", "email/feedparser.py", "email/message.py", "email/header.py"]
# The standard library without its test suite (but for the email tests) and
# without a few large packages that never touch email, to index in seconds.
DEFAULT_EXCLUDE = ["test/*", "idlelib/*", "tkinter/*", "lib2to3/*", "turtledemo/*", "ensurepip/*", "pydoc_data/*"]
DEFAULT_KEEP = ["test/test_email/*"]
REPO_ROOT = Path(__file__).resolve().parents[3]


class GroundError(Exception):
    """A problem with the user's input, reported as one line."""


def default_tree() -> Path:
    return Path(os.__file__).resolve().parent


def default_index(tree: Path) -> Path:
    version = f"{sys.version_info.major}{sys.version_info.minor}"
    name = "stdlib" if tree == default_tree() else tree.name or "tree"
    return REPO_ROOT / "build" / "demo" / f"{name}-py{version}.sqlite"


def parse_args(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="ground", description=__doc__.split("\n\n")[0])
    parser.add_argument("page", nargs="*", help="paths or glob patterns of the page's files")
    parser.add_argument("--tree", type=Path, help="root of the source tree (default: the standard library)")
    parser.add_argument("--index", type=Path, help="index file (default: under build/demo/)")
    parser.add_argument("--reindex", action="store_true", help="index the tree again even if the index exists")
    parser.add_argument("--exclude", action="append", metavar="GLOB",
                        help="leave matching files out of the index (default for the standard library: its "
                             "tests and a few large unrelated packages)")
    parser.add_argument("--keep", action="append", metavar="GLOB", help="index matching files even if excluded")
    parser.add_argument("--total", type=int, default=24, help="declaration blocks to select (default 24)")
    parser.add_argument("--floor", type=int, default=2, help="blocks each file gets first (default 2)")
    parser.add_argument("--max-share", type=float, default=0.4, help="largest share of one file (default 0.4)")
    parser.add_argument("--neighbours", type=int, default=12, help="neighbours to list (default 12)")
    return parser.parse_args(argv)


def open_index(args: argparse.Namespace):
    from tarnwick.indexer import index_tree
    from tarnwick.storage.database import Database

    tree = (args.tree or default_tree()).resolve()
    if not tree.is_dir():
        raise GroundError(f"no such directory: {args.tree}")
    index = args.index or default_index(tree)
    if index.exists() and not args.reindex:
        try:
            db = Database(str(index))
            db.query("SELECT count(*) FROM files")
        except sqlite3.DatabaseError as error:
            raise GroundError(f"cannot read the index {index}: {error}") from None
        return tree, db
    try:
        index.parent.mkdir(parents=True, exist_ok=True)
        if index.exists():
            index.unlink()
        db = Database(str(index))
    except (OSError, sqlite3.DatabaseError) as error:
        raise GroundError(f"cannot write the index {index}: {error}") from None
    default = args.tree is None
    exclude = args.exclude if args.exclude is not None else (DEFAULT_EXCLUDE if default else [])
    keep = args.keep if args.keep is not None else (DEFAULT_KEEP if default else [])
    index_tree(str(tree), db, sys.stderr, exclude, keep)
    return tree, db


def page_paths(db, patterns: list[str]) -> list[str]:
    indexed = [row[0] for row in db.query("SELECT path FROM files ORDER BY path")]
    chosen: list[str] = []
    for pattern in patterns:
        matches = [path for path in indexed if fnmatch.fnmatchcase(path, pattern)]
        if not matches and not any(ch in pattern for ch in "*?["):
            matches = [pattern]  # a plain path the index lacks still gets a "not in the index" card
        chosen.extend(path for path in matches if path not in chosen)
    if not any(path in set(indexed) for path in chosen):
        raise GroundError("the page matches no indexed file: " + " ".join(patterns))
    return chosen


class Timer:
    """Sums the time spent in the module's calls."""

    def __init__(self):
        self.spent: dict[str, float] = {}

    def __call__(self, function, *args):
        start = time.perf_counter()
        result = function(*args)
        self.spent[function.__name__] = self.spent.get(function.__name__, 0.0) + time.perf_counter() - start
        return result


def ground(args: argparse.Namespace) -> str:
    import scope
    from tarnwick.workers.wiki.checkout import checkout_reader

    tree, db = open_index(args)
    paths = page_paths(db, args.page or DEFAULT_PAGE)
    timer = Timer()
    facts = timer(scope.load_scope_facts, db, paths, checkout_reader(str(tree)))
    missing = [path for path in paths if path not in facts.paths]
    fan_in = timer(scope.production_fan_in, facts)
    cards = timer(scope.render_file_cards, facts, fan_in, "## Files", missing)
    consumers = timer(scope.render_consumers, facts, fan_in, "## Consumers")
    ranked = timer(scope.ranked_by_file, facts, fan_in)
    blocks = timer(scope.select_with_quota, ranked, fan_in, args.total, args.floor, args.max_share)
    seeds = timer(scope.file_seeds, facts, fan_in)
    closest = timer(scope.neighbours, facts, args.neighbours)
    name_matches = timer(scope.name_match_counts, facts)

    out = [f"# Grounding of {len(paths)} files in `{tree}`", "", cards, consumers]
    out += ["## Declaration blocks", "",
            f"{len(blocks)} of {len(facts.symbols)} declarations (total {args.total}, floor {args.floor}, "
            f"max share {args.max_share}), every file's best first:", ""]
    out += [f"- `{s.name}` ({s.kind}, `{s.path}:L{s.start_line}-{s.end_line}`)" for s in blocks]
    out += ["", "## Seeds", ""]
    out += [f"- `{path}`: lines {start}-{end}" for path, (start, end) in seeds.items()]
    out += ["", "## Neighbours", ""]
    out += [f"- `{s.fqn}` (`{s.path}`, {s.kind}): {count} refs" for s, count in closest] or ["None."]
    out += ["", "## Name matches", ""]
    out += [f"- `{source}` -> `{target}`: {count} refs" for (source, target), count in name_matches.items()]
    if not name_matches:
        out.append("None.")
    total = sum(timer.spent.values())
    detail = ", ".join(f"{name} {seconds * 1e3:.1f} ms" for name, seconds in timer.spent.items())
    out += ["", "---", f"Module calls took {total * 1e3:.1f} ms: {detail}.", ""]
    return "\n".join(out)


def main(argv: list[str] | None = None) -> int:
    args = parse_args(sys.argv[1:] if argv is None else argv)
    try:
        sys.stdout.write(ground(args))
    except GroundError as error:
        print(f"ground: error: {error}", file=sys.stderr)
        return 1
    except ImportError as error:
        print(f"ground: error: cannot import {error.name}: is the module built and host/ on the path?",
              file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
