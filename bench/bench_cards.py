"""render_file_cards and file_users, native module against the plain Python
implementation, on a page of 300 files and 100,000 inbound references.

    PYTHONPATH=build/rel/python:host python3 bench/bench_cards.py
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
        random.Random(11), n_files=300, decls_per_file=40, n_inbound=100_000, n_outbound=0, n_outside=3_000
    )
    facts = scope.ScopeFacts(**fields)
    fan_in = scope.production_fan_in(facts)
    print(f"page: {len(facts.files)} files, {len(facts.symbols)} declarations, {len(facts.inbound)} inbound")
    assert scope.render_file_cards(facts, fan_in, "## Files") == pyscope.render_file_cards(facts, fan_in, "## Files")
    rows = [
        (
            "fresh facts",
            best_of(lambda: scope.render_file_cards(scope.ScopeFacts(**fields), fan_in, "## Files")),
            best_of(lambda: pyscope.render_file_cards(scope.ScopeFacts(**fields), fan_in, "## Files")),
        ),
        (
            "converted facts",
            best_of(lambda: scope.render_file_cards(facts, fan_in, "## Files")),
            best_of(lambda: pyscope.render_file_cards(facts, fan_in, "## Files")),
        ),
    ]
    # The host's tests_reaching (a Python stand-in here) runs inside both; with
    # it answered from a prepared pair, what is left is the table itself.
    reaching = scope.tests_reaching(facts)
    scope.tests_reaching = pyscope.tests_reaching = lambda facts: reaching
    rows.append(
        (
            "converted facts, tests_reaching prepared",
            best_of(lambda: scope.render_file_cards(facts, fan_in, "## Files")),
            best_of(lambda: pyscope.render_file_cards(facts, fan_in, "## Files")),
        )
    )
    report("render_file_cards", rows)
    report(
        "file_users",
        [
            (
                "fresh facts",
                best_of(lambda: scope.file_users(scope.ScopeFacts(**fields))),
                best_of(lambda: pyscope.file_users(scope.ScopeFacts(**fields))),
            ),
            ("converted facts", best_of(lambda: scope.file_users(facts)), best_of(lambda: pyscope.file_users(facts))),
        ],
    )


if __name__ == "__main__":
    main()
