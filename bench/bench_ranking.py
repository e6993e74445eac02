"""Ranking and selection, native module against the plain Python
implementation, on a page of about 20,000 declarations in 300 files.

    PYTHONPATH=build/rel/python:host python3 bench/bench_ranking.py

Rows: ranked_by_file and file_seeds over a facts whose view is converted;
select_with_quota over the facts' own records (keyed from the view) and over
the same declarations as records of no facts (read attribute by attribute);
rank_key called once per declaration, as a host's own sort would call it.
"""

import random
import sys
from pathlib import Path
from types import SimpleNamespace

sys.path[:0] = [str(Path(__file__).parent), str(Path(__file__).parents[1] / "host")]

import pages  # noqa: E402
import pyscope  # noqa: E402
import scope  # noqa: E402
from timing import best_of, report  # noqa: E402

KEY_FIELDS = ("id", "kind", "name", "start_line", "end_line")


def main():
    fields = pages.make_page(
        random.Random(5), n_files=300, decls_per_file=67, n_inbound=30_000, n_outbound=0, n_outside=2_000
    )
    facts = scope.ScopeFacts(**fields)
    fan_in = scope.production_fan_in(facts)
    ranked = scope.ranked_by_file(facts, fan_in)
    strangers = {
        path: [SimpleNamespace(**{f: getattr(s, f) for f in KEY_FIELDS}) for s in records]
        for path, records in ranked.items()
    }
    print(
        f"page: {len(facts.files)} files, {len(facts.symbols)} declarations; fan-in: "
        f"{len(fan_in.outside)} outside, {len(fan_in.inside)} inside, {len(fan_in.entry)} entry points"
    )

    quota = (400, 2, 0.05)
    assert scope.select_with_quota(ranked, fan_in, *quota) == pyscope.select_with_quota(ranked, fan_in, *quota)
    assert scope.select_with_quota(strangers, fan_in, *quota) == pyscope.select_with_quota(strangers, fan_in, *quota)
    assert scope.file_seeds(facts, fan_in) == pyscope.file_seeds(facts, fan_in)

    def native(function):
        return best_of(function, repeat=20)

    def python(function):
        return best_of(function, repeat=5)

    symbols = facts.symbols
    report(
        "ranking and selection",
        [
            (
                "ranked_by_file",
                native(lambda: scope.ranked_by_file(facts, fan_in)),
                python(lambda: pyscope.ranked_by_file(facts, fan_in)),
            ),
            (
                "file_seeds",
                native(lambda: scope.file_seeds(facts, fan_in)),
                python(lambda: pyscope.file_seeds(facts, fan_in)),
            ),
            (
                "select_with_quota, facts' records",
                native(lambda: scope.select_with_quota(ranked, fan_in, *quota)),
                python(lambda: pyscope.select_with_quota(ranked, fan_in, *quota)),
            ),
            (
                "select_with_quota, other records",
                native(lambda: scope.select_with_quota(strangers, fan_in, *quota)),
                python(lambda: pyscope.select_with_quota(strangers, fan_in, *quota)),
            ),
            (
                "rank_key, one call a declaration",
                native(lambda: [scope.rank_key(s, fan_in) for s in symbols]),
                python(lambda: [pyscope.rank_key(s, fan_in) for s in symbols]),
            ),
        ],
    )


if __name__ == "__main__":
    main()
