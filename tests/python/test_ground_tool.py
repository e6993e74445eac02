"""The grounding tool on trees of its own: an index kept complete and current, the command line, the document."""

import contextlib
import multiprocessing.connection
import os
import shlex
import signal
import sqlite3
import subprocess
import sys
import textwrap
import threading
import time
from pathlib import Path

import pytest
from test_indexer import write_tree

import scope
from conftest import ROOT
from tarnwick.indexer import engine, index_file, python_tree
from tarnwick.storage.database import Database
from tarnwick.tools import ground as tool

TREE = {
    "shop/__init__.py": '"""The shop."""\nfrom .models import Cart\n',
    "shop/models.py": '"""Cart and items."""\nLIMIT = 10\n\n\nclass Cart:\n'
                      '    def add(self, line):\n        return LIMIT\n',
    "shop/old.py": "from .models import Cart\n\ndef legacy():\n    return Cart().add(1)\n",
    "app/main.py": "from shop.models import Cart, LIMIT\n\ndef run():\n    return Cart().add(LIMIT)\n",
    "tests/test_cart.py": "from shop.models import Cart\n\ndef test_cart():\n    Cart().add(1)\n",
    "broken.py": "def oops(:\n",
}
RAW = {"latin.py": "# -*- coding: latin-1 -*-\n# Caf\u00e9 menu.\nPRICE = '\u00e9'\n".encode("latin-1"),
       os.fsdecode(b"bad\xff.py"): b"x = 1\n"}
UNINDEXED = ["ground: 2 files could not be indexed:", "ground:   bad\\xff.py: its name is no valid UTF-8",
             "ground:   broken.py: syntax error at line 1: invalid syntax"]


@pytest.fixture
def tree(tmp_path):
    return write_tree(tmp_path / "src", TREE, RAW)


def ground(capsys, tree, *args):
    status = tool.main(["--tree", str(tree), "--index", str(tree.parent / "index.sqlite"), *args])
    out, err = capsys.readouterr()
    return status, out, err.splitlines()


def test_a_first_run_indexes_the_tree_and_names_the_files_it_could_not_index(tree, capsys):
    ended = subprocess.Popen(["true"])
    ended.wait()
    for pid in (ended.pid, os.getppid()):  # what a build killed outright left; one still at work
        (tree.parent / f".index.sqlite.{pid}.tmp").write_bytes(b"unfinished")
    status, out, err = ground(capsys, tree, "app/main.py", "latin.py", "shop/gone.py")
    assert (status, err) == (0, [f"ground: indexing {tree} into {tree.parent / 'index.sqlite'}"] + UNINDEXED)
    assert sorted(os.listdir(tree.parent)) == [f".index.sqlite.{os.getppid()}.tmp", "index.sqlite", "src"]
    assert out.startswith(f"# Grounding of 3 files in `{tree}`\n")
    assert "| `latin.py` | 3 | 1 | Caf\u00e9 menu. |" in out  # read in the encoding its coding line names
    assert "| `shop/gone.py` | ? | 0 | not in the index | | | |" in out
    assert "- `shop.models.Cart.add` (`shop/models.py`, method): 1 ref\n" in out
    assert f"## Neighbours\n\n{tool.NEIGHBOURS_NOTE}\n" in out
    assert f"## Name matches\n\n{tool.NAME_MATCHES_NOTE}\n\nNone.\n" in out


def interrupt(*args, **kwargs):
    raise KeyboardInterrupt


# Where to interrupt: the last step of a first index, and of one brought up to date in place.
@pytest.mark.parametrize("places", [[(python_tree, "_analyse")], [(python_tree._Indexer, "follow")],
                                    [(Database, "add_references")], [(Database, "set_info"), (engine, "_copy_rows")]])
def test_an_interrupted_indexing_leaves_the_previous_index_or_none_and_the_next_run_is_current(
        tree, capsys, monkeypatch, places):
    index = tree.parent / "index.sqlite"
    for edited in (False, True):
        if edited:  # ten lines on top of a file, a file added and one removed
            (tree / "shop/models.py").write_text("\n" * 10 + TREE["shop/models.py"])
            write_tree(tree, {"shop/new.py": "from .models import Cart\nCart()\n"})
            (tree / "shop/old.py").unlink()
        before = index.read_bytes() if index.exists() else None
        with monkeypatch.context() as patch:
            for owner, name in places:
                patch.setattr(owner, name, interrupt)
            status, out, err = ground(capsys, tree, "shop/models.py")
        kept = f"the previous index {index} was kept" if before else "no index was written"
        assert (status, out, err[-1]) == (130, "", f"ground: indexing was interrupted; {kept}")
        assert (index.read_bytes() if index.exists() else None) == before
        assert sorted(os.listdir(tree.parent)) == (["index.sqlite", "src"] if before else ["src"])
        status, out, err = ground(capsys, tree, "shop/models.py")
        changes = "1 changed (shop/models.py), 1 added (shop/new.py), 1 removed (shop/old.py)"
        assert (status, err[0]) == (0, f"ground: refreshing the index of {tree}: {changes}" if edited else
                                    f"ground: indexing {tree} into {index}")
        first, last = 5 + 10 * edited, 7 + 10 * edited
        assert out.startswith(f"# Grounding of 1 file in `{tree}`\n")
        assert f"| `shop/models.py` | {last} | 3 | Cart and items. | `Cart` L{first} (" in out
        assert f"- `Cart` (class, `shop/models.py:L{first}-{last}`)" in out
        assert f"- `shop/models.py`: lines {first}-{last}" in out
        assert "- `app/main.py` uses `LIMIT`, `Cart`, `add` (5 refs)" in out
        assert ("shop/new.py" in out, "shop/old.py" in out) == (edited, not edited)
    assert ground(capsys, tree, "shop/models.py")[2] == []  # nothing changed since


@contextlib.contextmanager
def deadline(seconds):
    """A run that is still going after `seconds` fails instead of hanging the suite."""
    def late(*args):
        raise TimeoutError(f"still running after {seconds} s")

    previous = signal.signal(signal.SIGALRM, late)
    signal.alarm(seconds)
    try:
        yield
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, previous)


@pytest.mark.parametrize("sending", [False, True], ids=["while parsing", "while sending its results"])
def test_a_parsing_worker_that_dies_ends_the_run_in_one_line_and_leaves_the_previous_index_or_none(
        tree, capsys, monkeypatch, sending):
    # Files that are not Python are parsed by worker processes, forked with what is patched here.
    write_tree(tree, {f"lib/part{n}.c": f"int part{n}(void) {{ return {n}; }}\n" for n in range(40)})
    index, here, parse_file = tree.parent / "index.sqlite", os.getpid(), engine.parse_file
    send = multiprocessing.connection.Connection._send
    monkeypatch.setattr(engine, "default_workers", lambda: 2)

    def killed_at(doomed):  # as the kernel's out-of-memory killer would
        def parse(root, path, language):
            if path != doomed or os.getpid() == here:
                return parse_file(root, path, language)
            if not sending:
                os.kill(os.getpid(), signal.SIGKILL)
            problem, decls, uses, (lines, _summary) = parse_file(root, path, language)
            return problem, decls, uses, (lines, "x" * 1_000_000)  # results that take many writes to send
        return parse

    def half_sent(connection, data, *args):  # the worker dies halfway through sending the large results
        if len(data) > 500_000 and os.getpid() != here:
            send(connection, bytes(data[: len(data) // 2]), *args)
            os.kill(os.getpid(), signal.SIGKILL)
        return send(connection, data, *args)

    for before in (False, True):
        if before:
            assert ground(capsys, tree, "shop/models.py")[0] == 0
            (tree / "lib/part37.c").write_text("int part37(void) { return 0; }\n")
            write_tree(tree, {"lib/new.c": "int fresh(void) { return part37(); }\n"})
        previous = index.read_bytes() if before else None
        with monkeypatch.context() as patch, deadline(30):
            patch.setattr(engine, "parse_file", killed_at("lib/part37.c"))
            patch.setattr(multiprocessing.connection.Connection, "_send", half_sent)
            status, out, err = ground(capsys, tree, "shop/models.py")
        kept = f"the previous index {index} was kept" if before else "no index was written"
        assert (status, out, err[-1]) == (1, "", f"ground: error: a process parsing the tree's files ended "
                                                 f"(signal 9) before it returned them; {kept}")
        assert len(err) == 2 and err[0].startswith("ground: refreshing" if before else "ground: indexing")
        assert (index.read_bytes() if before else index.exists()) == (previous if before else False)
        assert sorted(os.listdir(tree.parent)) == (["index.sqlite", "src"] if before else ["src"])


# A ground whose parsing workers each take a file and hold it for a minute, after saying so in a file of their own.
STUCK = textwrap.dedent("""\
    import os, sys, time
    from tarnwick.indexer import engine
    from tarnwick.tools import ground

    def stuck(root, path, language):
        open(os.path.join(sys.argv[1], str(os.getpid())), "w").close()
        time.sleep(60)

    engine.parse_file, engine.default_workers = stuck, lambda: 2
    ground.main(sys.argv[2:])
""")


def process_state(pid):
    """The state letter of a process ("Z" for one that ended and was not reaped yet), None for one gone."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0]
    except OSError:
        return None


@pytest.mark.skipif(not sys.platform.startswith("linux"), reason="the parent-death signal is Linux's")
def test_parsing_workers_end_with_the_process_that_started_them(tree):
    write_tree(tree, {f"lib/part{n}.c": f"int part{n}(void) {{ return {n}; }}\n" for n in range(40)})
    started = tree.parent / "started"
    started.mkdir()
    env = {**os.environ, "PYTHONPATH": f"{Path(scope.__file__).parent}:{ROOT / 'host'}"}
    run = subprocess.Popen([sys.executable, "-c", STUCK, str(started), "--tree", str(tree), "--index",
                            str(tree.parent / "index.sqlite"), "lib/part0.c"], env=env, stderr=subprocess.DEVNULL)
    workers = []
    try:
        until = time.monotonic() + 30
        while len(workers) < 2 and run.poll() is None and time.monotonic() < until:
            time.sleep(0.05)
            workers = [int(name) for name in os.listdir(started)]
        assert len(workers) == 2  # both parsing
        run.kill()  # as the out-of-memory killer would
        run.wait()
        until = time.monotonic() + 10
        while any(process_state(pid) not in (None, "Z") for pid in workers) and time.monotonic() < until:
            time.sleep(0.05)
        assert [process_state(pid) in (None, "Z") for pid in workers] == [True, True]
    finally:
        run.kill()
        run.wait()
        for pid in workers:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)


@pytest.mark.parametrize("make, status, message", [
    (lambda index, run: Database(index).close(),  # the tables, but not the marks of a complete index
     0, "ground: the index {index} is incomplete or from another version: indexing {tree} again"),
    (lambda index, run: run("--exclude", "app/*", "shop/models.py"),
     0, "ground: the index {index} was made from another tree or with other settings: indexing {tree} again"),
    (lambda index, run: index.write_bytes(b"not a database, not even close" * 100),
     1, "ground: error: cannot read the index {index}: file is not a database; it is left as it is: remove it to "
        "index the tree anew, or choose another index file"),
    (lambda index, run: older_index(index, "python-tree 2, Python 3.9"),
     0, "ground: the index {index} is incomplete or from another version: indexing {tree} again"),
    (lambda index, run: sqlite3.connect(index).execute("CREATE TABLE notes (text)"),
     1, "ground: error: {index} is no index (it has no files table); choose another index file"),
    (lambda index, run: application(index, "CREATE TABLE customers (name)"),
     1, "ground: error: {index} is no index (it has no declarations table); choose another index file"),
    (lambda index, run: application(index, "CREATE TABLE customers (name)", *INDEX_TABLES),
     1, "ground: error: {index} is no index (it has a table that no index has: customers); choose another index file"),
    (lambda index, run: application(index, "CREATE TABLE orders (id)", "CREATE TABLE customers (name)",
                                    "CREATE TABLE index_info (key, value)", *INDEX_TABLES,
                                    "INSERT INTO index_info VALUES ('format', 'orders 2')"),
     1, "ground: error: {index} is no index (it has tables that no index has: customers, orders); choose another "
        "index file"),
    (lambda index, run: index.mkdir(),
     1, "ground: error: {index} is a folder; the index is a file: choose another index file"),
])
def test_index_files_that_cannot_be_used_as_they_are(tree, capsys, make, status, message):
    index = tree.parent / "index.sqlite"
    make(index, lambda *args: ground(capsys, tree, *args))
    before = index.read_bytes() if index.is_file() else None
    assert ground(capsys, tree, "shop/models.py")[::2] == (status, [message.format(index=index, tree=tree)] + (
        UNINDEXED if status == 0 else []))
    if status != 0:  # someone else's file is left as it was
        assert (index.read_bytes() if index.is_file() else None) == before


# Beside files, the tables of the first indexes, which marked no format.
INDEX_TABLES = ["CREATE TABLE declarations (id INTEGER PRIMARY KEY, file_id INTEGER, name TEXT, fqn TEXT, kind TEXT,"
                " start_line INTEGER, end_line INTEGER, exported INTEGER)",
                "CREATE TABLE refs (id INTEGER PRIMARY KEY, source_file_id INTEGER, target_id INTEGER, resolution TEXT,"
                " count INTEGER)",
                "CREATE TABLE resolved_languages (language TEXT PRIMARY KEY)"]


def application(index, *statements):
    """Someone's database: a table of files, and whatever `statements` add."""
    with contextlib.closing(sqlite3.connect(index)) as db, db:
        db.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, "
                   "language TEXT)")
        db.execute("INSERT INTO files (path) VALUES ('invoice.pdf')")
        for statement in statements:
            db.execute(statement)


def older_index(index, format):
    """A complete index of an older version, marked with its `format`."""
    with Database(index) as db:
        db.set_info({"format": format, "complete": "yes"})


@pytest.mark.parametrize("inside", ["notes.txt", "notes.txt/deeper"])
def test_an_index_that_cannot_be_written_where_it_is_asked_for_is_one_line(tree, capsys, inside):
    (tree.parent / "notes.txt").write_text("a file, not a folder\n")
    index = tree.parent / inside / "index.sqlite"
    status, out, err = tool.main(["--tree", str(tree), "--index", str(index), "shop/models.py"]), *capsys.readouterr()
    assert (status, out, err.splitlines()) == (1, "", [
        f"ground: indexing {tree} into {index}",
        f"ground: error: cannot write the index {index}: {tree.parent / 'notes.txt'} is a file, not a folder"])
    assert sorted(os.listdir(tree.parent)) == ["notes.txt", "src"]


def test_a_disk_that_fills_up_while_an_index_is_built_is_one_line_and_leaves_the_previous_index_or_none(
        tree, capsys, monkeypatch):
    write_tree(tree, {"shop/many.py": "".join(f"def step{n}():\n    return {n}\n" for n in range(300))})
    index, index_python = tree.parent / "index.sqlite", engine.index_python

    def filling(db, *args, **kwargs):  # the new index may not grow past its empty tables
        db.connection.execute(f"PRAGMA max_page_count = {db.connection.execute('PRAGMA page_count').fetchone()[0]}")
        return index_python(db, *args, **kwargs)

    for before in (False, True):
        if before:
            assert ground(capsys, tree, "shop/models.py")[0] == 0
        previous = index.read_bytes() if before else None
        monkeypatch.setattr(engine, "index_python", filling)
        status, out, err = ground(capsys, tree, "shop/models.py", "--reindex")
        monkeypatch.setattr(engine, "index_python", index_python)
        assert (status, out, err[-1]) == (1, "", f"ground: error: cannot write the index {index}: database or disk "
                                                 "is full")
        assert (index.read_bytes() if index.exists() else None) == previous
        assert sorted(os.listdir(tree.parent)) == (["index.sqlite", "src"] if before else ["src"])


def test_a_run_waits_for_another_that_updates_the_index_and_says_so_when_that_takes_too_long(
        tree, capsys, monkeypatch):
    index = tree.parent / "index.sqlite"
    assert ground(capsys, tree, "shop/models.py")[0] == 0
    other = sqlite3.connect(index, isolation_level=None, check_same_thread=False)  # the other run's
    refreshing = f"ground: refreshing the index of {tree}: 1 changed (shop/models.py)"
    waiting = f"ground: another run is updating the index {index}: waiting for it to finish"
    said, ending = tool._say, threading.Timer(0.3, other.execute, ["COMMIT"])

    def say(message):  # the other run ends a little after this one started waiting
        said(message)
        if message.startswith("another run"):
            ending.start()

    (tree / "shop/models.py").write_text("\n" + TREE["shop/models.py"])
    other.execute("BEGIN IMMEDIATE")
    with monkeypatch.context() as patch:
        patch.setattr(tool, "_say", say)
        status, out, err = ground(capsys, tree, "shop/models.py")
    ending.join()
    assert (status, err) == (0, [refreshing, waiting] + UNINDEXED)
    assert "| `shop/models.py` | 8 | 3 | Cart and items. |" in out

    (tree / "shop/models.py").write_text("\n\n" + TREE["shop/models.py"])
    other.execute("BEGIN IMMEDIATE")
    before = index.read_bytes()
    monkeypatch.setattr(index_file, "BUSY_SECONDS", 0.2)
    status, out, err = ground(capsys, tree, "shop/models.py")
    assert (status, out, err) == (1, "", [refreshing, waiting, f"ground: error: cannot write the index {index}: "
                                          "another run is still updating it after 0.2 s; try again once it is done"])
    other.execute("COMMIT")
    other.close()
    assert index.read_bytes() == before
    assert ground(capsys, tree, "shop/models.py")[::2] == (0, [refreshing] + UNINDEXED)


def test_an_index_damaged_after_its_check_and_a_stdout_that_cannot_be_written_are_one_line(tree, capsys,
                                                                                            monkeypatch):
    index = tree.parent / "index.sqlite"
    assert ground(capsys, tree, "shop/models.py")[0] == 0
    with sqlite3.connect(index) as db:
        pages = [row[0] for row in db.execute("SELECT rootpage FROM sqlite_master WHERE name IN "
                                              "('declarations', 'refs', 'file_rows')")]
        size = db.execute("PRAGMA page_size").fetchone()[0]
    with open(index, "r+b") as file:  # the tables' first pages: the freshness check reads none of them
        for page in pages:
            file.seek((page - 1) * size)
            file.write(b"\xa5" * size)
    damaged = (f"ground: error: cannot read the index {index}: database disk image is malformed; run again with "
               "--reindex to build it anew")
    assert ground(capsys, tree, "shop/models.py") == (1, "", [damaged])
    status = tool.main(["wiki", "--tree", str(tree), "--index", str(index), "--out", str(tree.parent / "wiki")])
    assert (status, capsys.readouterr().err.splitlines()[-1:]) == (1, [damaged])
    assert not (tree.parent / "wiki").exists()
    assert ground(capsys, tree, "shop/models.py", "--reindex")[0] == 0

    class Full:
        def write(self, text):
            raise OSError(28, "No space left on device")

    for stdout, problem in [(Full(), "No space left on device"), (None, "it is closed")]:
        monkeypatch.setattr(sys, "stdout", stdout)
        status = ground(capsys, tree, "shop/models.py")
        assert status == (1, "", [f"ground: error: cannot write to standard output: {problem}"])


LARGEST = "must be from 0 to 9223372036854775807, not"


@pytest.mark.parametrize("args, status, message", [
    (["--max-share", "nan"], 2, "argument --max-share: must be a number from 0 to 1, not nan"),
    (["--max-share", "inf"], 2, "argument --max-share: must be a number from 0 to 1, not inf"),
    (["--max-share", "1.5"], 2, "argument --max-share: must be a number from 0 to 1, not 1.5"),
    (["--total", "-5"], 2, f"argument --total: {LARGEST} -5"),
    (["--floor", "-1"], 2, f"argument --floor: {LARGEST} -1"),
    (["--neighbours", "-1"], 2, f"argument --neighbours: {LARGEST} -1"),
    (["--total", "99999999999999999999"], 2, f"argument --total: {LARGEST} 99999999999999999999"),
    (["--tree", "/no/such/tree"], 2, "argument --tree: no such directory: /no/such/tree"),
    (["--tree", "{tree}/broken.py"], 2, "argument --tree: not a directory: {tree}/broken.py"),
    (["{tree}/shop/models.py"], 2, "page paths are relative to the tree {tree}: '{tree}/shop/models.py' is absolute;"
                                   " write 'shop/models.py'"),
    (["/elsewhere/x.py"], 2, "page paths are relative to the tree {tree}: '/elsewhere/x.py' is absolute"),
    (["nothing/*.py"], 1, "the page matches no indexed file: nothing/*.py"),
    (["shop/"], 1, "the page matches no indexed file: shop/; for the files of a folder, write 'shop/*'"),
    ([], 2, "name the page's files: paths or glob patterns relative to the tree (the default page is one of the "
            "standard library)"),
])
def test_bad_input_is_one_line_on_stderr(tree, capsys, args, status, message):
    result, out, err = ground(capsys, tree, *(arg.format(tree=tree) for arg in args))
    line = f"ground: error: {message.format(tree=tree)}" + (" (see --help)" if status == 2 else "")
    assert (result, out, err if status == 2 else err[-1:]) == (status, "", [line])  # bad values: nothing but that
    assert (tree.parent / "index.sqlite").exists() == (status != 2)  # nothing is indexed for a bad argument


def test_a_path_is_itself_before_it_is_a_pattern_and_messages_never_stop_the_run(tmp_path):
    """A file whose name holds a glob's characters is named by its path; a standard error that is
    closed, full or read by nobody costs the messages and nothing else."""
    tree = write_tree(tmp_path / "src", {"app/[slug]/page.py": "def page():\n    return 1\n",
                                         "app/s/page.py": "X = 1\n"})
    index = tmp_path / "index.sqlite"
    command = [sys.executable, "-m", "tarnwick.tools.ground", "--tree", str(tree), "--index", str(index)]
    done = subprocess.run([*command, "app/[slug]/page.py"], capture_output=True, text=True, check=False)
    assert done.returncode == 0 and "| `app/[slug]/page.py` | 2 | 1 |" in done.stdout and "app/s/" not in done.stdout
    index.unlink()
    for stderr in ("2>&-", "2>/dev/full", "2> >(head -c0)"):  # the first run indexes, so it has something to say
        shell = f"{' '.join(map(shlex.quote, command))} 'app/*/page.py' {stderr} > {tmp_path / 'page.md'}"
        assert subprocess.run(["bash", "-c", shell], check=False).returncode == 0
        assert (tmp_path / "page.md").read_text().startswith("# Grounding of 2 files in ")  # and nothing else
    assert index.exists()


def test_help_says_where_the_index_lives_and_what_a_page_is(capsys):
    assert tool.main(["--help"]) == 0
    text = " ".join(capsys.readouterr().out.split())
    assert all(said in text for said in ("relative to the tree", ", ".join(tool.DEFAULT_PAGE),
                                         f"{tool.index_home()}/<tree name>-<hash of its path>"))


def test_trees_whose_last_folders_share_a_name_get_indexes_of_their_own(tmp_path, capsys, monkeypatch):
    monkeypatch.setattr(tool, "index_home", lambda: tmp_path / "home")
    for name in ("a", "b"):
        write_tree(tmp_path / name / "src", {f"{name}.py": f'"""Module {name}."""\n'})
        assert tool.main(["--tree", str(tmp_path / name / "src"), f"{name}.py"]) == 0
        assert f"| `{name}.py` | 1 | 0 | Module {name}. |" in capsys.readouterr().out
    assert [name[:4] for name in os.listdir(tmp_path / "home")] == ["src-", "src-"]
