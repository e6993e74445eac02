"""load_scope_facts against the SQLite index and against recording fakes."""

import os

import pytest

import scope
from tarnwick.storage.database import Database
from tarnwick.storage.grounding_queries import InboundReference, ScopeFile, ScopeSymbol
from tarnwick.workers.wiki.checkout import checkout_reader


@pytest.fixture
def repo(tmp_path):
    """A checkout and its index: lib/a.py and lib/b.py (python), lib/c.go (go,
    whose imports the index does not resolve), lib/empty.py (empty),
    lib/gone.py (indexed, missing from the checkout), notes/x (no language),
    and tests/test_a.py reaching lib/a.py."""
    files = {
        "lib/a.py": '"""Alpha module."""\n\ndef run():\n    pass\n',
        "lib/b.py": "# Bravo helpers.\nimport lib.a\n",
        "lib/c.go": "// Package c does things.\npackage c\n",
        "lib/empty.py": "",
        "notes/x": "plain words\n",
        "tests/test_a.py": "from lib.a import run\n",
        "app/main.py": "from lib.a import run\n",
    }
    for path, text in files.items():
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(text)
    db = Database()
    for path, language in [("lib/a.py", "python"), ("lib/b.py", "python"), ("lib/c.go", "go"),
                           ("lib/empty.py", "python"), ("lib/gone.py", "python"), ("notes/x", None),
                           ("tests/test_a.py", "python"), ("app/main.py", "python")]:
        db.add_file(path, language)
    db.add_resolved_language("python")
    run = db.add_symbol("lib/a.py", "run", "lib.a.run", "function", 3, 4, True)
    db.add_symbol("lib/c.go", "Do", "c.Do", "function", 2, 2, True)
    db.add_reference("tests/test_a.py", run, "import", 1)
    db.add_reference("app/main.py", run, "import", 2)
    db.add_reference("app/main.py", run, "unique", 1)
    db.add_reference("lib/b.py", run, "import", 1)
    return db, checkout_reader(str(tmp_path))


def test_loads_every_field_from_the_index_and_the_checkout(repo):
    db, read_lines = repo
    page = ["lib/a.py", "lib/b.py", "lib/c.go", "lib/empty.py", "lib/gone.py", "notes/x", "lib/unindexed.py"]
    facts = scope.load_scope_facts(db, page, read_lines)

    assert [f.path for f in facts.files] == ["lib/a.py", "lib/b.py", "lib/c.go", "lib/empty.py", "lib/gone.py",
                                             "notes/x"]
    assert all(type(f) is ScopeFile for f in facts.files)
    assert [(s.name, s.path) for s in facts.symbols] == [("run", "lib/a.py"), ("Do", "lib/c.go")]
    assert sorted((r.source_path, r.resolution, r.refs) for r in facts.inbound) == [
        ("app/main.py", "import", 2), ("app/main.py", "unique", 1), ("lib/b.py", "import", 1),
        ("tests/test_a.py", "import", 1)]
    assert [(r.source_path, r.target.name) for r in facts.outbound] == [("lib/b.py", "run")]
    assert facts.import_resolved_paths == {"lib/a.py", "lib/b.py", "lib/empty.py", "lib/gone.py"}
    assert facts.test_sources == {"tests/test_a.py"}
    assert dict(facts.line_counts) == {"lib/a.py": 4, "lib/b.py": 2, "lib/c.go": 2, "lib/empty.py": 0,
                                       "notes/x": 1}
    assert dict(facts.summaries) == {"lib/a.py": "Alpha module.", "lib/b.py": "Bravo helpers.",
                                     "lib/c.go": "Package c does things.", "lib/empty.py": "", "notes/x": ""}
    assert dict(facts.test_imports) == {"lib/a.py": frozenset({"tests/test_a.py"})}
    for name in ("files", "symbols", "inbound", "outbound"):
        assert type(getattr(facts, name)) is tuple


class Recorder:
    """Fakes for the query layer and the sibling functions that log each call."""

    def __init__(self, files, fail_at=None):
        self.calls = []
        self.files = files
        self.fail_at = fail_at

    def fake(self, name, result):
        def call(*args):
            self.calls.append((name, *args))
            if name == self.fail_at:
                raise LookupError(f"{name} failed")
            return result(*args) if callable(result) else result
        return call

    def install(self, monkeypatch, inbound=(), lines=None):
        lines = lines or {}
        sym = ScopeSymbol(9, "a", "f", "a.f", "function", 1, 1, True)
        fakes = {
            "scope_files": lambda db, paths: list(self.files),
            "inbound_references": lambda db, ids: list(inbound),
            "import_resolved_languages": lambda db, languages: {"python"},
            "scope_symbols": lambda db, ids: [sym],
            "outbound_references": lambda db, ids: [],
            "file_summary": lambda given: f"{len(given)} lines",
            "is_test_path": lambda path: path.startswith("t/"),
            "importing_tests": lambda db, files: {"a": frozenset({"t/x"})},
        }
        for name, result in fakes.items():
            monkeypatch.setattr(scope, name, self.fake(name, result))
        return self.fake("read_lines", lambda path: lines.get(path))


def ref(source):
    return InboundReference(source, 9, "a", "f", "function", "import", 1)


def test_calls_come_in_order_with_the_expected_arguments(monkeypatch):
    files = [ScopeFile(1, "a", "python"), ScopeFile(2, "b", "go"), ScopeFile(3, "c", "python"),
             ScopeFile(4, "d", ""), ScopeFile(5, "e", None)]
    recorder = Recorder(files)
    inbound = [ref("t/x"), ref("b"), ref("t/x"), ref("z")]
    read_lines = recorder.install(monkeypatch, inbound, {"a": ["x", "y"], "c": []})
    facts = scope.load_scope_facts("DB", ("a", "b"), read_lines)

    assert recorder.calls == [
        ("scope_files", "DB", ("a", "b")),
        ("inbound_references", "DB", [1, 2, 3, 4, 5]),
        ("import_resolved_languages", "DB", ["go", "python"]),
        ("read_lines", "a"), ("file_summary", ["x", "y"]),
        ("read_lines", "b"),
        ("read_lines", "c"), ("file_summary", []),
        ("read_lines", "d"), ("read_lines", "e"),
        ("scope_symbols", "DB", [1, 2, 3, 4, 5]),
        ("outbound_references", "DB", [1, 2, 3, 4, 5]),
        ("is_test_path", "t/x"), ("is_test_path", "b"), ("is_test_path", "z"),
        ("importing_tests", "DB", files),
    ]
    assert type(recorder.calls[-1][2]) is list  # the query's own sequence, not the stored tuple
    assert facts.import_resolved_paths == {"a", "c"}
    assert facts.test_sources == {"t/x"}
    assert dict(facts.line_counts) == {"a": 2, "c": 0}
    assert dict(facts.summaries) == {"a": "2 lines", "c": "0 lines"}


def test_a_page_without_files_still_calls_every_query_once(monkeypatch):
    recorder = Recorder([])
    facts = scope.load_scope_facts("DB", [], recorder.install(monkeypatch))
    assert [call[0] for call in recorder.calls] == [
        "scope_files", "inbound_references", "import_resolved_languages", "scope_symbols",
        "outbound_references", "importing_tests"]
    assert recorder.calls[1] == ("inbound_references", "DB", [])
    assert recorder.calls[2] == ("import_resolved_languages", "DB", [])
    assert facts.files == () and facts.line_counts == {} and facts.test_sources == frozenset()


@pytest.mark.parametrize("fail_at", ["scope_files", "inbound_references", "import_resolved_languages",
                                     "read_lines", "file_summary", "scope_symbols", "outbound_references",
                                     "is_test_path", "importing_tests"])
def test_an_error_halfway_propagates_unchanged(monkeypatch, fail_at):
    recorder = Recorder([ScopeFile(1, "a", "python")], fail_at=fail_at)
    read_lines = recorder.install(monkeypatch, [ref("t/x")], {"a": ["line"]})
    with pytest.raises(LookupError, match=f"{fail_at} failed"):
        scope.load_scope_facts("DB", ["a"], read_lines)
    assert recorder.calls[-1][0] == fail_at


def test_arguments_by_keyword_and_bad_reader():
    with pytest.raises(TypeError, match=r"load_scope_facts\(\) argument 'read_lines' must be callable"):
        scope.load_scope_facts(db=None, paths=[], read_lines=5)
    with pytest.raises(TypeError, match="unexpected keyword argument 'reader'"):
        scope.load_scope_facts(db=None, paths=[], reader=len)


def test_a_large_page_costs_five_queries_and_one_for_tests(tmp_path):
    db = Database()
    paths = [f"pkg/m{i}.py" for i in range(2000)]
    db.add_files((path, "python") for path in paths)
    db.add_resolved_language("python")
    ids = db.add_symbols((path, "f", f"{path}.f", "function", 1, 2, True) for path in paths)
    db.add_references((paths[(i + 1) % len(paths)], target, "import", 1) for i, target in enumerate(ids))
    before = db.query_count
    facts = scope.load_scope_facts(db, paths, lambda path: ["x"])
    assert db.query_count - before == 6
    assert len(facts.files) == 2000 and len(facts.inbound) == 2000 and len(facts.outbound) == 2000
    assert os.path.basename(facts.files[0].path) == "m0.py"
