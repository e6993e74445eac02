"""The index of trees in languages whose imports it does not resolve: names resolved over the tree,
kept current by in-place updates, the same with any number of workers, and grounded pages."""

import io
import os
import threading

import pytest
from test_indexer import write_tree

from tarnwick.indexer import engine, progress, resolver
from tarnwick.indexer.index_file import IndexingInterrupted, TreeSettings, current_index
from tarnwick.storage.database import Database
from tarnwick.tools import ground as tool

# Each tree: a name declared in two production files (ambiguous), a unique name (also declared in a
# test file, which is no production), a name declared and used in one file (local).
TREES = {
    "c": {
        "lib/store.h": "struct store { int flags; };\nint store_open(int n);\n",
        "lib/store.c": '#include "store.h"\nstatic int helper(int x) { return x + 1; }\n'
                       "int store_open(int n) { return helper(n); }\n",
        "lib/other.c": "static int helper(int x) { return x; }\nint other(void) { return helper(2); }\n",
        "app/main.c": "int main(void) { helper(1); helper(2); return store_open(3) + other(); }\n",
        "tests/store_test.c": "int store_open(int n) { return 0; }\nint check(void) { return store_open(1); }\n",
    },
    "go": {
        "store/store.go": "package store\n\ntype Store struct{ Name string }\n\n"
                          "func Open(n string) *Store { return nil }\n\n"
                          "func (s *Store) Get() string { return helper() }\n\nfunc helper() string { return \"\" }\n",
        "other/other.go": "package other\n\nfunc Get() {}\n",
        "cmd/main.go": "package main\n\nfunc main() { s := store.Open(\"a\"); s.Get(); s.Get() }\n",
        "store/store_test.go": "package store\n\nfunc Open() {}\n\nfunc TestOpen() { Open() }\n",
    },
    "typescript": {
        "src/store.ts": "export class Store {\n  get(): string { return helper(); }\n}\n"
                        "export function open(n: string): Store { return new Store(); }\n"
                        "function helper(): string { return ''; }\n",
        "src/other.ts": "export function get(): void {}\n",
        "src/app.ts": "import { open } from './store';\nconst s = open('a');\ns.get();\ns.get();\n",
        "src/store.test.ts": "export function open(): void {}\nopen();\n",
    },
}
# (source, target path, target name, resolution, count) that each index must hold.
EXPECTED = {
    "c": [("app/main.c", "lib/store.c", "store_open", "unique", 1),
          ("app/main.c", "lib/store.c", "helper", "ambiguous", 2),
          ("app/main.c", "lib/other.c", "helper", "ambiguous", 2),
          ("lib/store.c", "lib/store.c", "helper", "local", 1),
          ("tests/store_test.c", "tests/store_test.c", "store_open", "local", 1)],
    "go": [("cmd/main.go", "store/store.go", "Open", "unique", 1),
           ("cmd/main.go", "store/store.go", "Get", "ambiguous", 2),
           ("cmd/main.go", "other/other.go", "Get", "ambiguous", 2),
           ("store/store.go", "store/store.go", "helper", "local", 1)],
    "typescript": [("src/app.ts", "src/store.ts", "open", "unique", 2),  # the import names it too
                   ("src/app.ts", "src/store.ts", "get", "ambiguous", 2),
                   ("src/app.ts", "src/other.ts", "get", "ambiguous", 2),
                   ("src/store.ts", "src/store.ts", "helper", "local", 1)],
}
PAGES = {"c": ("lib/store.c", "app/main.c", "store_open"), "go": ("store/store.go", "cmd/main.go", "Open"),
         "typescript": ("src/store.ts", "src/app.ts", "open")}


def index(tree, name="index.sqlite", workers=1):
    return current_index(tree.parent / name, TreeSettings(tree), log=lambda _: None, progress=None, workers=workers)


def refs(db):
    return sorted(db.query(
        "SELECT sf.path, tf.path, d.name, r.resolution, SUM(r.count) FROM refs AS r"
        " JOIN declarations AS d ON d.id = r.target_id JOIN files AS sf ON sf.id = r.source_file_id"
        " JOIN files AS tf ON tf.id = d.file_id GROUP BY r.source_file_id, r.target_id, r.resolution"))


def content(db):
    """Everything the index says of the tree, without ids."""
    return (sorted(db.query("SELECT path, language FROM files")),
            sorted(db.query("SELECT f.path, d.name, d.fqn, d.kind, d.start_line, d.end_line, d.exported, d.definition"
                            " FROM declarations AS d JOIN files AS f ON f.id = d.file_id")),
            refs(db),
            sorted(db.query("SELECT u.name, f.path, u.count FROM uses AS u JOIN files AS f ON f.id = u.file_id")))


@pytest.mark.parametrize("language", TREES)
def test_names_resolve_locally_uniquely_or_ambiguously_and_tests_are_no_production(tmp_path, language):
    with index(write_tree(tmp_path / "src", TREES[language])) as db:
        found = refs(db)
    assert set(EXPECTED[language]) <= set(found)
    test_file = next(path for path in TREES[language] if "test" in path)
    assert [row for row in found if row[1] == test_file and row[0] != test_file] == []


@pytest.mark.parametrize("language", TREES)
def test_a_grounded_page_counts_unique_uses_where_imports_are_not_resolved(tmp_path, capsys, language):
    tree = write_tree(tmp_path / "src", TREES[language])
    page, user, name = PAGES[language]
    assert tool.main(["--tree", str(tree), "--index", str(tmp_path / "index.sqlite"), page]) == 0
    out = capsys.readouterr().out
    consumers = out[out.index("## Consumers"):out.index("## Declaration blocks")]
    assert f"The index does not resolve imports for {language}, so the files below reference this page's" in consumers
    assert f"- `{user}` uses `{name}` " in consumers


EDITS = {  # each round: files written (None: removed); then the index must equal a fresh one
    "c": [{"app/extra.c": "int other(void) { return 1; }\n",  # `other` becomes ambiguous for main.c
           "lib/other.c": "\n\nint other(void) { return 2; }\nint more(void) { return other(); }\n",  # helper gone
           "tests/store_test.c": None, "lib/store.h": "struct store { int flags; };\nint store_open(int n);\n"},
          {"app/extra.c": None, "lib/store.c": "int store_open(int n) { return n; }\n", "tool.py": "X = 1\n"}],
    "go": [{"cmd/more.go": "package main\n\nfunc Open() {}\n", "other/other.go": None},
           {"store/store.go": "package store\n\n\nfunc Open(n string) {}\n"}],
}


@pytest.mark.parametrize("language", EDITS)
def test_an_index_brought_up_to_date_equals_a_fresh_one(tmp_path, language):
    tree = write_tree(tmp_path / "src", TREES[language])
    index(tree).close()
    for number, edits in enumerate(EDITS[language]):
        for path, text in edits.items():
            if text is None:
                os.remove(tree / path)
            else:
                write_tree(tree, {path: text})
                os.utime(tree / path, ns=(number, 10**9 * (number + 5)))  # a new time even within one clock tick
        with index(tree) as updated, index(tree, f"fresh{number}.sqlite") as fresh:
            assert content(updated) == content(fresh)
            found = refs(updated)
        if language == "c" and number == 0:
            assert ("app/main.c", "app/extra.c", "other", "ambiguous", 1) in found
            assert ("app/main.c", "lib/store.c", "helper", "unique", 2) in found


def test_the_index_is_the_same_with_one_worker_or_two(tmp_path):
    tree = write_tree(tmp_path / "src", {f"{language}/{path}": text for language in TREES
                                         for path, text in TREES[language].items()})
    with index(tree, "one.sqlite", 1) as one, index(tree, "two.sqlite", 2) as two:
        for table in ("files", "declarations", "refs", "uses", "sources"):
            everything = f"SELECT * FROM {table} ORDER BY 1, 2, 3"
            assert one.query(everything) == two.query(everything)


def candidate(path, definition=True, production=True, line=1):
    return (hash((path, line)), hash(path), path, definition, production, line)


@pytest.mark.parametrize("paths, user, chosen", [
    # Past the fan-out, the candidates sharing the most folders with the user, then the nearest in path order
    # (the first FAN_OUT of each list).
    (["a/b/x.c", "a/c/y.c", "d/z.c", "e/w.c", "a/b/q/r.c", "f.c"], "a/b/u.c",
     ["a/b/q/r.c", "a/b/x.c", "a/c/y.c", "d/z.c"]),
    (["k/a.c", "k/b.c", "m/c.c", "n/d.c", "z/e.c"], "z/u.c", ["z/e.c", "n/d.c", "m/c.c", "k/b.c"]),
    (["k/a.c", "k/b.c", "m/c.c", "n/d.c", "z/e.c"], "u.c", ["k/a.c", "k/b.c", "m/c.c", "n/d.c"]),
])
def test_an_ambiguous_name_declared_in_many_places_reaches_the_nearest(paths, user, chosen):
    assert len(paths) > resolver.FAN_OUT
    rows = list(resolver.resolve_name([candidate(path) for path in paths], [(0, user, 3)]))
    by_id = {candidate(path)[0]: path for path in paths}
    assert sorted(by_id[row[1]] for row in rows) == sorted(chosen[: resolver.FAN_OUT])
    assert {row[2:] for row in rows} == {("ambiguous", 3)}


@pytest.mark.parametrize("decls, resolution, targets", [
    ([("a.h", False), ("a.c", True)], "unique", ["a.c"]),  # a prototype beside its definition
    ([("a.h", False), ("b.h", False)], "ambiguous", ["a.h", "b.h"]),  # announced only
    ([("u.c", False), ("a.c", True)], "unique", ["a.c"]),  # the user's own prototype: resolved over the tree
    ([("u.c", False)], "local", ["u.c"]),  # the user's own prototype of a name defined nowhere
    ([("tests/t.c", True), ("a.c", True)], "unique", ["a.c"]),  # a test file's declaration is no production
])
def test_prototypes_never_make_a_name_ambiguous_next_to_its_definition(decls, resolution, targets):
    pool = [(i, hash(path), path, definition, "tests/" not in path, 1) for i, (path, definition) in enumerate(decls)]
    rows = list(resolver.resolve_name(pool, [(hash("u.c"), "u.c", 1)]))
    assert sorted(pool[row[1]][2] for row in rows) == targets
    assert {row[2] for row in rows} == {resolution}


def test_the_files_of_every_language_and_the_folders_skipped(tmp_path):
    tree = write_tree(tmp_path / "src", dict.fromkeys(
        ["a.c", "b.go", "c.ts", "d.py", "e.rs", "f.java", "g.mjs", "h.hpp", "notes.md", "Makefile", ".hidden/x.c",
         "node_modules/m/x.js", "venv/pyvenv.cfg", "venv/lib/x.c", "build/x.c", "sub/build/y.c", "sub/z.test.ts"], ""),
        {os.fsdecode(b"bad\xff.c"): b""})
    os.mkfifo(tree / "pipe.c")  # a reader would wait for a writer forever
    (tree / "gone.go").symlink_to(tree / "nowhere.go")
    (tree / "link.c").symlink_to(tree / "a.c")
    unnamed = []
    found = engine.tree_files(tree, exclude=("sub/*",), keep=("sub/build/*",), unnamed=unnamed)
    assert {path: entry[0] for path, entry in found.items()} == {
        "a.c": "c", "b.go": "go", "c.ts": "typescript", "d.py": "python", "e.rs": "rust", "f.java": "java",
        "g.mjs": "javascript", "h.hpp": "cpp", "link.c": "c", "sub/build/y.c": "c"}
    assert unnamed == [os.fsdecode(b"bad\xff.c")]


class Terminal(io.StringIO):
    def isatty(self):
        return True


@pytest.mark.parametrize("stream_type, shown", [
    (io.StringIO, ["parsing: 1/200 files, ", "parsing: 200/200 files, "]),  # a line per update here (EVERY is 0)
    (Terminal, ["parsing: 100%|", "200/200 [", "files/s]"]),  # a bar: done, rate, time left
])
def test_progress_is_a_bar_on_a_terminal_and_plain_lines_elsewhere(monkeypatch, stream_type, shown):
    monkeypatch.setattr(progress, "EVERY", 0.0)
    stream, threads = stream_type(), set(threading.enumerate())
    bar = progress.Progress(stream, progress.MIN_FILES, "parsing")
    for done in range(1, progress.MIN_FILES + 1):
        bar.update(done)
    bar.close()
    assert all(piece in stream.getvalue() for piece in shown)
    # No thread stays behind: the wiki's workers are forked only from a process without one.
    assert set(threading.enumerate()) <= threads
    quiet = io.StringIO()
    progress.Progress(quiet, progress.MIN_FILES - 1, "parsing").close()  # small runs say nothing
    assert quiet.getvalue() == ""


def test_an_interrupted_update_leaves_the_previous_index(tmp_path, monkeypatch):
    tree = write_tree(tmp_path / "src", TREES["c"])
    with index(tree) as db:
        before = content(db)
    write_tree(tree, {"app/extra.c": "int other(void) { return 1; }\n"})
    os.remove(tree / "lib/other.c")

    def interrupt(*args):
        raise KeyboardInterrupt

    monkeypatch.setattr(engine, "_resolve_again", interrupt)  # after every row of the old files was deleted
    with pytest.raises(IndexingInterrupted, match="the previous index .* was kept"):
        index(tree)
    monkeypatch.undo()
    with Database(tree.parent / "index.sqlite", readonly=True) as db:
        assert content(db) == before
    assert sorted(os.listdir(tree.parent)) == ["index.sqlite", "src"]
