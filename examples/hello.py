"""Builds the facts of a two-file page by hand and prints them."""

import scope
from tarnwick.storage.grounding_queries import InboundReference, ScopeFile, ScopeSymbol

files = (ScopeFile(1, "lib/store.py", "python"), ScopeFile(2, "lib/cache.py", "python"))
store = ScopeSymbol(10, "lib/store.py", "Store", "lib.store.Store", "class", 3, 40, True)
cache = ScopeSymbol(11, "lib/cache.py", "Cache", "lib.cache.Cache", "class", 1, 12, True)
facts = scope.ScopeFacts(
    files=files,
    symbols=(store, cache),
    inbound=(InboundReference("app/cli.py", 10, "lib/store.py", "Store", "class", "import", 3),),
    outbound=(),
    import_resolved_paths={"lib/store.py", "lib/cache.py"},
    test_sources=set(),
    line_counts={"lib/store.py": 40, "lib/cache.py": 12},
    summaries={"lib/store.py": "Key-value store.", "lib/cache.py": "An in-memory cache."},
)
print(facts)
print("paths:", sorted(facts.paths))
print("fan-in of Store from outside:", scope.FanIn({10: 3}).api(10))
