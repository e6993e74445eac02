"""The host's path filter, file summaries, checkout reader and test reach."""

import os
from types import SimpleNamespace

import pytest
from test_host_queries import assert_kept_rows_are_current
from test_indexer import write_tree

from tarnwick.indexer.index_file import TreeSettings, current_index
from tarnwick.utils.path_filter import is_test_path
from tarnwick.workers.wiki import scope_tests
from tarnwick.workers.wiki.checkout import IndexedLines, checkout_reader, indexed_reader, indexed_summary
from tarnwick.workers.wiki.file_summary import file_summary


@pytest.mark.parametrize("path, expected", [
    ("tests/helpers.py", True), ("src/pkg/test/Fixture.java", True), ("web/__tests__/app.jsx", True),
    ("pkg/test_parser.py", True), ("pkg/parser_test.py", True), ("conftest.py", True), ("cmd/server_test.go", True),
    ("web/app.test.ts", True), ("web/app.spec.tsx", True), ("web/app.test.js", True), ("web/app.spec.jsx", True),
    ("tests", False),  # a file, not a folder, named "tests"
    ("src/testing/util.py", False), ("src/latest/app.py", False), ("src/contest.py", False),
    ("src/test_data.json", False), ("web/app.testing.ts", False), ("pkg/attest_test.rs", False),
    ("Tests/helpers.py", False),  # folder names match exactly
])
def test_is_test_path(path, expected):
    assert is_test_path(path) is expected


DOC = '"""Loads the facts\n    of one page. Then, e.g. more.\n\nDetails follow.\n"""\n'.splitlines(keepends=True)


@pytest.mark.parametrize("lines, expected", [
    (DOC, "Loads the facts of one page."),
    (['"""Reads files, e.g. sources, i.e. text! Then more."""'], "Reads files, e.g. sources, i.e. text!"),
    (["#!/usr/bin/env python3", "# -*- coding: utf-8 -*-", "# Licence notice", "",
      "r'''Raw docstring.'''"], "Raw docstring."),
    # Tool directives, notes about them, licence and copyright headers are no summary.
    (["# The following comment should be removed at some point.", "# mypy: strict-optional=False", "",
      "# type: ignore", "import os", "# Not in the header."], ""),
    (["# mypy: allow-untyped-defs", "# Parses the index.", "# Quickly."], "Parses the index."),
    (["# Copyright 2020 ACME", "#", "#     https://example.com/licence", "", "# SPDX-License-Identifier: MIT", "",
      "/* Licensed under the MIT licence. */", "// Serves pages. Fast."], "Serves pages."),
    (['"""', "Copyright (c) 2020 ACME. All rights reserved.", '"""', "# pylint: disable=all"], ""),
    (['"""', "Unterminated", "docstring"], "Unterminated docstring"),
    (["# Parses  the", "# index.", "#", "# More."], "Parses the index."),
    (["/**", " * Hash maps", " * for ids.", " */", "int x;"], "Hash maps for ids."),
    (["/* one line */ int x;"], "one line"),
    (["// Package foo serves", "// pages.", "package foo"], "Package foo serves pages."),
    (["-- Users and roles.", "CREATE TABLE users (id INTEGER);"], "Users and roles."),
    (["# ======", "# Title", "# ======", "# Body"], "Title"),
    (["import os", '"""Not a docstring."""'], ""),
    (["#include <stdio.h>", "/* after code */"], ""),
    (["", "   "], ""), ([], ""),
    # Statements that begin or end far down a long file.
    (["# note"] * 70 + ['"""Late docstring."""'] + ["x = 1"] * 100, "Late docstring."),
    (['"""'] + ["word"] * 600 + ["end.", '"""'], " ".join(["word"] * 79) + " …"),
    # A sentence longer than a summary holds is cut after a word, one huge line or many.
    (["# " + "ab " * 10**6], " ".join(["ab"] * 133) + " …"),
    (["# " + "x" * 500], "x" * 398 + " …"),
    (['"""'] + ["word."] * 10**5 + ['"""'], "word."),
    (['"""'] + ["Copyright (c) 2020 ACME."] + [""] * 100 + ["#"] * 100, ""),
    ((line for line in ["# Made", "# lazily."] + ["x = 1"] * 100), "Made lazily."),
])
def test_file_summary(lines, expected):
    assert file_summary(lines) == expected


def test_checkout_reader(tmp_path):
    latin = "# coding: latin-1\n# Caf\u00e9\n".encode("latin-1")
    write_tree(tmp_path, {}, {"src/a.py": b"\xef\xbb\xbfone\r\ntwo\n\nfour", "latin.py": latin, "latin.txt": latin,
                              "cookie.py": b"# coding: nosuch\n", "empty.txt": b"", "blob.bin": b"\xff\xfe\x00bad",
                              "second.py": b"#!/bin/python\n" + latin, "third.py": b"\n\n" + latin})
    (tmp_path.parent / "outside.txt").write_text("secret\n")
    read = checkout_reader(str(tmp_path))
    assert read("src/a.py") == ["one", "two", "", "four"]
    assert read("latin.py") == ["# coding: latin-1", "# Caf\u00e9"]  # coding lines count in Python sources only
    assert read("second.py") == ["#!/bin/python", "# coding: latin-1", "# Caf\u00e9"]
    assert read("empty.txt") == []
    for unreadable in ["third.py", "missing.py", "src", "", "blob.bin", "latin.txt", "cookie.py", "../outside.txt",
                       str(tmp_path / "src" / "a.py"), "nul\0byte"]:
        assert read(unreadable) is None, unreadable
    if os.geteuid() != 0:  # root reads files without permission
        (tmp_path / "latin.py").chmod(0)
        assert read("latin.py") is None


def test_the_index_keeps_each_files_line_count_and_summary_and_the_wiki_reads_only_files_changed_since(tmp_path):
    latin = "# coding: latin-1\n# Caf\u00e9 au lait.\nx = 1\n".encode("latin-1")
    tree = write_tree(tmp_path / "src", {}, {
        "pkg/doc.py": b'"""Reads the shop.\n\nMore."""\nX = 1\n', "pkg/latin.py": latin,
        "pkg/bom.py": b"\xef\xbb\xbf# Keeps the bom.\r\nY = 2\r\n", "pkg/bad.py": b"x = '\xff'\n",
        "lib/store.c": b"/* Stores things. */\nint store(void) { return 1; }\n", "lib/bad.c": b"int \xff;\n",
        "cmd/main.go": b"// Package main runs it.\npackage main\n\nfunc main() {}\n"})

    def index():
        return current_index(tmp_path / "index.sqlite", TreeSettings(tree), log=lambda _: None, progress=None,
                             workers=1)

    real = checkout_reader(tree)

    def check(db):
        assert_kept_rows_are_current(db.connection)
        facts = db.file_texts()
        assert sorted(path for path, *_ in facts) == sorted(p.relative_to(tree).as_posix() for p in tree.rglob("*.*"))
        for path, _size, _mtime, count, summary in facts:
            lines = real(path)
            assert (count, summary) == ((None, None) if lines is None else (len(lines), file_summary(lines))), path
        return facts

    with index() as db:
        check(db)
    write_tree(tree, {"pkg/doc.py": '"""Reads the shop again, and more."""\n', "lib/store.c": "// Stores.\n"})
    with index() as db:  # brought up to date: two files read again, the others' facts kept
        facts = check(db)
    assert {path: summary for path, *_, summary in facts}["pkg/doc.py"] == "Reads the shop again, and more."

    read, summarise = indexed_reader(tree, facts), indexed_summary(file_summary)
    other = indexed_summary(lambda lines: "|".join(lines))  # a host's own summariser reads the lines
    for path, *_ in facts:
        lines, expected = read(path), real(path)
        assert (type(lines) is IndexedLines) == (expected is not None), path  # an unchanged text comes from the index
        if expected is not None:
            assert (len(lines), list(lines), lines[:2], summarise(lines), other(lines)) == (
                len(expected), expected, expected[:2], file_summary(expected), "|".join(expected))
    # Changed since (a new size, or only a new time), gone, or never indexed: read as they are now.
    write_tree(tree, {"pkg/doc.py": '"""Changed."""\n', "extra.py": '"""New."""\n'})
    os.utime(tree / "lib/store.c", ns=(1, 10**9))
    os.remove(tree / "cmd/main.go")
    for path in ["pkg/doc.py", "lib/store.c", "extra.py"]:
        lines = read(path)
        assert type(lines) is list and lines == real(path) and summarise(lines) == file_summary(lines)
    assert read("cmd/main.go") is None


def ref(source, target, resolution="import", kind="function"):
    return SimpleNamespace(source_path=source, target_path=target, resolution=resolution, target_kind=kind)


def facts(inbound, test_imports=()):
    return SimpleNamespace(test_imports=dict(test_imports), inbound=inbound, import_resolved=lambda path: ".py" in path,
                           test_sources=frozenset(r.source_path for r in inbound if "test" in r.source_path))


def test_tests_reaching_merges_imports_and_evidence_from_tests():
    every, by_file = scope_tests.tests_reaching(facts(test_imports={
        "pkg/a.py": frozenset({"tests/z_test.py", "tests/a_test.py"}), "pkg/c.py": frozenset()}, inbound=(
        ref("tests/m_test.py", "pkg/a.py", "local"), ref("app/main.py", "pkg/b.py"), ref("tests/m_test.py", "pkg/b.py"),
        ref("tests/m_test.py", "pkg/b.py"), ref("tests/t_test.py", "tests/t_test.py"),
        # A name match is no evidence, but for a unique one where the index does not resolve imports.
        ref("tests/n_test.py", "pkg/d.py", "ambiguous"), ref("tests/n_test.py", "pkg/d.py", "unique"),
        ref("tests/n_test.py", "pkg/e.go", "unique", "constant"), ref("tests/g_test.py", "pkg/e.go", "unique"))))
    assert by_file == {"pkg/a.py": ["tests/a_test.py", "tests/m_test.py", "tests/z_test.py"],
                       "pkg/b.py": ["tests/m_test.py"], "pkg/e.go": ["tests/g_test.py"]}
    assert list(by_file) == ["pkg/a.py", "pkg/b.py", "pkg/e.go"]
    assert every == {"tests/a_test.py", "tests/m_test.py", "tests/z_test.py", "tests/g_test.py"}
    assert scope_tests.tests_reaching(facts((ref("app/x.py", "pkg/a.py"),))) == (frozenset(), {})
