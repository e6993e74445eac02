"""ranked_by_file and select_with_quota, native module against the plain Python
implementation, on a page of 20,000 declarations in 300 files.

    PYTHONPATH=build/dev/python:host python3 bench/bench_ranking.py
"""

import random
import sys
from pathlib import Path

sys.path[:0] = [str(Path(__file__).parent), str(Path(__file__).parents[1] / "host")]

import pages  # noqa: E402
import pyscope  # noqa: E402
import scope  # noqa: E402
from timing import best_of, report  # noqa: E402


def main():
    fields = pages.make_page(random.Random(5), n_files=300, decls_per_file=67, n_inbound=30_000,
                             n_outbound=0, n_outside=2_000)
    facts = scope.ScopeFacts(**fields)
    fan_in = scope.production_fan_in(facts)
    ranked = scope.ranked_by_file(facts, fan_in)
    print(f"page: {len(facts.files)} files, {len(facts.symbols)} declarations")
    assert scope.select_with_quota(ranked, fan_in, 400, 2, 0.05) == \
        pyscope.select_with_quota(ranked, fan_in, 400, 2, 0.05)
    report("ranking and selection", [
        ("ranked_by_file (converted facts)",
         best_of(lambda: scope.ranked_by_file(facts, fan_in)),
         best_of(lambda: pyscope.ranked_by_file(facts, fan_in))),
        ("select_with_quota, 400 blocks",
         best_of(lambda: scope.select_with_quota(ranked, fan_in, 400, 2, 0.05)),
         best_of(lambda: pyscope.select_with_quota(ranked, fan_in, 400, 2, 0.05))),
    ])


if __name__ == "__main__":
    main()
