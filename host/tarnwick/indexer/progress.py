"""Progress of a long indexing run: a bar (files done, files a second, time
left) on a terminal, a plain line every few seconds anywhere else, nothing
for a stream of None or for small runs."""

from __future__ import annotations

import functools
import time

# Runs of fewer files finish before a bar would be worth seeing.
MIN_FILES = 200
# Seconds between two plain lines.
EVERY = 5.0


@functools.cache
def _bar_type() -> type:
    from tqdm import tqdm

    # tqdm's monitor thread outlives every bar, and a process that runs a
    # thread starts its workers as fresh interpreters instead of forking them.
    return type("Bar", (tqdm,), {"monitor_interval": 0})


def terminal_bar(**options):
    """A tqdm progress bar that starts no thread of its own."""
    return _bar_type()(**options)


class Progress:
    def __init__(self, stream, total: int, what: str):
        self.stream = stream if total >= MIN_FILES else None
        self.total, self.what = total, what
        self.bar = None
        self.started = self.last = time.perf_counter()
        self.done = 0
        isatty = getattr(self.stream, "isatty", None)
        self.terminal = isatty is not None and isatty()

    def update(self, done: int) -> None:
        """`done` files of the total are done."""
        if self.stream is None:
            return
        if self.terminal and self.bar is None:
            # Made at the first update: small runs never show one.
            self.bar = terminal_bar(
                total=self.total, desc=self.what, unit=" files", file=self.stream, dynamic_ncols=True, smoothing=0.05
            )
        if self.bar is not None:
            self.bar.update(done - self.done)
            self.done = done
            return
        self.done = done
        now = time.perf_counter()
        if now - self.last >= EVERY:
            self.last = now
            self._line(now)

    def close(self) -> None:
        if self.bar is not None:
            self.bar.close()
        elif self.stream is not None:
            self._line(time.perf_counter())

    def _line(self, now: float) -> None:
        spent = now - self.started
        rate = self.done / spent if spent > 0 else 0.0
        left = f", {(self.total - self.done) / rate:.0f} s left" if rate > 0 and self.done < self.total else ""
        print(
            f"{self.what}: {self.done}/{self.total} files, {rate:.0f} files/s{left}",
            file=self.stream,
            flush=True,
        )
