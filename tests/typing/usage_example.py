"""The README's usage example, as a host writes it: `mypy --strict` checks it
against the stubs of the installed wheel, and `assert_type` that the results
carry their own types, not Any."""

from collections.abc import Mapping
from typing import assert_type

import scope
from tarnwick.storage.database import Database
from tarnwick.workers.wiki.checkout import checkout_reader


def ground(db: Database, page_paths: list[str], root: str) -> str:
    facts = scope.load_scope_facts(db, page_paths, checkout_reader(root))  # one pass over the index
    fan_in = scope.production_fan_in(facts)

    cards = scope.render_file_cards(facts, fan_in, "## Files")
    consumers = scope.render_consumers(facts, fan_in, "## Consumers")
    ranked = scope.ranked_by_file(facts, fan_in)
    blocks = scope.select_with_quota(ranked, fan_in, total=40, floor=2, max_share=0.25)
    seeds = scope.file_seeds(facts, fan_in)  # {path: (start, end)}
    closest = scope.neighbours(facts, limit=10)  # [(ScopeSymbol, count)]

    assert_type(fan_in.outside, Mapping[int, int])
    assert_type(fan_in.entry, frozenset[int])
    assert_type(blocks, list[scope.ScopeSymbol])
    assert_type(scope.rank_key(blocks[0], fan_in), scope.RankKey)
    assert_type(seeds, dict[str, tuple[int, int]])
    assert_type(closest, list[tuple[scope.ScopeSymbol, int]])
    assert_type(scope.file_users(facts)["a.py"].most_common(1), list[tuple[str, int]])
    assert_type(scope.pick_spread([(b.name, b.path) for b in blocks], limit=5, per_file=2), list[str])
    lines = [f"{block.path}:{block.start_line}" for block in blocks]
    return "\n".join([scope.__version__, cards, consumers, *lines])
