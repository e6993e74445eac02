"""The one extractor that runs a language's tags query over a tree-sitter parse.

A language's query (`queries/<language>.scm`) captures, in one pass over
the tree:

- `@definition.<kind>` on a declaring node, whose names are its `name`
  fields unless the language's rules find them (C declarators, Java
  fields), and `@scope.type` / `@scope.namespace` on named containers that
  declare nothing themselves but place what lies inside them (a Rust
  `impl` block, a C++ namespace);
- `@reference.call`, `@reference.type`, `@reference.field` and
  `@reference.name` on the identifiers used, and `@local` on the names of
  parameters and local variables where they are bound.

What a query cannot say (visibility, `static`, prototypes, receivers) is
decided by the language's `Rules`.  One `captures` pass costs less than a
pass for the declarations' matches and another for the references.
"""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

TYPE_KINDS = frozenset({"class", "struct", "enum", "interface", "type"})

# A declaration as the engine receives it:
# (name, fqn, kind, start_line, end_line, exported, definition).
Decl = tuple[str, str, str, int, int, bool, bool]
# Identifiers a file uses, aggregated: (name, use, count).
Ref = tuple[str, str, int]

_USES = ("call", "type", "field", "name")
_QUERIES = Path(__file__).with_name("queries")


@dataclass(slots=True)
class Site:
    """A declaration found in the tree, before its fqn is written."""

    name: str
    kind: str
    node: Any
    name_node: Any
    # Enclosing containers, outermost first (types and named scopes).
    chain: list[Site] = field(default_factory=list)
    exported: bool = True
    definition: bool = True
    # Whether declarations inside it are placed under its name.
    container: bool = False
    # A named container that declares nothing itself (`@scope.*`).
    scope: bool = False
    # Whether the rules kept it (or its name is a use after all: `LIST_HEAD(x);`).
    keep: bool = True
    # Scopes written before a qualified name (C++ `geo::Shape::area`).
    qualifier: list[str] = field(default_factory=list)


class Rules:
    """What a language decides beyond its query.  The defaults suit a
    language whose declarations are all definitions, exported."""

    # Whether the members of a type are named by their plain name inside it
    # (Java's `count` for `this.count`), not only through a member access.
    plain_members = False

    def start(self, path: str, source: bytes, root: Any) -> None:
        """Called before the file's declarations are decided (rules may keep
        what they learn of the file until the next one)."""

    def bound_names(self, source: bytes, root: Any) -> Iterable[bytes]:
        """Names the file binds to what no declaration is (Go's imported packages),
        taken like the names of local variables."""
        return ()

    def prefix(self, path: str, source: bytes, root: Any) -> str:
        """What the fqn of every declaration of the file starts with ("" for none)."""
        return ""

    def names(self, kind: str, node: Any) -> Iterable[Any]:
        """The name nodes of a declaration: its `name` fields (Go's `const A,
        B = 1, 2` has two), or the node itself when it is a name."""
        names = [name for name in node.children_by_field_name("name") if name.is_named]
        if not names and node.type.endswith("identifier"):
            names.append(node)
        return names

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        """Sets the site's kind, `exported`, `definition` and `container`;
        False drops it."""
        return True

    def chain_names(self, site: Site) -> list[str]:
        """The names that place the site inside the file: its containers',
        then the scopes written before its name."""
        return [outer.name for outer in site.chain] + site.qualifier


def text(source: bytes, node: Any) -> str:
    return source[node.start_byte : node.end_byte].decode("utf-8", "replace")


def lines(node: Any) -> tuple[int, int]:
    """The node's 1-based inclusive line range; a node that ends just after
    a newline ends on the line before."""
    start_row = node.start_point[0]
    end_row, end_column = node.end_point
    if end_column == 0 and end_row > start_row:
        end_row -= 1
    return start_row + 1, end_row + 1


class Language:
    """One language: its grammar, compiled query and rules, made on first use
    in each process (parsers and queries cannot be pickled).  `dialects`
    names another grammar of the package for some suffixes (TypeScript's
    `.tsx`)."""

    def __init__(
        self,
        name: str,
        suffixes: tuple[str, ...],
        grammar: str,
        rules: Rules,
        loader: str = "language",
        dialects: dict[str, str] | None = None,
    ):
        self.name = name
        self.suffixes = suffixes
        self.rules = rules
        self._grammar = grammar
        self._loader = loader
        self._dialects = dialects or {}
        self._compiled: dict[str, tuple[Any, Any]] = {}

    def __repr__(self) -> str:
        return f"Language({self.name!r}, {self.suffixes!r})"

    def __getstate__(self) -> dict[str, Any]:
        return {**self.__dict__, "_compiled": {}}

    def compiled(self, path: str) -> tuple[Any, Any]:
        """The parser and the query for the file at `path`."""
        loader = self._loader
        for suffix, dialect in self._dialects.items():
            if path.endswith(suffix):
                loader = dialect
        ready = self._compiled.get(loader)
        if ready is None:
            import importlib

            import tree_sitter

            grammar = importlib.import_module(self._grammar)
            language = tree_sitter.Language(getattr(grammar, loader)())
            source = (_QUERIES / f"{self.name}.scm").read_text(encoding="utf-8")
            query = tree_sitter.Query(language, source)
            ready = self._compiled[loader] = (tree_sitter.Parser(language), query)
        return ready


def extract(language: Language, path: str, source: bytes) -> tuple[list[Decl], list[Ref]]:
    """The declarations and the used names of one file (see the package's documentation)."""
    import tree_sitter

    parser, query = language.compiled(path)
    rules = language.rules
    root = parser.parse(source).root_node
    rules.start(path, source, root)
    captures = tree_sitter.QueryCursor(query).captures(root)

    sites: list[Site] = []
    for capture, nodes in captures.items():
        group, _, kind = capture.partition(".")
        if group != "definition" and group != "scope":
            continue
        scope = group == "scope"
        for node in nodes:
            for name_node in rules.names(kind, node):
                # A name the parser made up to mend a syntax error is empty.
                if name_node.end_byte > name_node.start_byte:
                    sites.append(Site(text(source, name_node), kind, node, name_node, container=scope, scope=scope))

    # Containers enclose by byte range; sorted outermost first.
    sites.sort(key=lambda site: (site.node.start_byte, -site.node.end_byte))
    open_sites: list[Site] = []
    kept: list[Site] = []
    for site in sites:
        start = site.node.start_byte
        while open_sites and open_sites[-1].node.end_byte <= start:
            open_sites.pop()
        site.chain = list(open_sites)
        if site.kind in TYPE_KINDS:
            site.container = True
        # A function directly inside a type (or an `impl` block) is a method.
        if site.kind == "function" and open_sites and open_sites[-1].kind in TYPE_KINDS:
            site.kind = "method"
        if not rules.decide(site, path, source):
            site.keep = False
            continue
        if site.container:
            open_sites.append(site)
        if not site.scope:
            kept.append(site)

    return _declarations(rules, path, source, root, kept), _references(
        source, captures, sites, kept, rules.plain_members, rules.bound_names(source, root)
    )


def _declarations(rules: Rules, path: str, source: bytes, root: Any, sites: list[Site]) -> list[Decl]:
    prefix = rules.prefix(path, source, root)
    found: dict[tuple[str, str], int] = {}
    decls: list[Decl] = []
    for site in sites:
        fqn = ".".join([*([prefix] if prefix else []), *rules.chain_names(site), site.name])
        start, end = lines(site.node)
        key = (fqn, site.kind)
        seen = found.get(key)
        if seen is None:
            found[key] = len(decls)
            decls.append((site.name, fqn, site.kind, start, end, site.exported, site.definition))
            continue
        # One name declared twice in a file, as one kind and in one place,
        # is one declaration.  A prototype and the definition of a function
        # take the definition's lines and are exported only when each one is
        # (a `static` prototype makes the definition internal); alternative
        # definitions (under `#ifdef`, overloads) keep the first one's lines
        # and are exported when one of them is.
        old = decls[seen]
        if old[6] and site.definition:
            decls[seen] = (*old[:5], old[5] or site.exported, True)
        elif site.definition:
            decls[seen] = (old[0], fqn, site.kind, start, end, old[5] and site.exported, True)
        else:
            decls[seen] = (*old[:5], old[5] and site.exported, old[6])
    return decls


def _references(
    source: bytes,
    captures: dict[str, list[Any]],
    sites: list[Site],
    kept: list[Site],
    plain_members: bool,
    bound: Iterable[bytes],
) -> list[Ref]:
    # The declaring identifiers are no references, nor are the names of
    # parameters and local variables where they are bound.
    seen = {site.name_node.start_byte for site in sites if site.name_node is not None and site.keep}
    local_nodes = captures.get("local", ())
    seen.update(node.start_byte for node in local_nodes)
    locals_ = {source[node.start_byte : node.end_byte] for node in local_nodes}
    locals_.update(bound)
    declared = {
        site.name.encode("utf-8")
        for site in kept
        if plain_members or not any(outer.kind in TYPE_KINDS for outer in site.chain)
    }
    counts: dict[tuple[bytes, str], int] = {}
    for use in _USES:
        for node in captures.get("reference." + use, ()):
            start, end = node.start_byte, node.end_byte
            if start in seen or start == end:
                continue
            seen.add(start)
            key = (source[start:end], use)
            counts[key] = counts.get(key, 0) + 1
    # A plain name that the file binds as a parameter or local variable is
    # taken for that local, unless the file also declares the name where a
    # plain name can reach it.
    drop = locals_ - declared
    return [
        (name.decode("utf-8", "replace"), use, count)
        for (name, use), count in counts.items()
        if not (use == "name" and name in drop)
    ]
