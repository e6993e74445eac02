"""`ground wiki` on a small tree: deterministic output for any number of workers, the index page, safe
replacement of a previous wiki, and bad page maps."""

import errno
import io
import multiprocessing
import os
import re
import signal
import struct
import subprocess
import sys
import time
from pathlib import Path

import pytest
from test_ground_tool import process_state
from test_indexer import write_tree

from tarnwick.tools import ground as tool, wiki

TREE = {
    "shop/__init__.py": '"""The shop."""\nfrom .models import Cart\n',
    "shop/models.py": '"""Cart and items."""\nLIMIT = 10\n\n\nclass Cart:\n'
                      '    def add(self, line):\n        return LIMIT\n',
    "shop/pay/card.py": "from shop.models import Cart\n\ndef charge():\n    return Cart().add(2)\n",
    "app/main.py": "from shop.models import Cart, LIMIT\nfrom shop.pay.card import charge\n\n"
                   "def run():\n    return Cart().add(LIMIT) + charge()\n",
    "tests/test_cart.py": "from shop.models import Cart\n\ndef test_cart():\n    Cart().add(1)\n",
    "setup.py": '"""Install "shop"."""\nimport app.main\n\napp.main.run()\n',
}
FOLDERS = ["(top level)", "app", "shop", "shop/pay", "tests"]


@pytest.fixture
def tree(tmp_path, monkeypatch):
    monkeypatch.setattr(wiki, "default_jobs", lambda: 3)  # --jobs up to 3 gives as many processes on any machine
    return write_tree(tmp_path / "src", TREE)


def run(capsys, tree, out, *args):
    status = tool.main(["wiki", "--tree", str(tree), "--index", str(tree.parent / "index.sqlite"), "--out", str(out),
                        *args])
    captured = capsys.readouterr()
    return status, captured.out, [line for line in captured.err.splitlines() if not line.startswith("ground: index")]


def snapshot(folder):
    return {path.relative_to(folder).as_posix(): path.read_bytes() for path in sorted(folder.rglob("*"))
            if path.is_file()}


def test_the_same_bytes_for_any_number_of_workers_and_an_index_page_whose_links_resolve(tree, capsys):
    wikis = {}
    for jobs in (1, 2):
        out = tree.parent / f"wiki{jobs}"
        status, said, err = run(capsys, tree, out, "--jobs", str(jobs))
        assert (status, err) == (0, [])
        assert re.fullmatch(rf"Wrote the wiki of 5 pages \(6 files\) to {out}/index.md in .* pages/s; index queries "
                            r".* s, reading files .* s, module calls .* s( summed over the workers)?\.\n", said)
        wikis[jobs] = snapshot(out)
    assert wikis[1] == wikis[2]
    index = wikis[1]["index.md"].decode()
    rows = re.findall(r"^\| \[(.*?)\]\((.*?)\) \| (.*?) \| (\d+) \| (\d+) \| (\d+) \|$", index, re.M)
    assert [row[0] for row in rows] == FOLDERS
    assert sorted(link for _, link, *_ in rows) == sorted(name for name in wikis[1] if name != "index.md")
    assert rows[2] == ("shop", "pages/shop.md", "`shop/__init__.py`, `shop/models.py`", "3", "2", "0")
    page = wikis[1]["pages/shop.md"].decode()
    assert page.startswith("# shop: grounding of 2 files in ") and "## Consumers" in page and "took" not in page
    # The uses between pages are those of the pages' consumers sections, the heaviest first.
    assert ("- `app/main.py` uses `LIMIT`, `Cart`, `add` (5 refs)\n"
            "- `shop/pay/card.py` uses `Cart`, `add` (3 refs)") in page
    graph = index.split("```mermaid\n")[1]
    assert re.findall(r"p(\d) -->\|(\d+)\| p(\d)", graph) == [("1", "5", "2"), ("3", "3", "2"), ("1", "2", "3"),
                                                           ("0", "1", "1")]
    assert 'p0["(top level)"]' in graph


def test_without_jobs_a_process_per_core_grounds_pages_but_none_for_fewer_files_than_pay(tree, capsys, monkeypatch):
    asked, ground_pages = [], wiki.ground_pages
    monkeypatch.setattr(wiki, "ground_pages", lambda *args: asked.append(args[4]) or ground_pages(*args))
    monkeypatch.setattr(wiki, "default_jobs", lambda: 8)
    runs = {(): 1, ("--jobs", "3"): 3, ("--jobs", "9"): 5}  # 6 files, 5 pages
    for args in runs:
        assert run(capsys, tree, tree.parent / "wiki", *args)[::2] == (0, [])
    monkeypatch.setattr(wiki, "FILES_PER_JOB", 2)
    assert run(capsys, tree, tree.parent / "wiki")[::2] == (0, [])
    # Never more processes than cores, and no worker left once the command is done.
    monkeypatch.setattr(wiki, "default_jobs", lambda: 2)
    started, workers = [], wiki.Workers
    monkeypatch.setattr(wiki, "Workers", lambda count: started.append(count) or workers(count))
    assert run(capsys, tree, tree.parent / "wiki", "--jobs", "4000")[::2] == (0, [])
    assert (asked, started, multiprocessing.active_children()) == ([*runs.values(), 3, 2], [1], [])


def test_processes_that_cannot_start_or_ctrl_c_once_the_wiki_is_written_are_one_line(tree, capsys, monkeypatch):
    out = tree.parent / "wiki"

    def no_fork():
        raise OSError(errno.EAGAIN, os.strerror(errno.EAGAIN))

    with monkeypatch.context() as patched:
        patched.setattr(wiki.threading, "active_count", lambda: 1)  # forked
        patched.setattr(os, "fork", no_fork)
        status, said, err = run(capsys, tree, out, "--jobs", "3")
    assert (status, said, err) == (1, "", ["ground: error: cannot start 2 worker processes: Resource temporarily "
                                           "unavailable; try a smaller --jobs"])
    assert not out.exists() and multiprocessing.active_children() == []
    # Ctrl-C while the workers end: the wiki is in place, and the command says so.
    close = wiki.Workers.close

    def interrupted(self, stop=False):
        close(self, stop)
        os.kill(os.getpid(), signal.SIGINT)
        time.sleep(1)  # the handler raises first

    monkeypatch.setattr(wiki.Workers, "close", interrupted)
    status, said, err = run(capsys, tree, out, "--jobs", "2")
    assert (status, said.startswith("Wrote the wiki of 5 pages"), err) == (130, True, ["ground: interrupted once the "
                                                                                       "wiki was written"])
    assert (out / "index.md").exists() and multiprocessing.active_children() == []


def interrupt_at_page(monkeypatch, page, number=signal.SIGINT):
    """The signal `number` (Ctrl-C's by default) at the `page`-th page this process grounds (with
    workers, it grounds pages too, at least one); forked workers ground theirs undisturbed."""
    ground_page, calls, here = tool.ground_page, [], os.getpid()

    def interrupted(*args):
        calls.append(1)
        if len(calls) == page and os.getpid() == here:
            os.kill(here, number)
            time.sleep(1)  # the handler raises first
        return ground_page(*args)

    monkeypatch.setattr(tool, "ground_page", interrupted)


@pytest.mark.parametrize("before, jobs, number", [(False, 1, signal.SIGINT), (True, 1, signal.SIGINT),
                                                  (True, 2, signal.SIGINT), (True, 2, signal.SIGTERM),
                                                  (False, 1, signal.SIGHUP)])
def test_an_interrupted_run_leaves_the_previous_wiki_or_none(tree, capsys, monkeypatch, before, jobs, number):
    out = tree.parent / "wiki"
    if before:
        assert run(capsys, tree, out)[0] == 0
    previous = snapshot(out) if before else None
    interrupt_at_page(monkeypatch, 2 if jobs == 1 else 1, number)
    status, said, err = run(capsys, tree, out, "--jobs", str(jobs))
    kept = f"the previous wiki {out} was kept" if before else "no wiki was written"
    how = "interrupted" if number == signal.SIGINT else f"stopped by {signal.Signals(number).name}"
    assert (status, said, err) == (128 + number, "", [f"ground: {how}; {kept}"])
    assert signal.getsignal(signal.SIGTERM) == signal.SIG_DFL  # the command's own handling ends with it
    assert (snapshot(out) if out.exists() else None) == previous
    assert sorted(os.listdir(tree.parent)) == ["index.sqlite", "src"] + ["wiki"] * before


def test_an_error_in_a_worker_reaches_the_caller_as_raised_and_the_previous_wiki_stays(tree, capsys, monkeypatch):
    out = tree.parent / "wiki"
    assert run(capsys, tree, out)[0] == 0
    previous, here, ground, taken = snapshot(out), os.getpid(), wiki.Worker.ground, tree.parent / "taken"

    def in_the_worker(then):
        """Worker.ground that does `then` in the worker; this process's first batch lasts until the
        worker has taken one, however slowly the worker starts."""
        def ground_batch(self, batch):
            if os.getpid() != here:
                taken.touch()
                return then(self, batch)
            deadline = time.monotonic() + 30
            while not taken.exists() and time.monotonic() < deadline:
                time.sleep(0.01)
            return ground(self, batch)
        return ground_batch

    def broken(self, batch):
        raise LookupError("a worker's own error")

    def killed(self, batch):  # in the middle of its batch
        os.kill(os.getpid(), signal.SIGKILL)

    def half_sent(outgoing, results):  # halfway through a message: the rest never comes
        outgoing.get()
        os.write(results.fileno(), struct.pack("!i", 1 << 20) + bytes(1000))
        os.kill(os.getpid(), signal.SIGKILL)

    monkeypatch.setattr(wiki.threading, "active_count", lambda: 1)  # forked, with the methods set here
    monkeypatch.setattr(wiki.Worker, "ground", in_the_worker(broken))
    with pytest.raises(LookupError, match="a worker's own error"):
        run(capsys, tree, out, "--jobs", "2")
    # A worker killed is one line, not a wait for results that never come.
    for then, sending in [(killed, wiki._send_each), (ground, half_sent)]:
        taken.unlink()
        monkeypatch.setattr(wiki.Worker, "ground", in_the_worker(then))
        monkeypatch.setattr(wiki, "_send_each", sending)
        status, said, err = run(capsys, tree, out, "--jobs", "2")
        assert (status, said) == (1, "")
        assert err == ["ground: error: a worker process ended (signal 9) before its pages were grounded"]
    taken.unlink()
    assert snapshot(out) == previous
    assert sorted(os.listdir(tree.parent)) == ["index.sqlite", "src", "wiki"]


def test_a_worker_that_starts_after_its_run_is_done_takes_nothing_from_the_next(tree, capsys, monkeypatch):
    """A host that grounds one wiki after another in one process: a worker so slow to start that its
    run finished without it asks its own run for pages, never the next one."""
    out, here, go, second = tree.parent / "wiki", os.getpid(), tree.parent / "go", []
    start_worker, ground = wiki.start_worker, wiki.Worker.ground

    def slow_start(parent):  # workers start once the second run is under way
        start_worker(parent)
        deadline = time.monotonic() + 10
        while not go.exists() and time.monotonic() < deadline:
            time.sleep(0.01)

    def ground_batch(self, batch):
        if os.getpid() == here and second and not go.exists():
            go.touch()
            time.sleep(0.5)  # the workers, late ones included, take the other batches meanwhile
        return ground(self, batch)

    monkeypatch.setattr(wiki, "start_worker", slow_start)
    monkeypatch.setattr(wiki.Worker, "ground", ground_batch)
    monkeypatch.setattr(wiki.threading, "active_count", lambda: 1)  # forked, with the functions set here
    assert run(capsys, tree, out, "--jobs", "3")[::2] == (0, [])  # this process grounds every page
    first = snapshot(out)
    second.append(True)
    assert run(capsys, tree, out, "--jobs", "3")[::2] == (0, [])
    assert snapshot(out) == first


def test_workers_kept_across_runs_ground_each_run_from_the_index_as_it_is_then(tree, monkeypatch):
    """A host that keeps its workers between wikis: the tree changes between two runs, and the
    pages a worker grounds in the second show the change, as a run of this process alone does."""
    args = wiki.parse_args(["--tree", str(tree), "--index", str(tree.parent / "index.sqlite"), "--out", "w"])
    here, ground, taken = os.getpid(), wiki.Worker.ground, tree.parent / "taken"

    def shared(self, batch):  # every process grounds some: this one waits until a worker has a batch
        if os.getpid() != here:
            taken.touch()
        else:
            deadline = time.monotonic() + 30
            while not taken.exists() and time.monotonic() < deadline:
                time.sleep(0.01)
        return ground(self, batch)

    def documents(jobs, workers=None):
        with tool.open_index(args) as db:  # brought up to date
            index, indexed = Path(db.path), [row[0] for row in db.query("SELECT path FROM files ORDER BY path")]
        tasks = [(number, title, paths) for number, (title, paths) in enumerate(wiki.folder_pages(indexed))]
        return sorted((result.number, result.page.document)
                      for result in wiki.ground_pages(index, tree, tool.quota(args), tasks, jobs, workers))

    monkeypatch.setattr(wiki.threading, "active_count", lambda: 1)  # forked, with the methods set here
    monkeypatch.setattr(wiki.Worker, "ground", shared)
    with wiki.Workers(1) as workers:
        first = documents(2, workers)
        assert first == documents(1)
        taken.unlink()
        write_tree(tree, {name: text.replace("Cart", "Basket") for name, text in TREE.items()})
        second = documents(2, workers)
        assert taken.exists() and second == documents(1) and second != first
        assert all(process.is_alive() for process in workers.arrivals.every)  # idle, ready for a third
    for process in workers.arrivals.every:
        process.join(10)
        assert process.exitcode == 0
    # A worker killed between two runs (out of memory, say) is said at the next, in one line.
    with wiki.Workers(1) as workers:
        killed = workers.arrivals.every[0]
        os.kill(killed.pid, signal.SIGKILL)
        killed.join(10)
        with pytest.raises(tool.GroundError, match=r"^a worker process ended \(signal 9\) before its pages"):
            documents(2, workers)


@pytest.mark.parametrize("jobs", ["1", "2"])
def test_an_error_met_grounding_a_page_here_is_raised_as_it_was(tree, capsys, monkeypatch, jobs):
    def broken(*args):
        raise IndexError("a page's own error")

    monkeypatch.setattr(tool, "ground_page", broken)
    with pytest.raises(IndexError, match="a page's own error"):
        run(capsys, tree, tree.parent / "wiki", "--jobs", jobs)


@pytest.mark.parametrize("text, message", [
    (None, "cannot read it: No such file or directory"),
    ("shop = [shop/*.py]\n", "it is no TOML: Invalid value (at line 1"),
    ('shop = ["shop/*.py"]\napp = ["nowhere/*.py"]\n', "the pattern 'nowhere/*.py' of the page 'app' matches no "
                                                       "indexed file"),
    ('"Shop" = ["shop/*.py"]\napp = ["app/main.py"]\nShop = ["shop/models.py"]\n', "the title 'Shop' is used twice"),
    ('shop = 3\n', "the page 'shop' is no list of paths or glob patterns"),
    ('web.src = ["shop/*.py"]\n', "the page 'web' is no list of paths or glob patterns (a title with dots is quoted: "
                                  '"web.src")'),
])
def test_a_bad_page_map_is_one_line_and_status_2_and_nothing_is_written(tree, capsys, text, message):
    pages = tree.parent / "pages.toml"
    if text is not None:
        pages.write_text(text)
    status, said, err = run(capsys, tree, tree.parent / "wiki", "--pages", str(pages))
    assert (status, said, len(err)) == (2, "", 1) and err[0].startswith(f"ground: error: page map {pages}: {message}")
    assert not any("wiki" in name for name in os.listdir(tree.parent))


def test_a_page_map_chooses_titles_and_files_and_an_existing_folder_must_be_a_wiki(tree, capsys, monkeypatch):
    text = '"Shop [all of it]" = ["shop/*"]\n"shop all of it" = "app/main.py"\n'
    monkeypatch.setattr(sys, "stdin", io.TextIOWrapper(io.BytesIO(b"\xef\xbb\xbf" + text.encode())))  # a BOM first
    out = tree.parent / "wiki"
    assert run(capsys, tree, out, "--pages", "-")[0] == 0
    from_stdin = snapshot(out)
    pages = tree.parent / "pages.toml"
    pages.write_text(text)
    assert run(capsys, tree, out, "--pages", str(pages))[0] == 0
    assert snapshot(out) == from_stdin
    assert sorted(snapshot(out)) == ["index.md", "pages/Shop-all-of-it.md", "pages/shop-all-of-it-2.md"]
    assert "# Shop \\[all of it\\]: grounding of 3 files" in (out / "pages/Shop-all-of-it.md").read_text()
    assert "| [Shop \\[all of it\\]](pages/Shop-all-of-it.md) | `shop/__init__.py`, " in (out / "index.md").read_text()
    (tree.parent / "notes").mkdir()
    (tree.parent / "notes" / "todo.txt").write_text("mine")
    status, said, err = run(capsys, tree, tree.parent / "notes")
    assert (status, err) == (2, [f"ground wiki: error: argument --out: {tree.parent / 'notes'} is neither an empty "
                                 "folder nor a wiki written before (see --help)"])


def test_the_wiki_never_replaces_what_it_did_not_write(tree, capsys, monkeypatch):
    """The wiki replaces its whole folder: a wiki that holds other files, a folder that holds the index
    or the current folder, are refused before anything is indexed or written."""
    out = tree.parent / "wiki"
    assert run(capsys, tree, out)[0] == 0
    before = snapshot(out)
    refused = "and the wiki replaces the whole folder"
    for extra, named in [(".git/HEAD", ".git"), ("pages/notes.txt", "pages/notes.txt"),
                         ("pages/old/page.md", "pages/old"), ("src/mod.py", "src"),
                         ("pages/design-notes.md", "pages/design-notes.md")]:  # a document the index page lacks
        (out / extra).parent.mkdir(exist_ok=True)
        (out / extra).write_text("mine")
        status, said, err = run(capsys, tree, out)
        assert (status, err) == (2, [f"ground wiki: error: argument --out: {out} holds {named!r}, which no wiki of "
                                     f"this command holds, {refused}: move it away or choose another folder "
                                     "(see --help)"])
        assert snapshot(out) == {**before, extra: b"mine"}
        (out / extra).unlink()
        if (out / extra).parent != out / "pages":
            (out / extra).parent.rmdir()
    assert snapshot(out) == before

    # A folder of the user's that only looks like a wiki: no table of pages that links to its documents.
    handbook = tree.parent / "handbook"
    (handbook / "pages").mkdir(parents=True)
    (handbook / "index.md").write_text("# Wiki of ACME\n\n| Page |\n")
    (handbook / "pages" / "onboarding.md").write_text("mine")
    assert run(capsys, tree, handbook)[::2] == (2, [f"ground wiki: error: argument --out: {handbook} is neither an "
                                                    "empty folder nor a wiki written before (see --help)"])

    empty = tree.parent / "empty"
    empty.mkdir()
    index = str(empty / "index.sqlite")
    status = tool.main(["wiki", "--tree", str(tree), "--index", index, "--out", str(empty)])
    said = capsys.readouterr().err.splitlines()
    assert (status, said) == (2, [f"ground wiki: error: argument --out: {empty} holds the index, {refused}: choose "
                                  "another folder (see --help)"])
    monkeypatch.chdir(empty)
    for there, how in [(".", "is"), ("..", "holds")]:
        assert run(capsys, tree, Path(there))[:3:2] == (2, [f"ground wiki: error: argument --out: {there} {how} the "
                                                            f"current folder, {refused}: choose another folder "
                                                            "(see --help)"])
    assert os.listdir(empty) == [] and snapshot(out) == before


def test_the_wiki_moves_into_place_last_only_where_nothing_else_came_and_runs_that_died_are_cleared(
        tree, capsys, monkeypatch):
    out = tree.parent / "wiki"
    assert run(capsys, tree, out)[0] == 0
    before = snapshot(out)
    # Runs killed before they could clean up: the folder one was writing, and the wiki another had
    # moved aside, with nothing in its place.
    ended = subprocess.Popen(["true"])
    gone = ended.pid if ended.wait() == 0 else None
    out.rename(tree.parent / f".wiki.previous-{gone}")
    (tree.parent / f".wiki.partial-{gone}").mkdir()
    alive = tree.parent / f".wiki.partial-{os.getppid()}"  # a run still at work keeps its folder
    alive.mkdir()
    status, said, err = run(capsys, tree, out, "--jobs", "1")
    assert (status, err) == (0, []) and snapshot(out) == before
    assert sorted(os.listdir(tree.parent)) == sorted([alive.name, "index.sqlite", "src", "wiki"])
    alive.rmdir()

    # A file that comes into the folder while the pages are grounded stops the run, and stays.
    ground_pages = wiki.ground_pages

    def meanwhile(*args):
        (out / "NOTES.txt").write_text("mine")
        yield from ground_pages(*args)

    monkeypatch.setattr(wiki, "ground_pages", meanwhile)
    status, said, err = run(capsys, tree, out)
    assert (status, said) == (1, "")
    assert err == [f"ground: error: the folder {out} changed while the pages were grounded: it holds 'NOTES.txt', "
                   "which no wiki of this command holds, and the wiki replaces the whole folder: move it away or "
                   "choose another folder"]
    assert snapshot(out) == {**before, "NOTES.txt": b"mine"}
    assert sorted(os.listdir(tree.parent)) == ["index.sqlite", "src", "wiki"]


@pytest.mark.skipif(not sys.platform.startswith("linux"), reason="the parent-death signal is Linux's")
def test_workers_end_with_the_command_however_it_ends(tree, tmp_path):
    """Killed outright (out of memory, a timeout), the command takes its workers with it: none
    waits for results nobody will read."""
    script = (
        "import os, sys, time\n"
        "from tarnwick.tools import ground, wiki\n"
        "def ground_batch(self, batch):\n"
        "    open(os.path.join(sys.argv[1], str(os.getpid())), 'w').close()\n"
        "    time.sleep(60)\n"
        "wiki.Worker.ground = ground_batch\n"
        "ground.main(['wiki', '--tree', sys.argv[2], '--index', sys.argv[3], '--out', sys.argv[4], '--jobs', '2'])\n"
    )
    started = tmp_path / "started"
    started.mkdir()
    command = subprocess.Popen([sys.executable, "-c", script, str(started), str(tree), str(tmp_path / "index.sqlite"),
                                str(tmp_path / "wiki")], stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    while len(os.listdir(started)) < 2 and time.monotonic() < deadline:  # the command and its worker
        time.sleep(0.05)
    workers = [int(name) for name in os.listdir(started) if int(name) != command.pid]
    assert len(workers) == 1
    command.kill()
    command.wait()
    while time.monotonic() < deadline and process_state(workers[0]) not in (None, "Z"):
        time.sleep(0.05)
    assert process_state(workers[0]) in (None, "Z")


def test_pages_are_the_folders_that_hold_files_and_file_names_stay_apart():
    assert wiki.folder_pages(["b/x.py", "a.py", "b/c/y.py", "b/a.py"]) == [
        ("(top level)", ["a.py"]), ("b", ["b/a.py", "b/x.py"]), ("b/c", ["b/c/y.py"])]
    assert wiki.file_names(["a/b", "a-b", "A_B", "a_b", "..", "(top level)", "ünï", "ÜNÏ", "数据"]) == [
        "a-b.md", "a-b-2.md", "A_B.md", "a_b-2.md", "page.md", "top-level.md", "ünï.md", "ÜNÏ-2.md", "数据.md"]
    deep = "/".join(f"segment_{i:02}" for i in range(40))  # 439 characters; a file name holds 255 bytes
    names = wiki.file_names([deep, deep + "x", "数据/" * 100, deep])
    assert [len(name.encode()) <= wiki.MAX_NAME_BYTES + 5 for name in names] == [True] * 4
    assert names[0].startswith("segment_00-segment_01-") and len(set(names)) == 4
    assert names[3] == names[0][:-3] + "-2.md"
    assert names == wiki.file_names([deep, deep + "x", "数据/" * 100, deep])


def test_paths_and_titles_that_hold_markdown_stay_inside_their_spans_cells_and_lines(tmp_path, capsys):
    tree = write_tree(tmp_path / "src", {"back`tick/d.py": "def d():\n    return 1\n", "a|b/c.py": "C = 1\n",
                                         "__init__/e.py": "from d import d\n\nd()\n", "new\nline.py": "x = 1\n",
                                         "a\\b.py": "y = 2\n"})
    out = tmp_path / "wiki"
    assert run(capsys, tree, out)[0] == 0
    index = (out / "index.md").read_text()
    rows = [line for line in index.splitlines() if line.startswith("| [")]
    # Five cells each: no bar but the escaped ones splits a row.
    assert [len(re.findall(r"(?<!\\)\|", row)) for row in rows] == [6] * 4
    assert "| [(top level)](pages/top-level.md) | `a\\b.py`, `new line.py` |" in index
    assert "| [\\_\\_init\\_\\_](pages/__init__.md) |" in index  # no bold "init"
    assert "| [a\\|b](pages/a-b.md) | `a\\|b/c.py` |" in index
    assert "| [back\\`tick](pages/back-tick.md) | ``back`tick/d.py`` |" in index
    page = (out / "pages" / "back-tick.md").read_text()
    assert "- `d` (function, ``back`tick/d.py:L1-2``)" in page and "- ``back`tick/d.py``: lines 1-2" in page
    top = (out / "pages" / "top-level.md").read_text()
    assert top.startswith("# (top level): grounding of 2 files in ") and "- `new line.py`: lines 1-1" in top
    assert tool.code("`a") == "`` `a ``" and tool.code(" a ") == "`  a  `" and tool.code(" ") == "` `"


def test_an_out_that_cannot_be_written_is_one_line_and_the_longest_name_is_written(tree, capsys):
    (tree.parent / "file").write_text("")
    status, said, err = run(capsys, tree, tree.parent / "file" / "wiki")
    assert (status, said) == (1, "")
    assert len(err) == 1
    assert err[0].startswith(f"ground: error: cannot write the wiki {tree.parent / 'file' / 'wiki'}: ")
    # A name near the 255 bytes a file name may hold (254, its last letter cut in two by the
    # partial folder's name) is written, and written again over itself.
    long = tree.parent / ("w" * 252 + "é")
    assert [run(capsys, tree, long)[0] for _ in range(2)] == [0, 0]
    assert sorted(os.listdir(tree.parent)) == sorted(["file", "index.sqlite", "src", long.name])


def test_progress_is_a_line_now_and_then_when_stderr_is_no_terminal(monkeypatch):
    import io

    monkeypatch.setattr(wiki, "PROGRESS_EVERY", 0.0)
    stream = io.StringIO()
    progress = wiki.Progress(3, stream)
    for _ in range(3):
        progress.update()
    progress.close()
    lines = stream.getvalue().splitlines()
    assert [line.split(",")[0] for line in lines] == ["ground: 1/3 pages", "ground: 2/3 pages"]
    assert all(re.fullmatch(r"ground: \d/3 pages, [\d.]+ pages/s, \d+ s left", line) for line in lines)
