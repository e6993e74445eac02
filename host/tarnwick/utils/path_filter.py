"""Recognises test files by the naming conventions of common ecosystems."""

from __future__ import annotations

import functools
import re

# Folders whose contents are tests or test data: pytest/unittest and most
# build tools use ``test`` or ``tests`` (Maven and Gradle ``src/test/``,
# Cargo's integration ``tests/``); Jest collects ``__tests__`` and mocks in
# ``__mocks__``; Go ignores ``testdata``; Gradle and Android keep more test
# source sets beside ``src/test/``; the Linux kernel keeps its self-tests
# under ``tools/testing/selftests``.
_TEST_FOLDERS = frozenset(
    {
        "test",
        "tests",
        "__tests__",
        "__mocks__",
        "testdata",
        "androidTest",
        "testFixtures",
        "integrationTest",
        "selftests",
    }
)

_TEST_FILE = re.compile(
    r"""
      test_.*\.py            # pytest: test_parser.py
    | .*_test\.py            # pytest: parser_test.py
    | conftest\.py           # pytest fixtures
    | .*_test\.go            # go test
    | .*(?:\.test|\.spec)\.(?:ts|tsx|mts|cts|js|jsx|mjs|cjs)   # Jest, Vitest, Mocha
    | .*(?:Test|Tests|TestCase)\.(?:java|kt)                 # JUnit, as Maven's Surefire finds them
    | tests\.rs              # Rust: a module's unit tests kept in a file of their own
    | (?:test_.*|.*[_-]tests?|.*_unittest|.*[_-]kunit)\.(?:c|cc|cpp|cxx)   # C, C++: GoogleTest, KUnit, test programs
    """,
    re.VERBOSE | re.DOTALL,
)


# A wiki asks about the same source files page after page.
@functools.lru_cache(maxsize=1 << 16)
def is_test_path(path: str) -> bool:
    """Whether the repository-relative ``path`` ("/"-separated) is a test file.

    True for a file inside a folder named ``test``, ``tests``,
    ``__tests__``, ``__mocks__``, ``testdata``, ``selftests`` (or a Gradle
    test source set) at any depth, and for file names following the usual
    test conventions (``test_*.py``, ``*_test.py``, ``conftest.py``,
    ``*_test.go``, ``*.test.ts``, ``*.spec.js``, ``*Test.java``,
    ``tests.rs``, ``*_test.cc``, ``*_kunit.c``, ...).  Names are matched
    exactly as written, case included.
    """
    *folders, name = path.split("/")
    if any(folder in _TEST_FOLDERS for folder in folders):
        return True
    return _TEST_FILE.fullmatch(name) is not None
