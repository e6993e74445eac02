"""The host's index database, its grounding queries and the import-reach query."""

import sqlite3

import pytest

from tarnwick.storage.database import Database
from tarnwick.storage.grounding_queries import (
    InboundReference,
    OutboundReference,
    ScopeFile,
    ScopeSymbol,
    import_resolved_languages,
    inbound_references,
    outbound_references,
    scope_files,
    scope_symbols,
)
from tarnwick.workers.wiki.scope_tests import importing_tests

PAGE = ["pkg/b.py", "pkg/a.py", "pkg/missing.py"]


@pytest.fixture
def db():
    with Database() as db:
        db.add_files([("pkg/b.py", "python"), ("pkg/a.py", "python"), ("app/main.py", "python"),
                      ("tests/test_a.py", "python"), "docs/notes.md"])
        db.add_resolved_languages(["python", "go"])
        # Ids are assigned in insertion order; "late" is declared above "Alpha"
        # and "tied" on the same line as it, so their order tests the sort.
        alpha, fn, late, tied, helper, run = db.add_symbols([
            ("pkg/a.py", "Alpha", "pkg.a.Alpha", "class", 3, 20, True),
            ("pkg/a.py", "alpha_fn", "pkg.a.alpha_fn", "function", 22, 30),
            ("pkg/a.py", "LATE", "pkg.a.LATE", "constant", 1, 1),
            ("pkg/a.py", "tied", "pkg.a.tied", "function", 3, 4),
            ("pkg/b.py", "helper", "pkg.b.helper", "function", 1, 5),
            ("app/main.py", "run", "app.main.run", "function", 1, 10),
        ])
        db.add_references([
            ("app/main.py", alpha, "import", 2),
            ("app/main.py", alpha, "import", 3),   # same group: summed
            ("app/main.py", alpha, "ambiguous"),    # other resolution: own record
            ("tests/test_a.py", fn, "import"),
            ("pkg/b.py", alpha, "local"),
            ("pkg/a.py", run, "import", 4),         # outbound only
            ("pkg/b.py", helper, "unique"),         # the page referencing itself
        ])
        db.ids = dict(alpha=alpha, fn=fn, late=late, tied=tied, helper=helper, run=run)
        yield db


def page_ids(db):
    return [f.id for f in scope_files(db, PAGE)]


def test_scope_files_are_the_indexed_paths_in_path_order(db):
    files = scope_files(db, PAGE + ["pkg/a.py", "./pkg/a.py", "PKG/A.PY"])
    assert [(f.path, f.language) for f in files] == [("pkg/a.py", "python"), ("pkg/b.py", "python")]
    assert all(isinstance(f, ScopeFile) for f in files)
    assert scope_files(db, ["docs/notes.md"])[0].language is None


def test_scope_symbols_order_and_fields(db):
    symbols = scope_symbols(db, page_ids(db))
    assert [s.name for s in symbols] == ["LATE", "Alpha", "tied", "alpha_fn", "helper"]
    assert symbols[1] == ScopeSymbol(db.ids["alpha"], "pkg/a.py", "Alpha", "pkg.a.Alpha",
                                     "class", 3, 20, True)
    assert [type(s.is_export) for s in symbols] == [bool] * 5


def test_inbound_references_group_sum_and_order(db):
    ids = db.ids
    assert inbound_references(db, page_ids(db)) == (
        InboundReference("app/main.py", ids["alpha"], "pkg/a.py", "Alpha", "class", "ambiguous", 1),
        InboundReference("app/main.py", ids["alpha"], "pkg/a.py", "Alpha", "class", "import", 5),
        InboundReference("pkg/b.py", ids["alpha"], "pkg/a.py", "Alpha", "class", "local", 1),
        InboundReference("pkg/b.py", ids["helper"], "pkg/b.py", "helper", "function", "unique", 1),
        InboundReference("tests/test_a.py", ids["fn"], "pkg/a.py", "alpha_fn", "function",
                         "import", 1),
    )


def test_outbound_references_carry_their_target(db):
    run = ScopeSymbol(db.ids["run"], "app/main.py", "run", "app.main.run", "function", 1, 10, False)
    by_name = {s.name: s for s in scope_symbols(db, page_ids(db))}
    assert outbound_references(db, page_ids(db)) == (
        OutboundReference("pkg/a.py", run, "import", 4),
        OutboundReference("pkg/b.py", by_name["Alpha"], "local", 1),
        OutboundReference("pkg/b.py", by_name["helper"], "unique", 1),
    )
    assert outbound_references(db, [scope_files(db, ["docs/notes.md"])[0].id]) == ()


def test_import_resolved_languages_is_the_indexed_subset(db):
    assert import_resolved_languages(db, ["go", "python", "rust"]) == frozenset({"go", "python"})


IDS_QUERIES = [scope_symbols, inbound_references, outbound_references]
ALL_QUERIES = [(scope_files, "paths"), (import_resolved_languages, "languages")] + [
    (query, "ids") for query in IDS_QUERIES]


@pytest.mark.parametrize("query, kind", ALL_QUERIES, ids=lambda q: getattr(q, "__name__", q))
def test_empty_list_is_one_statement_and_no_rows(db, query, kind):
    before = db.query_count
    assert not query(db, [])
    assert db.query_count == before + 1


@pytest.mark.parametrize("query, kind", ALL_QUERIES, ids=lambda q: getattr(q, "__name__", q))
def test_lists_beyond_the_variable_limit_take_one_statement(db, query, kind):
    real = {"paths": PAGE, "languages": ["python"], "ids": page_ids(db)}[kind]
    if kind == "ids":
        padding = list(range(10_000, 50_000))
    else:
        padding = [f"nowhere/{n}.py" for n in range(40_000)]
    expected = query(db, real)
    assert expected  # the comparison below must not be trivially empty
    before = db.query_count
    assert query(db, padding[:20_000] + list(real) + padding[20_000:]) == expected
    assert db.query_count == before + 1


def test_a_single_string_is_not_taken_for_a_list(db):
    with pytest.raises(TypeError):
        scope_files(db, "pkg/a.py")


def test_importing_tests_keeps_test_importers_only(db):
    db.add_file("tests/test_b.py")
    db.add_reference("tests/test_b.py", db.ids["helper"], "unique")  # not an import
    db.add_reference("tests/test_b.py", db.ids["alpha"], "import")
    own = db.add_symbol("tests/test_b.py", "fixture", "tests.test_b.fixture", "function", 1, 2)
    db.add_reference("tests/test_b.py", own, "import")  # a file does not reach itself
    files = scope_files(db, PAGE + ["tests/test_b.py"])
    before = db.query_count
    result = importing_tests(db, files)
    assert db.query_count == before + 1
    assert result == {"pkg/a.py": frozenset({"tests/test_a.py", "tests/test_b.py"})}
    assert importing_tests(db, ()) == {}


def test_loading_rejects_unknown_files_and_targets(db):
    with pytest.raises(KeyError):
        db.add_symbol("pkg/unknown.py", "x", "x", "function", 1, 1)
    with pytest.raises(KeyError):
        db.add_reference("pkg/unknown.py", db.ids["alpha"], "import")
    with pytest.raises(sqlite3.IntegrityError):
        db.add_reference("pkg/a.py", 999_999, "import")
    with pytest.raises(sqlite3.IntegrityError):
        db.add_file("pkg/a.py")


def test_file_index_survives_reopening(tmp_path):
    path = tmp_path / "index.sqlite"
    with Database(path) as db:
        file_id = db.add_file("src/x.go", "go")
        symbol = db.add_symbol(file_id, "X", "x.X", "struct", 2, 9, exported=True)
        assert db.add_symbol("src/x.go", "Y", "x.Y", "function", 10, 12) == symbol + 1
    with Database(str(path)) as db:
        assert scope_files(db, ["src/x.go"]) == (ScopeFile(file_id, "src/x.go", "go"),)
        assert [s.is_export for s in scope_symbols(db, [file_id])] == [True, False]
