"""Recognises test files by the naming conventions of common ecosystems."""

from __future__ import annotations

import re

# Folders whose contents are tests: pytest/unittest and most build tools use
# ``test`` or ``tests``; Jest collects ``__tests__``.
_TEST_FOLDERS = frozenset({"test", "tests", "__tests__"})

_TEST_FILE = re.compile(
    r"""
      test_.*\.py            # pytest: test_parser.py
    | .*_test\.py            # pytest: parser_test.py
    | conftest\.py           # pytest fixtures
    | .*_test\.go            # go test
    | .*(?:\.test|\.spec)\.(?:ts|tsx|js|jsx|mjs|cjs)   # Jest, Vitest, Mocha
    """,
    re.VERBOSE | re.DOTALL,
)


def is_test_path(path: str) -> bool:
    """Whether the repository-relative ``path`` ("/"-separated) is a test file.

    True for a file inside a folder named ``test``, ``tests`` or
    ``__tests__`` at any depth, and for file names following the usual test
    conventions (``test_*.py``, ``*_test.py``, ``conftest.py``,
    ``*_test.go``, ``*.test.ts``, ``*.spec.js``, ...).  Names are matched
    exactly as written, case included.
    """
    *folders, name = path.split("/")
    if any(folder in _TEST_FOLDERS for folder in folders):
        return True
    return _TEST_FILE.fullmatch(name) is not None
