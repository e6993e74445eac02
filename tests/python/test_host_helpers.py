"""The host's path filter, file summaries, checkout reader and test reach."""

import os
from types import SimpleNamespace

import pytest

from tarnwick.utils.path_filter import is_test_path
from tarnwick.workers.wiki.checkout import checkout_reader
from tarnwick.workers.wiki.file_summary import file_summary
from tarnwick.workers.wiki import scope_tests


@pytest.mark.parametrize("path, expected", [
    ("tests/helpers.py", True),
    ("src/pkg/test/Fixture.java", True),
    ("web/__tests__/app.jsx", True),
    ("pkg/test_parser.py", True),
    ("pkg/parser_test.py", True),
    ("conftest.py", True),
    ("cmd/server_test.go", True),
    ("web/app.test.ts", True),
    ("web/app.spec.tsx", True),
    ("web/app.test.js", True),
    ("web/app.spec.jsx", True),
    ("tests", False),                 # a file, not a folder, named "tests"
    ("src/testing/util.py", False),
    ("src/latest/app.py", False),
    ("src/contest.py", False),
    ("src/test_data.json", False),
    ("web/app.testing.ts", False),
    ("Tests/helpers.py", False),      # folder names match exactly
    ("pkg/attest_test.rs", False),
])
def test_is_test_path(path, expected):
    assert is_test_path(path) is expected


DOC = '"""Loads the facts\n    of one page.\n\nDetails follow.\n"""\n'.splitlines(keepends=True)


@pytest.mark.parametrize("lines, expected", [
    (DOC, "Loads the facts of one page."),
    (["#!/usr/bin/env python3", "# -*- coding: utf-8 -*-", "# Licence notice", "",
      "r'''Raw docstring.'''"], "Raw docstring."),
    (['"""', "Unterminated", "docstring"], "Unterminated docstring"),
    (["# Parses  the", "# index.", "#", "# More."], "Parses the index."),
    (["/**", " * Hash maps", " * for ids.", " */", "int x;"], "Hash maps for ids."),
    (["/* one line */ int x;"], "one line"),
    (["// Package foo serves", "// pages.", "package foo"], "Package foo serves pages."),
    (["-- Users and roles.", "CREATE TABLE users (id INTEGER);"], "Users and roles."),
    (["# ======", "# Title", "# ======", "# Body"], "Title"),
    (["import os", '"""Not a docstring."""'], ""),
    (["#include <stdio.h>", "/* after code */"], ""),
    (["", "   "], ""),
    ([], ""),
])
def test_file_summary(lines, expected):
    assert file_summary(lines) == expected


def test_checkout_reader(tmp_path):
    (tmp_path / "src").mkdir()
    (tmp_path / "src" / "a.py").write_bytes(b"\xef\xbb\xbfone\r\ntwo\n\nfour")
    (tmp_path / "empty.txt").write_bytes(b"")
    (tmp_path / "blob.bin").write_bytes(b"\xff\xfe\x00bad")
    (tmp_path.parent / "outside.txt").write_text("secret\n")
    read = checkout_reader(str(tmp_path))
    assert read("src/a.py") == ["one", "two", "", "four"]
    assert read("empty.txt") == []
    for unreadable in ["missing.py", "src", "", "blob.bin", "../outside.txt",
                       str(tmp_path / "src" / "a.py"), "nul\0byte"]:
        assert read(unreadable) is None, unreadable


@pytest.mark.skipif(os.geteuid() == 0, reason="root reads files without permission")
def test_checkout_reader_without_permission(tmp_path):
    locked = tmp_path / "locked.py"
    locked.write_text("x = 1\n")
    locked.chmod(0)
    assert checkout_reader(tmp_path)("locked.py") is None


def ref(source, target):
    return SimpleNamespace(source_path=source, target_path=target)


def test_tests_reaching_merges_imports_and_test_references():
    facts = SimpleNamespace(
        test_imports={"pkg/a.py": frozenset({"tests/z_test.py", "tests/a_test.py"}),
                      "pkg/c.py": frozenset()},
        inbound=(ref("tests/m_test.py", "pkg/a.py"), ref("app/main.py", "pkg/b.py"),
                 ref("tests/m_test.py", "pkg/b.py"), ref("tests/m_test.py", "pkg/b.py"),
                 ref("app/main.py", "pkg/d.py"), ref("tests/t_test.py", "tests/t_test.py")),
        test_sources=frozenset({"tests/m_test.py", "tests/t_test.py"}),
    )
    every, by_file = scope_tests.tests_reaching(facts)
    assert by_file == {
        "pkg/a.py": ["tests/a_test.py", "tests/m_test.py", "tests/z_test.py"],
        "pkg/b.py": ["tests/m_test.py"],
    }
    assert list(by_file) == ["pkg/a.py", "pkg/b.py"]
    assert every == {"tests/a_test.py", "tests/m_test.py", "tests/z_test.py"}


def test_tests_reaching_nothing():
    facts = SimpleNamespace(test_imports={}, inbound=(ref("app/x.py", "pkg/a.py"),),
                            test_sources=frozenset())
    assert scope_tests.tests_reaching(facts) == (frozenset(), {})
