"""The indexer and the grounding tool at the scale of the Linux kernel.

    .venv/bin/python bench/bench_kernel.py [--tree DIR] [--workers N] [--pages N]

Without --tree, the kernel source of Debian's package linux-source-6.12 is
unpacked into build/linux-source-6.12/ of this checkout (the package is
installed with apt-get first when its tarball is missing; that needs root).
Prints, each in its own line:

- the whole tree indexed from scratch: wall time, CPU time of all the
  processes, and peak memory (the largest sum of the resident sizes of the
  indexing process and its workers, sampled from /proc every 0.2 s);
- the index brought up to date after touching 100 files;
- the page `mm/*.c` grounded by the one-page command on the current index
  (best of 3), and the slowest of the one-folder pages (the files of one
  folder, not of its subfolders) of the folders with the most declarations
  (`--pages` of them).

Every step runs in a process of its own, as a user would run it.
"""

from __future__ import annotations

import argparse
import os
import resource
import shutil
import subprocess
import sys
import threading
import time
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parent.parent
PACKAGE = "linux-source-6.12"
TARBALL = Path(f"/usr/src/{PACKAGE}.tar.xz")
PYTHON = sys.executable

INDEX = """
import resource, sys
from pathlib import Path
from tarnwick.indexer.index_file import TreeSettings, current_index
workers = int(sys.argv[3]) or None
current_index(Path(sys.argv[2]), TreeSettings(Path(sys.argv[1]).resolve()), rebuild=sys.argv[4] == "1",
              log=lambda m: print(m, file=sys.stderr), workers=workers).close()
cpu = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
print("CPU: %.1f s in the indexing process, %.1f s in its workers" % tuple(u.ru_utime + u.ru_stime for u in cpu),
      file=sys.stderr)
"""


def unpacked_tree() -> Path:
    tree = CHECKOUT / "build" / PACKAGE
    if (tree / "Makefile").is_file():
        return tree
    if not TARBALL.is_file():
        print(f"installing {PACKAGE} with apt-get", file=sys.stderr)
        subprocess.run(["apt-get", "update", "-qq"], check=True)
        env = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
        subprocess.run(["apt-get", "install", "-y", "-qq", PACKAGE], check=True, env=env)
    print(f"unpacking {TARBALL} into {tree.parent}", file=sys.stderr)
    partial = tree.with_name(tree.name + ".partial")
    shutil.rmtree(partial, ignore_errors=True)
    partial.mkdir(parents=True)
    subprocess.run(["tar", "-xf", str(TARBALL), "-C", str(partial)], check=True)
    (partial / PACKAGE).rename(tree)
    partial.rmdir()
    return tree


class PeakMemory:
    """The largest sum of resident sizes of a process and its descendants."""

    def __init__(self, pid: int):
        self.pid, self.peak, self.done = pid, 0, False
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self) -> None:
        page = os.sysconf("SC_PAGE_SIZE")
        while not self.done:
            parents = {}
            for entry in os.listdir("/proc"):
                if entry.isdigit():
                    try:
                        with open(f"/proc/{entry}/stat") as stat:
                            fields = stat.read().rsplit(")", 1)[1].split()
                        parents[int(entry)] = int(fields[1])
                    except (OSError, IndexError, ValueError):
                        pass
            tree, grew = {self.pid}, True
            while grew:
                more = {pid for pid, parent in parents.items() if parent in tree} - tree
                grew = bool(more)
                tree |= more
            total = 0
            for pid in tree:
                try:
                    with open(f"/proc/{pid}/statm") as statm:
                        total += int(statm.read().split()[1]) * page
                except (OSError, IndexError, ValueError):
                    pass
            self.peak = max(self.peak, total)
            time.sleep(0.2)

    def stop(self) -> int:
        self.done = True
        self.thread.join()
        return self.peak


def run_measured(args: list[str]) -> tuple[float, float, int]:
    """Wall seconds, CPU seconds of the process and its descendants, peak memory in bytes."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    started = time.perf_counter()
    process = subprocess.Popen(args, env=_env())
    memory = PeakMemory(process.pid)
    if process.wait() != 0:
        memory.stop()
        sys.exit(f"failed: {' '.join(args)}")
    wall = time.perf_counter() - started
    peak = memory.stop()
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return wall, cpu, peak


def _env() -> dict[str, str]:
    host = str(CHECKOUT / "host")
    return {**os.environ, "PYTHONPATH": host + os.pathsep + os.environ.get("PYTHONPATH", "")}


def ground_seconds(tree: Path, index: Path, page: list[str], runs: int = 1) -> float:
    best = float("inf")
    for _ in range(runs):
        started = time.perf_counter()
        subprocess.run(
            [PYTHON, "-m", "tarnwick.tools.ground", "--tree", str(tree), "--index", str(index), *page],
            check=True,
            stdout=subprocess.DEVNULL,
            env=_env(),
        )
        best = min(best, time.perf_counter() - started)
    return best


def largest_folders(index: Path, count: int) -> dict[str, list[str]]:
    """The files of each of the `count` folders holding the most
    declarations in their own files (not in their subfolders')."""
    import sqlite3

    connection = sqlite3.connect(f"{index.as_uri()}?mode=ro", uri=True)
    sizes: dict[str, int] = {}
    files: dict[str, list[str]] = {}
    for path, n in connection.execute(
        "SELECT f.path, COUNT(d.id) FROM files AS f LEFT JOIN declarations AS d ON d.file_id = f.id GROUP BY f.id"
    ):
        folder = path.rpartition("/")[0]
        sizes[folder] = sizes.get(folder, 0) + n
        files.setdefault(folder, []).append(path)
    connection.close()
    return {folder: files[folder] for folder in sorted(sizes, key=lambda folder: (-sizes[folder], folder))[:count]}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tree", type=Path, help=f"an unpacked kernel tree (default: build/{PACKAGE})")
    parser.add_argument("--index", type=Path, default=CHECKOUT / "build" / "bench" / "kernel.sqlite")
    parser.add_argument("--workers", type=int, default=0, help="worker processes (default: one per core)")
    parser.add_argument("--pages", type=int, default=12, help="one-folder pages to time (the largest folders)")
    args = parser.parse_args()
    tree = (args.tree or unpacked_tree()).resolve()
    args.index = args.index.resolve()
    args.index.parent.mkdir(parents=True, exist_ok=True)
    sources = sum(1 for _ in tree.rglob("*.[ch]"))
    print(f"tree {tree}: {sources} .c/.h files; {os.cpu_count()} cores; Python {sys.version.split()[0]}")

    wall, cpu, peak = run_measured([PYTHON, "-c", INDEX, str(tree), str(args.index), str(args.workers), "1"])
    size = args.index.stat().st_size
    print(
        f"indexed from scratch: {wall:.1f} s wall, {cpu:.1f} s CPU (all processes), "
        f"peak memory {peak / 2**30:.2f} GB, index {size / 2**20:.0f} MiB",
        flush=True,
    )

    touched = sorted(tree.rglob("*.c"))
    touched = touched[:: max(1, len(touched) // 100)][:100]
    for path in touched:
        os.utime(path)
    wall, cpu, peak = run_measured([PYTHON, "-c", INDEX, str(tree), str(args.index), str(args.workers), "0"])
    print(f"brought up to date after touching {len(touched)} files: {wall:.1f} s wall, {cpu:.1f} s CPU", flush=True)

    seconds = ground_seconds(tree, args.index, ["mm/*.c"], runs=3)
    print(f"page mm/*.c grounded (one-page command, index current): {seconds:.2f} s (best of 3)", flush=True)

    folders = largest_folders(args.index, args.pages)
    timed = sorted((ground_seconds(tree, args.index, page), folder, len(page)) for folder, page in folders.items())
    seconds, folder, count = timed[-1]
    print(
        f"slowest one-folder page of the {len(timed)} folders with the most declarations: {folder}/ "
        f"({count} files) in {seconds:.2f} s; the others from {timed[0][0]:.2f} s"
    )


if __name__ == "__main__":
    main()
