"""The wiki of the standard library, grounded by this tree and by an earlier commit, side by side.

    python3 bench/bench_wiki.py --old 600c772 [--rounds 5]
    python3 bench/bench_wiki.py --tree DIR [--rounds 5]

The earlier commit's files are taken with `git archive` into
build/bench-old-<commit>/, and its module is built there in Release, as this
tree's is into build/rel/ (CMake and Ninja, two jobs).  Each side indexes the
standard library with its own host package (the tool's default exclusions)
into build/bench-wiki/, then grounds the same pages: one per folder that
holds indexed files.

Every round runs, each in a fresh process with that side's host/ and module
on PYTHONPATH: the earlier commit serially (it has no wiki command: a small
driver calls its `load_scope_facts` and the same pipeline page by page), this
tree serially, and this tree with two processes (`ground wiki --jobs 2`:
the process itself and one worker process beside it, its start included).
Each process grounds every page once to warm up and once timed; no files
are written.  Last, one more process of this tree measures the limit that
its batches set for two processes: the serial batch and each batch of a
two-process run alone, in the same warm process, and when two processes
that cost nothing would end, given those batches in their order.  The best of the rounds counts, and
the spread is printed beside it.  The time split sums, over the workers, the
index's queries, reading and summarising files, and the module's own calls.
The documents of both sides are compared (all but their first line, the
heading, which differs).

With --tree DIR instead of --old, this tree alone grounds the wiki of DIR
(one page per folder that holds indexed files), serially and with two
processes, alternating in the same way; the index is build/bench-wiki/
tree-<hash of DIR>.sqlite.  Trees from the registries serve, such as
Debian's golang-src (/usr/share/go-1.19/src) or an sdist from the package
index.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
WORK = ROOT / "build" / "bench-wiki"


def build(source: Path, build_dir: Path) -> Path:
    """The Release module of `source`, built into `build_dir`; returns the folder that holds it."""
    release = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DSCOPE_BUILD_TESTS=OFF"]
    subprocess.run(["cmake", "-S", source, "-B", build_dir, *release], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build_dir, "-j2"], check=True, stdout=subprocess.DEVNULL)
    return build_dir / "python"


def old_checkout(commit: str) -> tuple[str, Path]:
    sha = subprocess.run(
        ["git", "-C", ROOT, "rev-parse", "--short", f"{commit}^{{commit}}"], check=True, capture_output=True, text=True
    ).stdout.strip()
    folder = ROOT / "build" / f"bench-old-{sha}"
    if not (folder / "CMakeLists.txt").exists():
        folder.mkdir(parents=True, exist_ok=True)
        archive = subprocess.run(["git", "-C", ROOT, "archive", sha], check=True, capture_output=True).stdout
        subprocess.run(["tar", "-x", "-C", folder], input=archive, check=True)
    return sha, folder


def start(
    host: Path, module: Path, index: Path, pages: Path | None, jobs: int, tree: Path | None = None
) -> subprocess.Popen:
    env = dict(os.environ, PYTHONPATH=f"{module}{os.pathsep}{host}")
    command = [sys.executable, __file__, "--drive", str(index), "--jobs", str(jobs)]
    if pages is not None:
        command += ["--pages", str(pages)]
    if tree is not None:
        command += ["--tree", str(tree)]
    return subprocess.Popen(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, cwd=WORK)


def finish(process: subprocess.Popen) -> dict:
    out, err = process.communicate()
    if process.returncode != 0:
        sys.exit(f"bench_wiki: the driver failed:\n{err}")
    return json.loads(out.splitlines()[-1])


def drive(host: Path, module: Path, index: Path, pages: Path | None, jobs: int, tree: Path | None = None) -> dict:
    return finish(start(host, module, index, pages, jobs, tree))


def drive_pair(host: Path, module: Path, index: Path, pages: Path) -> dict:
    """Two serial runs at once, in processes of their own: how much of two cores the machine leaves us."""
    first, second = (finish(process) for process in [start(host, module, index, pages, 1) for _ in range(2)])
    return max(first, second, key=lambda run: run["seconds"])


# -- the driver, run with one side's host/ and module on the path ------------------------------------------


def driver(index: Path, pages_file: Path | None, jobs: int, tree: Path | None = None) -> dict:
    from tarnwick.tools import ground

    if tree is None:  # the standard library, whose one-page command both sides have
        args = ground.parse_args(["--index", str(index)])
    else:  # the wiki command's options (nothing is written)
        from tarnwick.tools import wiki

        args = wiki.parse_args(["--index", str(index), "--tree", str(tree), "--out", str(WORK / "unwritten")])
    with ground.open_index(args) as db:  # built on the first call, checked afterwards
        indexed = [row[0] for row in db.query("SELECT path FROM files ORDER BY path")]
    if pages_file is None:
        return {"indexed": indexed}
    pages = json.loads(pages_file.read_text())
    if jobs == 0:
        return _bound(index, args, pages)
    if not hasattr(ground, "ground_page"):
        _old_side(index, args, pages)  # warm-up
        return _old_side(index, args, pages)
    from tarnwick.tools import wiki

    # The worker processes start before the warm-up, as the command starts them before it
    # brings the index up to date; the timed run is their second, as it is this process's.
    with wiki.Workers(jobs - 1) as workers:
        _new_side(index, args, pages, jobs, workers)  # warm-up
        return _new_side(index, args, pages, jobs, workers)


def _new_side(index: Path, args, pages: list, jobs: int, workers) -> dict:
    from tarnwick.tools import ground, wiki

    tasks = [(number, title, paths) for number, (title, paths) in enumerate(pages)]
    documents: list[str] = [""] * len(pages)
    split = wiki.Split()
    cpu = _cpu(workers)
    begin = time.perf_counter()
    for result in wiki.ground_pages(index, args.tree, ground.quota(args), tasks, jobs, workers):
        documents[result.number] = result.page.document
        split.add(result.split)
    seconds = time.perf_counter() - begin
    return _summary(seconds, _cpu(workers) - cpu, split.queries, split.files, split.module, documents)


def _bound(index: Path, args, pages: list, repeat: int = 7) -> dict:
    """What two processes could reach with the batches they are handed, were processes free:
    in one warm process, the serial wiki (one batch) and each batch of a two-process run
    alone, best of `repeat` each; the batches are then handed out in their order to two
    processes that each take the next as soon as they are free, at no cost of their own
    (no start, no copies of memory after a fork, no results sent back)."""
    from tarnwick.tools import ground, wiki

    tasks = [(number, title, paths) for number, (title, paths) in enumerate(pages)]
    worker = wiki.Worker(index, args.tree, ground.quota(args))
    worker.patch_siblings()

    def best(batch: list) -> float:
        times = []
        for _ in range(repeat):
            begin = time.perf_counter()
            worker.ground(batch)
            times.append(time.perf_counter() - begin)
        return min(times)

    serial = [best(batch) for batch in wiki.batches(tasks, 1)]
    split = [best(batch) for batch in wiki.batches(tasks, 2)]
    free = [0.0, 0.0]
    for seconds in split:
        free[free.index(min(free))] += seconds
    return {"serial": sum(serial), "batches": split, "ends": max(free)}


def _old_side(index: Path, args, pages: list) -> dict:
    """The earlier commit's pipeline of one page, page after page, as its one-page command ran it."""
    import scope
    from tarnwick.storage.database import Database
    from tarnwick.tools import ground
    from tarnwick.workers.wiki.checkout import checkout_reader

    spent = {"queries": 0.0, "files": 0.0}

    def timed(function, bucket):
        def call(*arguments):
            begin = time.perf_counter()
            try:
                return function(*arguments)
            finally:
                spent[bucket] += time.perf_counter() - begin

        return call

    queries = ("scope_files", "inbound_references", "import_resolved_languages", "scope_symbols")
    queries += ("outbound_references", "importing_tests")
    originals = {name: getattr(scope, name) for name in (*queries, "file_summary")}
    for name, function in originals.items():
        setattr(scope, name, timed(function, "queries" if name in queries else "files"))
    documents = []
    cpu = _cpu()
    begin = time.perf_counter()
    try:
        timer = ground.Timer()
        with Database(index, readonly=True) as db:
            read_lines = timed(checkout_reader(args.tree), "files")
            for _title, paths in pages:
                documents.append(_old_page(scope, timer, db, read_lines, paths, args))
    finally:
        for name, function in originals.items():
            setattr(scope, name, function)
    seconds = time.perf_counter() - begin
    module = sum(timer.spent.values()) - spent["queries"] - spent["files"]
    return _summary(seconds, _cpu() - cpu, spent["queries"], spent["files"], module, documents)


def _old_page(scope, timer, db, read_lines, paths, args) -> str:
    from tarnwick.tools.ground import NAME_MATCHES_NOTE, NEIGHBOURS_NOTE, plural

    facts = timer(scope.load_scope_facts, db, paths, read_lines)
    missing = [path for path in paths if path not in facts.paths]
    fan_in = timer(scope.production_fan_in, facts)
    cards = timer(scope.render_file_cards, facts, fan_in, "## Files", missing)
    consumers = timer(scope.render_consumers, facts, fan_in, "## Consumers")
    ranked = timer(scope.ranked_by_file, facts, fan_in)
    blocks = timer(scope.select_with_quota, ranked, fan_in, args.total, args.floor, args.max_share)
    seeds = timer(scope.file_seeds, facts, fan_in)
    closest = timer(scope.neighbours, facts, args.neighbours)
    name_matches = timer(scope.name_match_counts, facts)
    out = ["# page", "", cards, consumers]
    out += [
        "## Declaration blocks",
        "",
        f"{len(blocks)} of {plural(len(facts.symbols), 'declaration')} (total {args.total}, floor {args.floor}, "
        f"max share {args.max_share}), every file's best first:",
        "",
    ]
    out += [f"- `{s.name}` ({s.kind}, `{s.path}:L{s.start_line}-{s.end_line}`)" for s in blocks]
    out += ["", "## Seeds", ""]
    out += [f"- `{path}`: lines {start}-{end}" for path, (start, end) in seeds.items()]
    out += ["", "## Neighbours", "", NEIGHBOURS_NOTE, ""]
    out += [f"- `{s.fqn}` (`{s.path}`, {s.kind}): {plural(count, 'ref')}" for s, count in closest] or ["None."]
    out += ["", "## Name matches", "", NAME_MATCHES_NOTE, ""]
    out += [f"- `{source}` -> `{target}`: {plural(count, 'ref')}" for (source, target), count in name_matches.items()]
    if not name_matches:
        out.append("None.")
    out.append("")
    return "\n".join(out)


def _cpu(workers=None) -> float:
    """CPU seconds of this process and of its worker processes (theirs from /proc, in ticks of 10 ms)."""
    seconds = time.process_time()
    for process in workers.arrivals.every if workers is not None else ():
        fields = Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
        seconds += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")  # utime, stime
    return seconds


def _summary(seconds: float, cpu: float, queries: float, files: float, module: float, documents: list[str]) -> dict:
    digest = hashlib.sha256()
    for document in documents:
        digest.update(document.partition("\n")[2].encode())
    return {
        "seconds": seconds,
        "cpu": cpu,
        "queries": queries,
        "files": files,
        "module": module,
        "digest": digest.hexdigest(),
    }


# -- the comparison ---------------------------------------------------------------------------------------


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--old", metavar="COMMIT", help="the earlier commit to compare with")
    parser.add_argument("--tree", type=Path, help="instead: this tree alone, serially and with 2 workers, on DIR")
    parser.add_argument("--rounds", type=int, default=5, help="rounds; the best counts (default 5)")
    parser.add_argument("--drive", type=Path, help=argparse.SUPPRESS)
    parser.add_argument("--pages", type=Path, help=argparse.SUPPRESS)
    parser.add_argument("--jobs", type=int, default=1, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.drive:
        print(json.dumps(driver(args.drive, args.pages, args.jobs, args.tree)))
        return
    if args.tree is not None:
        workers_on_tree(args.tree.resolve(), args.rounds)
        return
    if args.old is None:
        parser.error("the earlier commit (--old COMMIT) or a tree (--tree DIR) is required")

    WORK.mkdir(parents=True, exist_ok=True)
    sha, old = old_checkout(args.old)
    print(f"building the module of {sha} and of this tree (Release) ...", file=sys.stderr, flush=True)
    sides = {
        "old": (old / "host", build(old, old / "build" / "rel"), WORK / f"stdlib-{sha}.sqlite"),
        "new": (ROOT / "host", build(ROOT, ROOT / "build" / "rel"), WORK / "stdlib-new.sqlite"),
    }
    indexed = {name: drive(host, module, index, None, 1)["indexed"] for name, (host, module, index) in sides.items()}
    # This tree also indexes the few files of other languages that the
    # standard library holds (C sources): the pages are those of the files
    # both sides indexed.
    common = [path for path in indexed["new"] if path in set(indexed["old"])]
    if common != indexed["old"]:
        sys.exit("bench_wiki: this tree left out files that the earlier commit indexed")
    sys.path[:0] = [str(ROOT / "host")]
    from tarnwick.tools.wiki import folder_pages

    pages = folder_pages(common)
    pages_file = WORK / "pages.json"
    pages_file.write_text(json.dumps(pages))
    runs = {f"{sha}, serial": ("old", 1), "this tree, serial": ("new", 1), "this tree, 2 workers": ("new", 2)}
    pair = "this tree, serial, two processes at once (the slower)"
    results: dict[str, list[dict]] = {label: [] for label in [*runs, pair]}
    for round_number in range(args.rounds):
        for label, (side, jobs) in runs.items():
            host, module, index = sides[side]
            results[label].append(drive(host, module, index, pages_file, jobs))
        results[pair].append(drive_pair(*sides["new"], pages_file))
        print(f"round {round_number + 1} of {args.rounds} done", file=sys.stderr, flush=True)

    digests = {result["digest"] for runs_of in results.values() for result in runs_of}
    files = len(common)
    print(f"The wiki of the standard library: {len(pages)} pages, {files} files; best of {args.rounds} rounds,")
    print("each configuration in a fresh process, alternating (the machine is shared with other work).")
    print(f"Documents of both sides {'identical' if len(digests) == 1 else 'DIFFERENT'} (all but the heading).")
    print()
    print(
        "| configuration | pages/s (best) | spread over the rounds | seconds | CPU seconds | queries | file reads "
        "| module calls |"
    )
    print("|---|---|---|---|---|---|---|---|")
    best = {}
    for label, runs_of in results.items():
        best[label], spread, top = _rates(len(pages), runs_of)
        print(
            f"| {label} | {best[label]:.1f} | {spread} | {top['seconds']:.3f} | {top['cpu']:.3f} | "
            f"{top['queries']:.3f} | {top['files']:.3f} | {top['module']:.3f} |"
        )
    old_rate, serial, workers, two_at_once = best.values()
    print()
    print(f"this tree serially / {sha} serially: {serial / old_rate:.2f}x")
    print(f"this tree, 2 workers / 1 worker: {workers / serial:.2f}x")
    print(
        f"two serial processes at once / one alone: {2 * two_at_once / serial:.2f}x the work done per second "
        "(2.00x when two cores are free)"
    )
    _print_bound(drive(*sides["new"], pages_file, 0))


def _print_bound(bound: dict) -> None:
    """The limit that the batches of two processes set, measured in one process (see _bound)."""
    batches = ", ".join(f"{1000 * seconds:.1f}" for seconds in bound["batches"])
    print()
    print("The limit of the batches, in one warm process (best of 7 each, milliseconds):")
    print(f"- the serial wiki, one batch: {1000 * bound['serial']:.1f}")
    print(f"- the {len(bound['batches'])} batches of two processes, in the order they are handed out: {batches}")
    print(f"  ({1000 * sum(bound['batches']):.1f} one after the other)")
    print(
        f"- handed out to two processes that cost nothing of their own, they end at {1000 * bound['ends']:.1f}: "
        f"two processes can reach at most {bound['serial'] / bound['ends']:.2f}x one with these batches"
    )


def _rates(pages: int, runs: list[dict]) -> tuple[float, str, dict]:
    """The best pages a second of the runs, their spread as text, and the fastest run."""
    rates = sorted(pages / run["seconds"] for run in runs)
    spread = f"{rates[0]:.1f} to {rates[-1]:.1f} (median {statistics.median(rates):.1f})"
    return rates[-1], spread, min(runs, key=lambda run: run["seconds"])


def workers_on_tree(tree: Path, rounds: int) -> None:
    """This tree's wiki of `tree`, serially and with two workers, alternating; prints the ratio."""
    WORK.mkdir(parents=True, exist_ok=True)
    print("building the module of this tree (Release) ...", file=sys.stderr, flush=True)
    side = (ROOT / "host", build(ROOT, ROOT / "build" / "rel"))
    index = WORK / f"tree-{hashlib.sha256(os.fsencode(tree)).hexdigest()[:12]}.sqlite"
    indexed = drive(*side, index, None, 1, tree)["indexed"]
    sys.path[:0] = [str(ROOT / "host")]
    from tarnwick.tools.wiki import folder_pages

    pages = folder_pages(indexed)
    pages_file = WORK / f"{index.stem}-pages.json"
    pages_file.write_text(json.dumps(pages))
    results: dict[int, list[dict]] = {1: [], 2: []}
    for round_number in range(rounds):
        for jobs, runs_of in results.items():
            runs_of.append(drive(*side, index, pages_file, jobs, tree))
        print(f"round {round_number + 1} of {rounds} done", file=sys.stderr, flush=True)
    digests = {result["digest"] for runs_of in results.values() for result in runs_of}
    print(f"The wiki of {tree}: {len(pages)} pages, {len(indexed)} files; best of {rounds} rounds, each")
    same = "identical" if len(digests) == 1 else "DIFFERENT"
    print(f"configuration in a fresh process, alternating. Documents {same}.")
    print()
    print("| configuration | pages/s (best) | spread over the rounds | seconds | CPU seconds |")
    print("|---|---|---|---|---|")
    best = {}
    for jobs, runs_of in results.items():
        best[jobs], spread, top = _rates(len(pages), runs_of)
        label = "serial" if jobs == 1 else f"{jobs} workers"
        print(f"| {label} | {best[jobs]:.1f} | {spread} | {top['seconds']:.3f} | {top['cpu']:.3f} |")
    print()
    print(f"2 workers / 1 worker: {best[2] / best[1]:.2f}x")
    _print_bound(drive(*side, index, pages_file, 0, tree))


if __name__ == "__main__":
    main()
