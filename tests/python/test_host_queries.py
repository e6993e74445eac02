"""The host's index database, its grounding queries and the import-reach query."""

import marshal
import random
import sqlite3

import pytest

import scope
from tarnwick.storage import file_rows, grounding_queries
from tarnwick.storage.database import Database
from tarnwick.storage.grounding_queries import (
    InboundReference,
    OutboundReference,
    PrefetchedIndex,
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
rows_of = grounding_queries._rows_of


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
            # The same group twice is summed; another resolution is a record of its own.
            ("app/main.py", alpha, "import", 2), ("app/main.py", alpha, "import", 3),
            ("app/main.py", alpha, "ambiguous"), ("tests/test_a.py", fn, "import"), ("pkg/b.py", alpha, "local"),
            ("pkg/a.py", run, "import", 4),  # outbound only
            ("pkg/b.py", helper, "unique"),  # the page referencing itself
        ])
        db.ids = dict(alpha=alpha, fn=fn, late=late, tied=tied, helper=helper, run=run)
        yield db


def page_ids(db):
    return [f.id for f in scope_files(db, PAGE)]


def test_the_queries_read_the_page_in_order(db):
    ids, page = db.ids, page_ids(db)
    assert scope_files(db, PAGE + ["pkg/a.py", "./pkg/a.py", "PKG/A.PY"]) == (
        ScopeFile(2, "pkg/a.py", "python"), ScopeFile(1, "pkg/b.py", "python"))
    assert scope_files(db, ["docs/notes.md"])[0].language is None
    symbols = scope_symbols(db, page)
    assert [s.name for s in symbols] == ["LATE", "Alpha", "tied", "alpha_fn", "helper"]
    assert symbols[1] == ScopeSymbol(ids["alpha"], "pkg/a.py", "Alpha", "pkg.a.Alpha", "class", 3, 20, True)
    assert [type(s.is_export) for s in symbols] == [bool] * 5
    assert inbound_references(db, page) == (
        InboundReference("app/main.py", ids["alpha"], "pkg/a.py", "Alpha", "class", "ambiguous", 1),
        InboundReference("app/main.py", ids["alpha"], "pkg/a.py", "Alpha", "class", "import", 5),
        InboundReference("pkg/b.py", ids["alpha"], "pkg/a.py", "Alpha", "class", "local", 1),
        InboundReference("pkg/b.py", ids["helper"], "pkg/b.py", "helper", "function", "unique", 1),
        InboundReference("tests/test_a.py", ids["fn"], "pkg/a.py", "alpha_fn", "function", "import", 1),
    )
    run = ScopeSymbol(ids["run"], "app/main.py", "run", "app.main.run", "function", 1, 10, False)
    assert outbound_references(db, page) == (OutboundReference("pkg/a.py", run, "import", 4),
                                             OutboundReference("pkg/b.py", symbols[1], "local", 1),
                                             OutboundReference("pkg/b.py", symbols[4], "unique", 1))
    assert outbound_references(db, [scope_files(db, ["docs/notes.md"])[0].id]) == ()
    assert import_resolved_languages(db, ["go", "python", "rust"]) == frozenset({"go", "python"})
    with pytest.raises(TypeError):
        scope_files(db, "pkg/a.py")  # a single string is not taken for a list


@pytest.mark.parametrize("query, kind", [(scope_files, "paths"), (import_resolved_languages, "languages")] + [
    (query, "ids") for query in (scope_symbols, inbound_references, outbound_references)],
    ids=lambda q: getattr(q, "__name__", q))
def test_each_query_is_one_statement_for_no_items_and_beyond_the_variable_limit(db, query, kind):
    real = {"paths": PAGE, "languages": ["python"], "ids": page_ids(db)}[kind]
    padding = list(range(10_000, 50_000)) if kind == "ids" else [f"nowhere/{n}.py" for n in range(40_000)]
    expected = query(db, real)
    assert expected  # the comparison below must not be trivially empty
    before = db.query_count
    assert not query(db, [])
    assert query(db, padding[:20_000] + list(real) + padding[20_000:]) == expected
    assert db.query_count == before + 2


def test_importing_tests_keeps_test_importers_only(db):
    db.add_file("tests/test_b.py")
    own = db.add_symbol("tests/test_b.py", "fixture", "tests.test_b.fixture", "function", 1, 2)
    db.add_references([("tests/test_b.py", db.ids["helper"], "unique"), ("tests/test_b.py", db.ids["alpha"], "import"),
                       ("tests/test_b.py", own, "import")])  # not an import; a file does not reach itself
    files = scope_files(db, PAGE + ["tests/test_b.py"])
    before = db.query_count
    result = importing_tests(db, files)
    assert db.query_count == before + 1
    assert result == {"pkg/a.py": frozenset({"tests/test_a.py", "tests/test_b.py"})}
    assert importing_tests(db, ()) == {}


@pytest.mark.parametrize("load, error", [
    (lambda db: db.add_symbol("pkg/unknown.py", "x", "x", "function", 1, 1), KeyError),
    (lambda db: db.add_reference("pkg/unknown.py", db.ids["alpha"], "import"), KeyError),
    (lambda db: db.add_reference("pkg/a.py", 999_999, "import"), sqlite3.IntegrityError),
    (lambda db: db.add_file("pkg/a.py"), sqlite3.IntegrityError)])
def test_loading_rejects_unknown_files_and_targets(db, load, error):
    pytest.raises(error, load, db)


def test_a_file_index_survives_reopening_and_opens_read_only(tmp_path):
    path = tmp_path / "index.sqlite"
    with Database(path) as db:
        file_id = db.add_file("src/x.go", "go")
        symbol = db.add_symbol(file_id, "X", "x.X", "struct", 2, 9, exported=True)
        assert db.add_symbol("src/x.go", "Y", "x.Y", "function", 10, 12) == symbol + 1
    with Database(str(path), readonly=True) as db:
        assert scope_files(db, ["src/x.go"]) == (ScopeFile(file_id, "src/x.go", "go"),)
        assert [s.is_export for s in scope_symbols(db, [file_id])] == [True, False]
        with pytest.raises(sqlite3.OperationalError):
            db.add_file("src/y.go")


TREE = ["a.py", "pkg/b.py", "pkg/c.py", "pkg/é.py", "pkg/z/d.py", "tests/test_b.py", "tests/test_c.py", "Z.md"]


def change_rows(rng, db):
    """A few random changes to the rows, written as any SQLite client would write them."""
    sql = db.connection.execute
    files = [row[0] for row in sql("SELECT id FROM files")]
    for _ in range(rng.randint(1, 4)):
        decls = [row[0] for row in sql("SELECT id FROM declarations")]
        refs = [row[0] for row in sql("SELECT id FROM refs")]
        change = rng.randrange(9)
        if change == 0 and decls:
            sql("INSERT INTO refs (source_file_id, target_id, resolution, count) VALUES (?, ?, 'local', 2)",
                (rng.choice(files), rng.choice(decls)))
        elif change == 1 and refs:
            sql("UPDATE refs SET count = count + 1, resolution = 'import' WHERE id = ?", (rng.choice(refs),))
        elif change == 2 and refs:
            sql("DELETE FROM refs WHERE id = ?", (rng.choice(refs),))
        elif change == 3 and decls:
            sql("UPDATE declarations SET start_line = 0, name = 'moved' WHERE id = ?", (rng.choice(decls),))
        elif change == 4 and decls:
            sql("UPDATE declarations SET file_id = ? WHERE id = ?", (rng.choice(files), rng.choice(decls)))
        elif change == 5:
            sql("INSERT INTO declarations (file_id, name, fqn, kind, start_line, end_line) VALUES (?, 'new', 'm.new',"
                " 'function', 2, 3)", (rng.choice(files),))
        elif change == 6 and len(files) > 1:
            gone = files.pop(rng.randrange(len(files)))
            sql("DELETE FROM refs WHERE source_file_id = ? OR target_id IN (SELECT id FROM declarations"
                " WHERE file_id = ?)", (gone, gone))
            sql("DELETE FROM declarations WHERE file_id = ?", (gone,))
            sql("DELETE FROM files WHERE id = ?", (gone,))
        elif change == 7 and decls:
            gone = rng.choice(decls)
            sql("DELETE FROM refs WHERE target_id = ?", (gone,))
            sql("DELETE FROM declarations WHERE id = ?", (gone,))
        elif change == 8:  # two files without rows, kept, then one gone and one renumbered
            gone, moved = (sql("INSERT INTO files (path) VALUES (?)", (f"late{rng.random()}.py",)).lastrowid
                           for _ in range(2))
            file_rows.fill(db.connection)
            sql("DELETE FROM files WHERE id = ?", (gone,))
            sql("UPDATE files SET id = (SELECT MAX(id) + 1 FROM files) WHERE id = ?", (moved,))


def assert_kept_rows_are_current(connection):
    """Every file of the index has its rows kept, as they would be kept now: no blob outlived its rows."""
    connection.commit()  # a copy waits for the writer's transaction to end
    with sqlite3.connect(":memory:") as copy:
        connection.backup(copy)
        copy.execute("DELETE FROM file_rows")
        file_rows.fill(copy)
        kept, now = ([(file_id, marshal.loads(data)) for file_id, data in db.execute("SELECT * FROM file_rows")]
                     for db in (connection, copy))
    assert kept == now


@pytest.mark.parametrize("seed", range(16))
def test_a_batch_answers_every_page_as_the_index_does(seed, monkeypatch):
    """Random trees and batches of pages: overlapping, with paths twice, unknown or unindexed; a page read
    from the batch gets the records, their order and the facts that the page's own queries give, whether
    the index keeps each file's rows or not, after any change to the rows, and with a kept blob damaged."""
    rng = random.Random(seed)
    kept = seed % 4  # none kept; every file's kept; kept, then rows changed and the missing ones kept again; damaged
    from_tables = []
    monkeypatch.setattr(grounding_queries, "_rows_of", lambda *args: from_tables.append(1) or rows_of(*args))
    with Database() as db:
        tree = rng.sample(TREE, rng.randint(3, len(TREE)))
        db.add_files([(path, rng.choice(["python", "go", None])) for path in tree])
        db.add_resolved_languages(rng.sample(["python", "go"], rng.randint(0, 2)))
        symbols = db.add_symbols([(rng.choice(tree), f"n{n}", f"m.n{n}", rng.choice(["function", "class", "field"]),
                                   line, line + rng.randint(0, 3), rng.random() < 0.5)
                                  for n, line in enumerate(rng.choices(range(1, 9), k=rng.randint(0, 30)))])
        if symbols:
            db.add_references([(rng.choice(tree), rng.choice(symbols), rng.choice(["import", "local", "unique"]),
                                rng.randint(0, 3)) for _ in range(rng.randint(0, 80))])
        pages = [rng.sample(tree + ["nowhere.py"], rng.randint(0, 4)) for _ in range(rng.randint(1, 5))]
        pages.append(pages[0] + pages[0][:1])
        if kept:
            assert file_rows.fill(db.connection) == len(tree) and file_rows.fill(db.connection) == 0
        for _ in range(8 if kept == 2 else 0):
            change_rows(rng, db)
            file_rows.fill(db.connection)
            assert_kept_rows_are_current(db.connection)
        if kept == 3:
            db.connection.execute("UPDATE file_rows SET data = ? WHERE file_id = (SELECT MIN(file_id) FROM file_rows)",
                                  (rng.choice([b"", b"\x00", marshal.dumps((file_rows.LAYOUT + 1,)), b"\xff" * 9]),))
        batch = PrefetchedIndex(db, pages[: rng.randint(1, len(pages))])
        if kept in (1, 2):
            assert not from_tables
        for paths in pages:
            files = scope_files(db, paths)
            ids = [f.id for f in files]
            assert scope_files(batch, paths) == files
            for query in (scope_symbols, inbound_references, outbound_references):
                assert query(batch, ids) == query(db, ids) == query(batch, iter(ids))
            assert importing_tests(batch, files) == importing_tests(db, files)
            assert import_resolved_languages(batch, ["go", "rust"]) == import_resolved_languages(db, ["go", "rust"])
            read_lines = lambda path: ["x"]  # noqa: E731
            assert scope.load_scope_facts(batch, paths, read_lines) == scope.load_scope_facts(db, paths, read_lines)
