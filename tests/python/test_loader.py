"""load_scope_facts against recording fakes and the SQLite index (the grounding tool's tests load real pages)."""

import pytest

import scope
from tarnwick.storage.database import Database
from tarnwick.storage.grounding_queries import InboundReference, ScopeFile, ScopeSymbol

QUERIES = ["scope_files", "inbound_references", "import_resolved_languages", "read_lines", "file_summary",
           "scope_symbols", "outbound_references", "is_test_path", "importing_tests"]


def fakes(monkeypatch, files, fail_at=None):
    """Fakes of the queries and sibling functions that log each call; the one named `fail_at` raises."""
    calls = []
    results = dict(scope_files=lambda db, paths: list(files), import_resolved_languages=lambda db, langs: {"python"},
                   inbound_references=lambda db, ids: [InboundReference(s, 9, "a", "f", "function", "import", 1)
                                                       for s in ("t/x", "b", "t/x", "z")],
                   scope_symbols=lambda db, ids: [ScopeSymbol(9, "a", "f", "a.f", "function", 1, 1, True)],
                   outbound_references=lambda db, ids: [], file_summary=lambda lines: f"{len(lines)} lines",
                   read_lines=lambda path: {"a": ["x", "y"], "c": []}.get(path),
                   is_test_path=lambda path: path.startswith("t/"), importing_tests=lambda db, files: {"a": {"t/x"}})

    def fake(name):
        def call(*args):
            calls.append((name, *args))
            if name == fail_at:
                raise LookupError(f"{name} failed")
            return results[name](*args)
        return call

    for name in QUERIES:
        if name != "read_lines":  # an argument, not a function of the module
            monkeypatch.setattr(scope, name, fake(name))
    return calls, fake("read_lines")


def test_calls_come_in_order_with_the_expected_arguments(monkeypatch):
    files = [ScopeFile(1, "a", "python"), ScopeFile(2, "b", "go"), ScopeFile(3, "c", "python"), ScopeFile(4, "d", ""),
             ScopeFile(5, "e", None)]
    calls, read_lines = fakes(monkeypatch, files)
    facts = scope.load_scope_facts("DB", ("a", "b"), read_lines)
    ids = [1, 2, 3, 4, 5]
    assert calls == [("scope_files", "DB", ("a", "b")), ("inbound_references", "DB", ids),
                     ("import_resolved_languages", "DB", ["go", "python"]), ("read_lines", "a"),
                     ("file_summary", ["x", "y"]), ("read_lines", "b"), ("read_lines", "c"), ("file_summary", []),
                     ("read_lines", "d"), ("read_lines", "e"), ("scope_symbols", "DB", ids),
                     ("outbound_references", "DB", ids), ("is_test_path", "t/x"), ("is_test_path", "b"),
                     ("is_test_path", "z"), ("importing_tests", "DB", files)]
    assert type(calls[-1][2]) is list  # the query's own sequence, not the stored tuple
    assert (facts.import_resolved_paths, facts.test_sources) == ({"a", "c"}, {"t/x"})
    assert (facts.line_counts, facts.summaries) == ({"a": 2, "c": 0}, {"a": "2 lines", "c": "0 lines"})
    calls, read_lines = fakes(monkeypatch, [])
    assert scope.load_scope_facts("DB", [], read_lines).files == ()  # no files: every query still asked once
    assert [call[0] for call in calls if call[0] != "is_test_path"] == [
        q for q in QUERIES if q not in ("read_lines", "file_summary", "is_test_path")]


@pytest.mark.parametrize("fail_at", QUERIES)
def test_an_error_halfway_propagates_unchanged(monkeypatch, fail_at):
    calls, read_lines = fakes(monkeypatch, [ScopeFile(1, "a", "python")], fail_at)
    with pytest.raises(LookupError, match=f"{fail_at} failed"):
        scope.load_scope_facts(db="DB", paths=["a"], read_lines=read_lines)
    assert calls[-1][0] == fail_at


def test_a_large_page_costs_five_queries_and_one_for_tests():
    db = Database()
    paths = [f"pkg/m{i}.py" for i in range(2000)]
    db.add_files((path, "python") for path in paths)
    ids = db.add_symbols((path, "f", f"{path}.f", "function", 1, 2, True) for path in paths)
    db.add_references((paths[(i + 1) % len(paths)], target, "import", 1) for i, target in enumerate(ids))
    before = db.query_count
    facts = scope.load_scope_facts(db, paths, lambda path: ["x"])
    assert db.query_count - before == 6 and len(facts.files) == len(facts.inbound) == len(facts.outbound) == 2000
