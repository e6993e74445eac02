"""production_fan_in, native module against the plain Python implementation,
on a page of 100,000 inbound references.

"first call" builds a fresh ScopeFacts for every run, so the native side pays
for converting the records it reads; "repeated call" reuses one record.

    PYTHONPATH=build/rel/python:host python3 bench/bench_fan_in.py
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
    fields = pages.make_page(
        random.Random(3), n_files=60, decls_per_file=100, n_inbound=100_000, n_outbound=0, n_outside=3_000
    )
    print(
        f"page: {len(fields['files'])} files, {len(fields['symbols'])} declarations, "
        f"{len(fields['inbound'])} inbound references"
    )
    facts = scope.ScopeFacts(**fields)
    assert scope.production_fan_in(facts) == pyscope.production_fan_in(facts)
    report(
        "production_fan_in",
        [
            (
                "first call (fresh facts)",
                best_of(lambda: scope.production_fan_in(scope.ScopeFacts(**fields))),
                best_of(lambda: pyscope.production_fan_in(scope.ScopeFacts(**fields))),
            ),
            (
                "repeated call (converted facts)",
                best_of(lambda: scope.production_fan_in(facts)),
                best_of(lambda: pyscope.production_fan_in(facts)),
            ),
        ],
    )


if __name__ == "__main__":
    main()
