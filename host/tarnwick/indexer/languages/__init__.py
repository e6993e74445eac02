"""Declarations and references of C, C++, Go, Rust, Java, JavaScript and
TypeScript files, from tree-sitter parses.

`extract(language, path, source)` returns what one file declares and the
names it uses, as plain tuples that worker processes can send back:

- a declaration is `(name, fqn, kind, start_line, end_line, exported,
  definition)`, lines 1-based and inclusive; `definition` is False for a
  declaration that only announces one made elsewhere (a C or C++
  prototype, an `extern` variable, a TypeScript overload signature).  A
  file's prototype and definition of one function are one declaration;
- a reference is `(name, use, count)`: an identifier the file uses, counted
  per use, "call" (a call, through a member too), "type" (a type named),
  "field" (a member reached) or "name" (any other identifier).  The names
  that declare something are no references, and neither are the plain
  names the file binds as parameters or local variables.

Kinds: "class", "struct", "enum", "interface", "type" (aliases and
typedefs); "function", "method", "constructor"; "field", "attribute"
(variables), "property" and "constant".  Each language's module says how
its fqn is written and what it exports.  tree-sitter parses any bytes: a
syntax error gives what the rest of the tree holds, never an exception.
"""

from __future__ import annotations

from tarnwick.indexer.languages._extract import Decl, Language, Ref, extract as _extract
from tarnwick.indexer.languages.c import CRules
from tarnwick.indexer.languages.cpp import CppRules
from tarnwick.indexer.languages.go import GoRules
from tarnwick.indexer.languages.java import JavaRules
from tarnwick.indexer.languages.javascript import JavaScriptRules
from tarnwick.indexer.languages.rust import RustRules

__all__ = ["LANGUAGES", "Decl", "Ref", "extract", "is_test_file", "language_of"]

LANGUAGES: dict[str, Language] = {
    language.name: language
    for language in (
        Language("c", (".c", ".h"), "tree_sitter_c", CRules()),
        Language("cpp", (".cc", ".cpp", ".cxx", ".c++", ".hh", ".hpp", ".hxx", ".h++"), "tree_sitter_cpp", CppRules()),
        Language("go", (".go",), "tree_sitter_go", GoRules()),
        Language("rust", (".rs",), "tree_sitter_rust", RustRules()),
        Language("java", (".java",), "tree_sitter_java", JavaRules()),
        Language("javascript", (".js", ".mjs", ".cjs", ".jsx"), "tree_sitter_javascript", JavaScriptRules()),
        Language(
            "typescript",
            (".ts", ".tsx", ".mts", ".cts"),
            "tree_sitter_typescript",
            JavaScriptRules(),
            loader="language_typescript",
            dialects={".tsx": "language_tsx"},
        ),
    )
}

_BY_SUFFIX = {suffix: name for name, language in LANGUAGES.items() for suffix in language.suffixes}


def language_of(path: str) -> str | None:
    """The language of a file, by the suffix of its name; None for a file of no language here."""
    name = path.rpartition("/")[2]
    dot = name.rfind(".")
    return _BY_SUFFIX.get(name[dot:]) if dot > 0 else None


def extract(language: str, path: str, source: bytes) -> tuple[list[Decl], list[Ref]]:
    """The declarations and references of the file at `path` (repository-relative)
    whose bytes are `source`, in `language` (a key of `LANGUAGES`)."""
    return _extract(LANGUAGES[language], path, source)


def is_test_file(language: str, path: str) -> bool:
    """Whether the file is a test by its language's conventions (the path filter knows them all)."""
    from tarnwick.utils.path_filter import is_test_path

    return is_test_path(path)
