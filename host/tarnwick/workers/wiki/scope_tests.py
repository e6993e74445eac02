"""Which test files reach the files of a wiki page.

A test reaches a file when it imports one of the file's declarations (the
index holds an "import" reference from the test to it) or, once the page's
facts are loaded, when a reference from a test file that is evidence of use
lands in it.  A name match (a test calling some `.run()` that shares its
name with a method of the file) is no evidence: the rule is the module's
`is_use`.
"""

from __future__ import annotations

import json
from collections.abc import Iterable, Mapping
from typing import Any

from tarnwick.models.edge import EVIDENCE_RESOLUTIONS
from tarnwick.storage.database import Database
from tarnwick.storage.grounding_queries import NAME_MATCH_KINDS, PrefetchedIndex, ScopeFile
from tarnwick.utils.path_filter import is_test_path

_IMPORTING_SOURCES = """
SELECT DISTINCT tf.path, sf.path
FROM refs AS r
JOIN declarations AS d ON d.id = r.target_id
JOIN files AS tf ON tf.id = d.file_id
JOIN files AS sf ON sf.id = r.source_file_id
WHERE d.file_id IN (SELECT value FROM json_each(?))
  AND r.resolution = ?
  AND r.source_file_id <> d.file_id
ORDER BY tf.path, sf.path
"""


def importing_tests(db: Database, files: Iterable[ScopeFile]) -> dict[str, frozenset[str]]:
    """Map each of the page's files to the test files that import from it.

    One query collects every file that reaches the page's declarations
    through an "import" reference; ``is_test_path`` then keeps the tests,
    once per distinct source.  Only files that at least one test imports get
    an entry, in the order of ``files``.  A file never counts as importing
    itself.
    """
    files = list(files)
    rows = db.import_sources(files) if isinstance(db, PrefetchedIndex) else None
    if rows is None:
        rows = db.query(_IMPORTING_SOURCES, (json.dumps([f.id for f in files]), "import"))
    is_test: dict[str, bool] = {}
    found: dict[str, set[str]] = {}
    for target_path, source_path in rows:
        if source_path not in is_test:
            is_test[source_path] = bool(is_test_path(source_path))
        if is_test[source_path]:
            found.setdefault(target_path, set()).add(source_path)
    return {f.path: frozenset(found[f.path]) for f in files if f.path in found}


def tests_reaching(facts: Any) -> tuple[frozenset[str], dict[str, list[str]]]:
    """The tests that reach the page, overall and per file.

    ``facts`` needs ``test_imports`` (file path to the tests that import it),
    ``inbound`` (references with ``source_path``, ``target_path``,
    ``target_kind`` and ``resolution``), ``test_sources`` (the inbound
    sources that are tests) and ``import_resolved(path)``.  A reference from
    a test source counts when it is evidence of use: "import" or "local",
    or, where the index does not resolve the target file's imports, a
    "unique" match to anything but an attribute, a field, a property or a
    constant.  A file does not reach itself.  Returns the set of all
    reaching tests and a map from each file with at least one reaching test
    to those tests' paths, sorted; the map's keys are in path order.
    """
    reaching: dict[str, set[str]] = {}
    imports: Mapping[str, Iterable[str]] = facts.test_imports
    for path, tests in imports.items():
        reaching.setdefault(path, set()).update(test for test in tests if test != path)
    test_sources = facts.test_sources
    for ref in facts.inbound:
        if ref.source_path in test_sources and ref.source_path != ref.target_path and _is_evidence(ref, facts):
            reaching.setdefault(ref.target_path, set()).add(ref.source_path)
    by_file = {path: sorted(reaching[path]) for path in sorted(reaching) if reaching[path]}
    every = frozenset(test for tests in by_file.values() for test in tests)
    return every, by_file


def _is_evidence(ref: Any, facts: Any) -> bool:
    if ref.resolution in EVIDENCE_RESOLUTIONS:
        return True
    return (
        ref.resolution == "unique"
        and not facts.import_resolved(ref.target_path)
        and ref.target_kind not in NAME_MATCH_KINDS
    )
