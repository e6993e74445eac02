"""CPU time of the tree-sitter extractors per file, on real trees.

    PYTHONPATH=host .venv/bin/python bench/bench_extract.py build/linux-source-6.12 /usr/share/go-1.19/src

For every language found under the given trees, a seeded sample of files
(`--files`, default 2000 per language) is read into memory, then extracted
`--runs` times (default 3); the best run's CPU time is reported per file and
per megabyte, with the declarations and references per file and the slowest
file.  One process, one core: the indexer runs one such process per core.
"""

from __future__ import annotations

import argparse
import os
import random
import time
from collections import defaultdict

from tarnwick.indexer.languages import extract, language_of


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("trees", nargs="+")
    parser.add_argument("--files", type=int, default=2000)
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()

    found: dict[str, list[tuple[str, str]]] = defaultdict(list)
    for tree in args.trees:
        for folder, _, names in os.walk(tree):
            for name in names:
                path = os.path.join(folder, name)
                language = language_of(path)
                if language is not None:
                    found[language].append((tree, path))

    for language, files in sorted(found.items()):
        sample = random.Random(1).sample(files, min(args.files, len(files)))
        sources = []
        for tree, path in sample:
            with open(path, "rb") as handle:
                sources.append((os.path.relpath(path, tree), handle.read()))
        extract(language, "warm-up", b"")
        best, slowest, decls, refs = float("inf"), (0.0, ""), 0, 0
        for _ in range(args.runs):
            started = time.process_time()
            decls = refs = 0
            for path, source in sources:
                before = time.process_time()
                found_decls, found_refs = extract(language, path, source)
                slowest = max(slowest, (time.process_time() - before, path))
                decls += len(found_decls)
                refs += len(found_refs)
            best = min(best, time.process_time() - started)
        size = sum(len(source) for _, source in sources)
        count = len(sources)
        print(
            f"{language}: {count} of {len(files)} files, {size / count / 1024:.1f} KiB a file: "
            f"{best / count * 1000:.2f} ms a file, {size / 1e6 / best:.2f} MB/s, "
            f"{decls / count:.0f} declarations and {refs / count:.0f} names a file; "
            f"slowest {slowest[1]} ({slowest[0] * 1000:.0f} ms)"
        )


if __name__ == "__main__":
    main()
