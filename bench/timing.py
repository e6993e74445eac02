"""Side-by-side timing of the native module and the plain-Python baseline."""

import time


def best_of(function, repeat=5):
    """The fastest of `repeat` runs of `function()`, in seconds."""
    best = float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        function()
        best = min(best, time.perf_counter() - start)
    return best


def report(title, rows):
    """Prints (label, native seconds, python seconds) rows with the speed-up."""
    print(title)
    print(f"  {'':<34} {'native':>10} {'python':>10} {'speed-up':>9}")
    for label, native, python in rows:
        print(f"  {label:<34} {native * 1e3:>8.2f}ms {python * 1e3:>8.2f}ms {python / native:>8.1f}x")
