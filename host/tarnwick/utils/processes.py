"""How the command and its worker processes meet signals: a worker ends with the process that
started it, and a request to stop (Ctrl-C, `kill`, a closed terminal) is the command's own to
handle, so that it can say what it kept."""

from __future__ import annotations

import contextlib
import ctypes
import os
import signal
import sys
import threading
from collections.abc import Iterator

# prctl(2) option: the signal a process gets when the thread that started it ends (Linux).
_PR_SET_PDEATHSIG = 1
# Requests to stop that the command takes as it takes Ctrl-C (absent on some platforms).
_STOPPING = tuple(getattr(signal, name) for name in ("SIGTERM", "SIGHUP") if hasattr(signal, name))


class Stopped(KeyboardInterrupt):
    """SIGTERM or SIGHUP, raised where Ctrl-C's KeyboardInterrupt would be: whatever cleans up
    after Ctrl-C cleans up after them too."""

    def __init__(self, number: int) -> None:
        super().__init__(number)
        self.number = number


def start_worker(parent: int) -> None:
    """Called first in a worker process started by `parent`: Ctrl-C, which reaches the whole
    process group, is left to the parent (it stops the workers and says what happened); a
    termination ends the worker at once; and the worker ends when the parent does, however it
    ends, rather than wait forever for work or for a reader (Linux: the kernel kills it)."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    for number in _STOPPING:
        signal.signal(number, signal.SIG_DFL)
    if not sys.platform.startswith("linux"):
        return
    try:
        prctl = ctypes.CDLL(None, use_errno=True).prctl
    except (OSError, AttributeError):
        return
    unused = ctypes.c_ulong(0)
    if prctl(_PR_SET_PDEATHSIG, ctypes.c_ulong(signal.SIGKILL), unused, unused, unused) != 0:
        return
    if os.getppid() != parent:  # it ended before the kernel was asked
        os._exit(1)


@contextlib.contextmanager
def stops_interrupt() -> Iterator[list[int]]:
    """While the block runs, SIGTERM and SIGHUP raise `Stopped` in this process, as Ctrl-C raises
    KeyboardInterrupt; the list it gives holds the number of each signal taken.  A signal that
    is ignored stays ignored (`nohup`), and outside the main thread nothing changes.  A process
    forked meanwhile that meets one before `start_worker` ends as it would have."""
    taken: list[int] = []
    if threading.current_thread() is not threading.main_thread():
        yield taken
        return
    here = os.getpid()

    def stop(number: int, frame) -> None:
        if os.getpid() != here:
            signal.signal(number, signal.SIG_DFL)
            os.kill(os.getpid(), number)
            return
        taken.append(number)
        raise Stopped(number)

    kept = {number: signal.getsignal(number) for number in _STOPPING}
    for number, handler in kept.items():
        if handler != signal.SIG_IGN:
            signal.signal(number, stop)
    try:
        yield taken
    finally:
        for number, handler in kept.items():
            signal.signal(number, signal.SIG_DFL if handler is None else handler)


def running(pid: int) -> bool:
    """Whether a process `pid` exists (another user's counts)."""
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except OSError:
        return True
    return True


def stopped_status(taken: list[int]) -> tuple[str, int]:
    """How an interrupted run is said, and its exit status (128 and the signal's number)."""
    if not taken:
        return "interrupted", 128 + signal.SIGINT
    return f"stopped by {signal.Signals(taken[-1]).name}", 128 + taken[-1]
