"""The tree-sitter extractors, the test-file conventions and the comment summaries."""

import pickle

import pytest

from tarnwick.indexer.languages import LANGUAGES, extract, language_of
from tarnwick.utils.path_filter import is_test_path
from tarnwick.workers.wiki.file_summary import file_summary

C_SOURCE = b"""\
#define MAX 4
#define SQ(x) ((x) * (x))
static int helper(int a);
extern int shared;
const int limit = 3;
int counter;
struct point { int x, *y; void (*draw)(int); union { int raw; }; };
typedef struct { int w; } size_t2;
typedef unsigned long ulong;
enum color { RED, GREEN = 2 };
static int helper(int a)
{
    int r = a;
    return SQ(r) + other(r, limit);
}
int area(struct point *p) { p->draw(1); counter++; return p->x; }
"""

# (name, fqn, kind, start, end, exported, definition) for every declaration.
DECLARATIONS = {
    ("c", "src/shape.c", C_SOURCE): [
        ("MAX", "MAX", "constant", 1, 1, False, True), ("SQ", "SQ", "function", 2, 2, False, True),
        ("helper", "helper", "function", 11, 15, False, True),  # prototype and definition: one
        ("shared", "shared", "attribute", 4, 4, True, False), ("limit", "limit", "constant", 5, 5, True, True),
        ("counter", "counter", "attribute", 6, 6, True, True), ("point", "point", "struct", 7, 7, False, True),
        ("x", "point.x", "field", 7, 7, False, True), ("y", "point.y", "field", 7, 7, False, True),
        ("draw", "point.draw", "field", 7, 7, False, True), ("raw", "point.raw", "field", 7, 7, False, True),
        ("size_t2", "size_t2", "struct", 8, 8, False, True), ("w", "size_t2.w", "field", 8, 8, False, True),
        ("ulong", "ulong", "type", 9, 9, False, True), ("color", "color", "enum", 10, 10, False, True),
        ("RED", "color.RED", "constant", 10, 10, False, True),
        ("GREEN", "color.GREEN", "constant", 10, 10, False, True),
        ("area", "area", "function", 16, 16, True, True)],
    ("c", "include/shape.h", b"#ifndef SHAPE_H\n#define SHAPE_H\nstatic inline int twice(int v) { return 2 * v; }\n"
     b"int area(struct point *p);\nstruct point { int x; };\n#endif\n"): [
        ("twice", "twice", "function", 3, 3, True, True), ("area", "area", "function", 4, 4, True, False),
        ("point", "point", "struct", 5, 5, True, True), ("x", "point.x", "field", 5, 5, True, True)],
}


@pytest.mark.parametrize("language, path, source", DECLARATIONS)
def test_declarations(language, path, source):
    decls, _ = extract(language, path, source)
    assert sorted(decls) == sorted(DECLARATIONS[language, path, source])


# Uses counted per (name, use); the names absent are declaring names, locals or parameters.
REFERENCES = [
    ("c", C_SOURCE, {("SQ", "call"): 1, ("other", "call"): 1, ("limit", "name"): 1, ("draw", "call"): 1,
                     ("counter", "name"): 1, ("x", "field"): 1, ("point", "type"): 1},
     {"r", "p", "helper", "shared", "ulong"}),
]


@pytest.mark.parametrize("language, source, counted, absent", REFERENCES)
def test_references(language, source, counted, absent):
    _, refs = extract(language, "src/file", source)
    found = {(name, use): count for name, use, count in refs}
    assert len(found) == len(refs)
    assert {key: found.get(key) for key in counted} == counted
    assert not absent & {name for name, _ in found}


@pytest.mark.parametrize("language", LANGUAGES)
def test_any_bytes_and_picklable(language):
    for source in (b"", b"\xff\xfe}}{{ (( struct class fn func", "ünï = 1;".encode()):
        result = extract(language, "a/b", source)
        assert pickle.loads(pickle.dumps(result)) == result


@pytest.mark.parametrize("path, language", [
    ("a/b.c", "c"), ("x.h", "c"), ("x.cc", "cpp"), ("x.hpp", "cpp"), ("x.h++", "cpp"), ("m.go", "go"),
    ("lib.rs", "rust"), ("A.java", "java"), ("x.mjs", "javascript"), ("x.jsx", "javascript"),
    ("x.tsx", "typescript"), ("x.cts", "typescript"), ("x.py", None), (".c", None), ("Makefile", None), ("c", None)])
def test_language_of(path, language):
    assert language_of(path) == language


@pytest.mark.parametrize("path, expected", [
    ("pkg/server_test.go", True), ("pkg/testdata/input.go", True), ("web/__mocks__/api.ts", True),
    ("web/util.spec.mts", True), ("src/test/java/a/FooTest.java", True), ("src/main/java/a/FooTest.java", True),
    ("src/main/java/a/Testing.java", False), ("crate/tests/cli.rs", True), ("src/parser/tests.rs", True),
    ("tools/testing/selftests/mm/gup.c", True), ("lib/list_test.c", True), ("mm/kasan/kasan-kunit.c", True),
    ("base/strings_unittest.cc", True), ("src/testing/util.go", False), ("mm/latest.c", False),
    ("src/attest.rs", False), ("lib/contest.c", False)])
def test_test_conventions(path, expected):
    assert is_test_path(path) is expected


@pytest.mark.parametrize("lines, expected", [
    (["// SPDX-License-Identifier: GPL-2.0-only", "/*", " *  linux/mm/memory.c", " *",
      " *  Copyright (C) 1991  L. T.", " */", "", "/*", " * Demand loading. Later.", " */"], "Demand loading."),
    (["/* SPDX-License-Identifier: GPL-2.0 */", "#ifndef _LIST_H", "#define _LIST_H", "#include <x.h>", "",
      "/*", " * Circular doubly linked lists.", " */"], "Circular doubly linked lists."),
    (["/*", " * Copyright 2020 ACME", " * J. Doe (jd@example.com)", " *", " * from", " *",
      " * Slab allocator for small", " * objects.", " * (C) 2007 SGI", " */"], "Slab allocator for small objects."),
    (["// Copyright 2009 The Authors. All rights reserved.", "// Use of this source code is governed by a",
      "// BSD-style license.", "", "//go:build linux", "", "// Package os provides a portable interface.",
      "package os"], "Package os provides a portable interface."),
    (["/**", " * @file", " * @brief Parses tokens, e.g. words.", " */"], "Parses tokens, e.g. words."),
    (["/*", " * Licensed under the Apache License, Version 2.0.", " */", "package a;", "import b.C;", "",
      "/** Serves pages. */", "public class Pages {}"], "Serves pages."),
    (["//! Reads the config.", "use std::io;"], "Reads the config."),
    (["// Code generated by stringer. DO NOT EDIT.", "", "package p"], ""),
    (["/* SPDX-License-Identifier: MIT */", "int x;", "/* Not leading. */"], ""),
    (["", "  /* unterminated", " * comment"], "unterminated comment"),
])
def test_comment_summary(lines, expected):
    assert file_summary(lines) == expected
    assert file_summary("\n".join(lines)) == expected
