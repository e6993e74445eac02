"""The Python source indexer on real trees: this interpreter's `email`
package and its whole standard library, each into a fresh in-memory index.

The indexer is plain Python with no native counterpart, so there is no
side-by-side ratio here: it prints what landed in the index and the best
wall time of a few runs (the whole `index_tree` call: walking the tree,
parsing, resolving and the bulk inserts).

    PYTHONPATH=host python3 bench/bench_indexer.py [--repeat N] [ROOT ...]
"""

import argparse
import email
import os
import sys
import time
from pathlib import Path

sys.path[:0] = [str(Path(__file__).parents[1] / "host")]

from tarnwick.indexer import index_tree  # noqa: E402
from tarnwick.storage.database import Database  # noqa: E402


def measure(root: str, repeat: int):
    best, stats = float("inf"), None
    for _ in range(repeat):
        db = Database()
        start = time.perf_counter()
        stats = index_tree(root, db, progress=None)
        best = min(best, time.perf_counter() - start)
        db.close()
    return best, stats


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("roots", nargs="*", help="trees to index (default: the email package and the stdlib)")
    parser.add_argument("--repeat", type=int, default=3, help="runs per tree; the best counts (default 3)")
    args = parser.parse_args()
    roots = args.roots or [os.path.dirname(email.__file__), os.path.dirname(os.__file__)]
    print(f"Python {sys.version.split()[0]}, best of {args.repeat}")
    for root in roots:
        seconds, stats = measure(root, args.repeat)
        counts = ", ".join(f"{n} {resolution}" for resolution, n in stats.by_resolution.items())
        print(
            f"{root}\n  {stats.files} files ({len(stats.unparsable)} unparsable), {stats.declarations} declarations,"
            f" {stats.references} reference rows ({counts}); {seconds:.2f} s,"
            f" {seconds / max(stats.files, 1) * 1e3:.2f} ms per file"
        )


if __name__ == "__main__":
    main()
