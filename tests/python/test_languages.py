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
struct point { int x, *y; void (*draw)(int); union { int raw; }; } __packed;
typedef struct { int w; } size_t2;
typedef unsigned long ulong;
enum color { RED, GREEN = 2 };
static int helper(int a)
{
    int r = a;
    return SQ(r) + other(r, limit);
}
int area(struct point *p) { p->draw(1); counter++; return p->x; }
static int hits __read_mostly;
DEFINE_MUTEX(lock); int on __read_mostly;
#ifdef FAST
int pick(void) { return 1; }
#else
int pick(void) { return 2; }
#endif
"""

# Every declaration of a file: (name, fqn, kind, start, end, exported, definition).
LINES = {
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
        ("area", "area", "function", 16, 16, True, True), ("hits", "hits", "attribute", 17, 17, False, True),
        ("on", "on", "attribute", 18, 18, True, True),
        ("pick", "pick", "function", 20, 20, True, True)],  # one declaration for both branches
    ("c", "include/shape.h", b"#ifndef SHAPE_H\n#define SHAPE_H\nstatic inline int twice(int v) { return 2 * v; }\n"
     b"int area(struct point *p);\nstruct point { int x; };\n#endif\n"): [
        ("twice", "twice", "function", 3, 3, True, True), ("area", "area", "function", 4, 4, True, False),
        ("point", "point", "struct", 5, 5, True, True), ("x", "point.x", "field", 5, 5, True, True)],
    ("javascript", "lib/p.js", b"class P {\n  #hidden = 1;\n\n  go() {}\n}\n"): [
        ("P", "lib/p.P", "class", 1, 5, False, True), ("#hidden", "lib/p.P.#hidden", "field", 2, 2, False, True),
        ("go", "lib/p.P.go", "method", 4, 4, False, True)],
}


@pytest.mark.parametrize("language, path, source", LINES)
def test_declarations_and_lines(language, path, source):
    decls, _ = extract(language, path, source)
    assert sorted(decls) == sorted(LINES[language, path, source])


CPP_SOURCE = b"""\
namespace geo {
class Shape : public Base {
public:
  Shape(int n);
  double area() const { return w * h; }
  struct Part { int q; };
private:
  int w, h;
  using Id = int;
};
enum class Mode { On, Off };
}
namespace { int hidden() { return 1; } }
geo::Shape::Shape(int n) : w(n) { helper(n); this->area(); }
void geo::Shape::grow() {}
static void helper(int x) { std::vector<int> v; v.push_back(x); geo::make(); }
"""
GO_SOURCE = b"""\
package shapes
import ("fmt"; u "net/url")
const Max, min = 4, 1
var Registry = map[string]Shape{}
type Shape interface { Area() float64 }
type Point struct { X, y int; p int }
type ID = int
func (p *Point) Area() float64 { q := p.X; return float64(q) * helper(p.y) }
func helper(v int) float64 { const k = 2; fmt.Println(u.Parse); return float64(v * k) }
"""
RUST_SOURCE = b"""\
pub mod shapes {
    pub struct Point { pub x: i32, y: i32 }
    pub enum Shape { Circle(f64) }
    pub trait Area { fn area(&self) -> f64; }
    impl Area for Point { fn area(&self) -> f64 { self.x as f64 } }
    impl<T> Wrapper<T> { pub fn new(v: T) -> Self { Wrapper { v } } fn hidden() {} }
    pub type Id = u32;
    pub const MAX: u32 = 3;
    static mut COUNT: u32 = 0;
    #[macro_export]
    macro_rules! square { ($x:expr) => { $x * $x }; }
    pub(crate) fn helper(p: &Point) -> i32 { let q = p.x; other::call(q); p.area(); q }
}
"""
JAVA_SOURCE = b"""\
package com.example.geo;
public class Shape extends Base implements Area {
  public static final int MAX = 3;
  private int w, h;
  public Shape(int w) { this.w = w; helper(w); }
  @Override public double area() { int q = w; return q * Math.abs(h); }
  class Inner { void f() {} }
  public enum Mode { ON, OFF }
  Runnable task = new Runnable() { public void run() {} };
}
interface Area { double area(); int K = 1; }
"""
TS_SOURCE = b"""\
export const MAX = 3;
export const make = (x: number): Point => new Point(x);
let counter = 0;
export function area(p: Point): number { return p.x * helper(p); }
function helper(p: Point) { const q = p.x; return q; }
export interface Shape { area(): number; name?: string }
export type ID = string | number;
export enum Color { Red, Green = 2 }
export default class Point implements Shape {
  private secret = 1;
  handle = () => 1;
  constructor(public x: number) { this.x = x; }
  area(): number { return this.x; }
  get size() { return 1; }
}
namespace NS { export function inner() {} }
export { helper };
function over(a: string): void;
function over(a: any) {}
"""
JS_SOURCE = b"""\
const { dep } = require("./dep");
class P extends B { #priv = 1; x = 2; constructor(a) { super(a); } }
function foo(a, b = 2) { let c = a; return dep(c, b); }
const bar = function () { return foo(1).x; };
var baz = 3;
const api = { get() { return baz; } };
module.exports = { foo, qux: baz };
"""

# Every declaration of a file: (name, fqn, kind, exported, definition).
DECLARATIONS = {
    ("cpp", "src/shape.cpp", CPP_SOURCE): [
        ("Shape", "geo.Shape", "class", False, True),
        ("Shape", "geo.Shape.Shape", "constructor", False, True),  # declared in the class, defined below: one
        ("area", "geo.Shape.area", "method", False, True), ("Part", "geo.Shape.Part", "struct", False, True),
        ("q", "geo.Shape.Part.q", "field", False, True), ("w", "geo.Shape.w", "field", False, True),
        ("h", "geo.Shape.h", "field", False, True), ("Id", "geo.Shape.Id", "type", False, True),
        ("Mode", "geo.Mode", "enum", False, True), ("On", "geo.Mode.On", "constant", False, True),
        ("Off", "geo.Mode.Off", "constant", False, True), ("hidden", "hidden", "function", False, True),
        ("grow", "geo.Shape.grow", "method", True, True), ("helper", "helper", "function", False, True)],
    ("cpp", "include/shape.hpp", CPP_SOURCE[: CPP_SOURCE.index(b"namespace {")]): [
        ("Shape", "geo.Shape", "class", True, True), ("Shape", "geo.Shape.Shape", "constructor", True, False),
        ("area", "geo.Shape.area", "method", True, True), ("Part", "geo.Shape.Part", "struct", True, True),
        ("q", "geo.Shape.Part.q", "field", True, True), ("w", "geo.Shape.w", "field", False, True),
        ("h", "geo.Shape.h", "field", False, True), ("Id", "geo.Shape.Id", "type", False, True),
        ("Mode", "geo.Mode", "enum", True, True), ("On", "geo.Mode.On", "constant", True, True),
        ("Off", "geo.Mode.Off", "constant", True, True)],
    ("go", "geo/shapes/a.go", GO_SOURCE): [
        ("Max", "geo/shapes.Max", "constant", True, True), ("min", "geo/shapes.min", "constant", False, True),
        ("Registry", "geo/shapes.Registry", "attribute", True, True),
        ("Shape", "geo/shapes.Shape", "interface", True, True),
        ("Area", "geo/shapes.Shape.Area", "method", True, True), ("Point", "geo/shapes.Point", "struct", True, True),
        ("X", "geo/shapes.Point.X", "field", True, True), ("y", "geo/shapes.Point.y", "field", False, True),
        ("p", "geo/shapes.Point.p", "field", False, True),  # a field does not make the receiver `p` a use
        ("ID", "geo/shapes.ID", "type", True, True), ("Area", "geo/shapes.Point.Area", "method", True, True),
        ("helper", "geo/shapes.helper", "function", False, True)],
    ("go", "main.go", b"package main\nfunc main() {}\n"): [("main", "main.main", "function", False, True)],
    ("rust", "geo/src/shapes/mod.rs", RUST_SOURCE): [
        ("Point", "geo.shapes.shapes.Point", "struct", True, True),
        ("x", "geo.shapes.shapes.Point.x", "field", True, True),
        ("y", "geo.shapes.shapes.Point.y", "field", False, True),
        ("Shape", "geo.shapes.shapes.Shape", "enum", True, True),
        ("Circle", "geo.shapes.shapes.Shape.Circle", "constant", True, True),
        ("Area", "geo.shapes.shapes.Area", "interface", True, True),
        ("area", "geo.shapes.shapes.Area.area", "method", True, True),
        ("area", "geo.shapes.shapes.Point.area", "method", True, True),
        ("new", "geo.shapes.shapes.Wrapper.new", "method", True, True),
        ("hidden", "geo.shapes.shapes.Wrapper.hidden", "method", False, True),
        ("Id", "geo.shapes.shapes.Id", "type", True, True), ("MAX", "geo.shapes.shapes.MAX", "constant", True, True),
        ("COUNT", "geo.shapes.shapes.COUNT", "attribute", False, True),
        ("square", "geo.shapes.shapes.square", "function", True, True),
        ("helper", "geo.shapes.shapes.helper", "function", True, True)],
    ("rust", "src/lib.rs", b"fn main() {}"): [("main", "crate.main", "function", False, True)],
    ("java", "src/main/java/com/example/geo/Shape.java", JAVA_SOURCE): [
        ("Shape", "com.example.geo.Shape", "class", True, True),
        ("MAX", "com.example.geo.Shape.MAX", "constant", True, True),
        ("w", "com.example.geo.Shape.w", "field", False, True), ("h", "com.example.geo.Shape.h", "field", False, True),
        ("Shape", "com.example.geo.Shape.Shape", "constructor", True, True),
        ("area", "com.example.geo.Shape.area", "method", True, True),
        ("Inner", "com.example.geo.Shape.Inner", "class", False, True),
        ("f", "com.example.geo.Shape.Inner.f", "method", False, True),
        ("Mode", "com.example.geo.Shape.Mode", "enum", True, True),
        ("ON", "com.example.geo.Shape.Mode.ON", "constant", True, True),
        ("OFF", "com.example.geo.Shape.Mode.OFF", "constant", True, True),
        ("task", "com.example.geo.Shape.task", "field", False, True),  # not the anonymous class's run
        ("Area", "com.example.geo.Area", "interface", False, True),
        ("area", "com.example.geo.Area.area", "method", False, True),
        ("K", "com.example.geo.Area.K", "constant", False, True)],
    ("typescript", "src/shapes/index.ts", TS_SOURCE): [
        ("MAX", "src/shapes.MAX", "constant", True, True), ("make", "src/shapes.make", "function", True, True),
        ("counter", "src/shapes.counter", "attribute", False, True),
        ("area", "src/shapes.area", "function", True, True),
        ("helper", "src/shapes.helper", "function", True, True),  # exported by the export clause
        ("Shape", "src/shapes.Shape", "interface", True, True),
        ("area", "src/shapes.Shape.area", "method", True, True),
        ("name", "src/shapes.Shape.name", "field", True, True), ("ID", "src/shapes.ID", "type", True, True),
        ("Color", "src/shapes.Color", "enum", True, True), ("Red", "src/shapes.Color.Red", "constant", True, True),
        ("Green", "src/shapes.Color.Green", "constant", True, True),
        ("Point", "src/shapes.Point", "class", True, True),
        ("secret", "src/shapes.Point.secret", "field", False, True),
        ("handle", "src/shapes.Point.handle", "method", True, True),
        ("constructor", "src/shapes.Point.constructor", "constructor", True, True),
        ("area", "src/shapes.Point.area", "method", True, True),
        ("size", "src/shapes.Point.size", "property", True, True),
        ("inner", "src/shapes.NS.inner", "function", True, True),
        ("over", "src/shapes.over", "function", False, True)],  # the signature and the body: one
    ("typescript", "web/App.tsx", b"export function App() { return <div>{x}</div>; }"): [
        ("App", "web/App.App", "function", True, True)],
    ("javascript", "lib/p.mjs", JS_SOURCE): [
        ("P", "lib/p.P", "class", False, True), ("#priv", "lib/p.P.#priv", "field", False, True),
        ("x", "lib/p.P.x", "field", False, True), ("constructor", "lib/p.P.constructor", "constructor", False, True),
        ("foo", "lib/p.foo", "function", True, True), ("bar", "lib/p.bar", "function", False, True),
        ("baz", "lib/p.baz", "attribute", True, True), ("api", "lib/p.api", "constant", False, True)],
}


@pytest.mark.parametrize("language, path, source", DECLARATIONS)
def test_declarations(language, path, source):
    decls, _ = extract(language, path, source)
    assert sorted((name, fqn, kind, exported, definition) for name, fqn, kind, _, _, exported, definition in decls) \
        == sorted(DECLARATIONS[language, path, source])


# Uses counted per (name, use); the names absent are declaring names, locals or parameters.
REFERENCES = [
    ("c", C_SOURCE, {("SQ", "call"): 1, ("other", "call"): 1, ("limit", "name"): 1, ("draw", "call"): 1,
                     ("counter", "name"): 1, ("x", "field"): 1, ("point", "type"): 1, ("DEFINE_MUTEX", "call"): 1},
     {"r", "p", "helper", "shared", "ulong", "hits", "pick"}),
    ("cpp", CPP_SOURCE, {("helper", "call"): 1, ("area", "call"): 1, ("push_back", "call"): 1, ("make", "call"): 1,
                         ("Base", "type"): 1, ("w", "field"): 1, ("vector", "type"): 1}, {"n", "x", "v", "grow"}),
    ("go", GO_SOURCE, {("helper", "call"): 1, ("X", "field"): 1, ("y", "field"): 1, ("Shape", "type"): 1,
                       ("float64", "call"): 2, ("X", "name"): None}, {"q", "v", "k", "p", "Max", "min", "fmt", "u"}),
    ("rust", RUST_SOURCE, {("call", "call"): 1, ("area", "call"): 1, ("x", "field"): 2, ("Point", "type"): 1,
                           ("Wrapper", "type"): 1}, {"q", "p", "v", "helper", "COUNT"}),
    ("java", JAVA_SOURCE, {("helper", "call"): 1, ("abs", "call"): 1, ("w", "field"): 1, ("Base", "type"): 1,
                           ("Area", "type"): 1}, {"q", "K", "MAX"}),
    ("typescript", TS_SOURCE, {("Point", "call"): 1, ("Point", "type"): 3, ("helper", "call"): 1, ("x", "field"): 4,
                               ("Shape", "type"): 1}, {"q", "p", "MAX", "a"}),
    ("javascript", JS_SOURCE, {("dep", "call"): 1, ("foo", "call"): 1, ("require", "call"): 1, ("x", "field"): 1,
                               ("B", "name"): 1}, {"a", "b", "c"}),
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
    ("base/strings_unittest.cc", True), ("src/parser_tests.cpp", True), ("src/testing/util.go", False),
    ("mm/latest.c", False), ("src/attest.rs", False), ("lib/contest.c", False)])
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
    (["// mkerrors.sh -m64", "// Code generated by the command above. DO NOT EDIT.", "", "package p"], ""),
    (["// Package io moves bytes.", "package io", "import \"os\"", "// TODO: later.", "// Opens.", "func f() {}"],
     "Package io moves bytes."),
    (["package p", "", "// Opens files.", "func f() {}"], ""),  # a function's documentation
    (["/*", " * Contributors: A. B. <ab@example.com>", " *", " * f - does things", " * @dev: device", " */"],
     "f - does things"),
    (["/* SPDX-License-Identifier: MIT */", "int x;", "/* Not leading. */"], ""),
    (["", "  /* unterminated", " * comment"], "unterminated comment"),
])
def test_comment_summary(lines, expected):
    assert file_summary(lines) == expected
    assert file_summary("\n".join(lines)) == expected
