"""The whole grounding of one large page, native module against the plain
Python implementation: fan-in, file cards, consumers, ranking, seeds, quota,
neighbours and name-match counts.

"fresh facts" builds a new ScopeFacts for every run, so the native side pays
for converting the records; "converted facts" reuses one record, as the host
does for the calls of one page.

    PYTHONPATH=build/dev/python:host python3 bench/bench_grounding.py
"""

import random
import sys
from pathlib import Path

sys.path[:0] = [str(Path(__file__).parent), str(Path(__file__).parents[1] / "host")]

import pages  # noqa: E402
import pyscope  # noqa: E402
import scope  # noqa: E402
from timing import best_of, report  # noqa: E402


def grounding(module, facts):
    fan_in = module.production_fan_in(facts)
    module.render_file_cards(facts, fan_in, "## Files")
    module.render_consumers(facts, fan_in, "## Consumers")
    ranked = module.ranked_by_file(facts, fan_in)
    module.file_seeds(facts, fan_in)
    module.select_with_quota(ranked, fan_in, 60, 2, 0.25)
    module.neighbours(facts, 15)
    module.name_match_counts(facts)


def main():
    fields = pages.make_page(
        random.Random(7), n_files=300, decls_per_file=100, n_inbound=100_000, n_outbound=20_000, n_outside=3_000
    )
    print(
        f"page: {len(fields['files'])} files, {len(fields['symbols'])} declarations, "
        f"{len(fields['inbound'])} inbound and {len(fields['outbound'])} outbound references"
    )
    converted = scope.ScopeFacts(**fields)
    grounding(scope, converted)  # the record keeps its native view from here on
    rows = [
        (
            "whole grounding, fresh facts",
            best_of(lambda: grounding(scope, scope.ScopeFacts(**fields)), 3),
            best_of(lambda: grounding(pyscope, scope.ScopeFacts(**fields)), 3),
        ),
        (
            "whole grounding, converted facts",
            best_of(lambda: grounding(scope, converted), 5),
            best_of(lambda: grounding(pyscope, converted), 3),
        ),
    ]
    report("one page, every grounding function", rows)


if __name__ == "__main__":
    main()
