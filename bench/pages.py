"""Deterministic synthetic pages for the benchmarks.

``make_page`` builds, from a ``random.Random`` and a few size parameters, the
nine fields of a page's scope facts as plain records: page files in two
languages (only one of which the index resolves imports for), declarations
laid out like real source files (classes whose methods and attributes nest
inside their line ranges, top-level functions of varied length, constants),
inbound references from outside production files, test files and the page's
own files, and outbound references to declarations elsewhere.  The same
generator state always yields the same page.

The records are the host's own (``tarnwick.storage.grounding_queries``, so
``host/`` must be on the path); a caller that wants other record types passes
a module (or any object) that provides ``ScopeFile``, ``ScopeSymbol``,
``InboundReference`` and ``OutboundReference`` as ``records``.  The result is a dict meant to be splatted into a facts
constructor: ``ScopeFacts(**make_page(rng))``, or ``SimpleFacts`` below when
the native module is not wanted.
"""

from __future__ import annotations

import random
from types import MappingProxyType

from tarnwick.storage import grounding_queries

__all__ = [
    "SimpleFacts",
    "SIZES",
    "RESOLUTIONS",
    "RESOLVED_LANGUAGE",
    "UNRESOLVED_LANGUAGE",
    "make_page",
    "make_facts",
    "make_scored",
    "missing_paths",
]


class SimpleFacts:
    """Minimal facts record: the nine fields, ``paths`` and
    ``import_resolved(path)``, so the pure-Python functions can run without
    the native module."""

    __slots__ = (
        "files",
        "symbols",
        "inbound",
        "outbound",
        "import_resolved_paths",
        "test_sources",
        "line_counts",
        "summaries",
        "test_imports",
    )

    def __init__(
        self,
        files,
        symbols,
        inbound,
        outbound,
        import_resolved_paths,
        test_sources,
        line_counts,
        summaries,
        test_imports=MappingProxyType({}),
    ):
        self.files = tuple(files)
        self.symbols = tuple(symbols)
        self.inbound = tuple(inbound)
        self.outbound = tuple(outbound)
        self.import_resolved_paths = frozenset(import_resolved_paths)
        self.test_sources = frozenset(test_sources)
        self.line_counts = line_counts
        self.summaries = summaries
        self.test_imports = test_imports

    @property
    def paths(self):
        return frozenset(f.path for f in self.files)

    def import_resolved(self, path):
        return path in self.import_resolved_paths

    def __repr__(self):
        return (
            f"SimpleFacts(files={len(self.files)}, symbols={len(self.symbols)}, "
            f"inbound={len(self.inbound)}, outbound={len(self.outbound)})"
        )


# ---------------------------------------------------------------------------
# Vocabulary

RESOLVED_LANGUAGE = "python"
UNRESOLVED_LANGUAGE = "go"
_EXTENSIONS = {RESOLVED_LANGUAGE: ".py", UNRESOLVED_LANGUAGE: ".go", "": ".txt"}

# Resolution strings and how often each occurs among generated references.
RESOLUTIONS = ("import", "local", "unique", "ambiguous", "legacy")
_RESOLUTION_WEIGHTS = (35, 15, 25, 15, 10)

_FOLDERS = ("core", "lib", "daemon", "cli", "util", "storage", "net", "api")
_MODULES = (
    "manager",
    "store",
    "cache",
    "config",
    "client",
    "server",
    "models",
    "parser",
    "render",
    "index",
    "queue",
    "worker",
    "router",
    "schema",
)
_OUTSIDE_FOLDERS = ("app", "svc", "tools", "web", "jobs")
_TYPE_NAMES = (
    "Store",
    "Cache",
    "Manager",
    "Client",
    "Config",
    "Handler",
    "Record",
    "Session",
    "Builder",
    "Reader",
    "Writer",
    "Index",
    "Entry",
    "Node",
)
_FUNCTION_NAMES = (
    "open",
    "close",
    "load",
    "save",
    "build",
    "run",
    "parse",
    "render",
    "resolve",
    "fetch",
    "update",
    "apply",
    "merge",
    "flush",
    "start",
    "stop",
)
_METHOD_NAMES = (
    "__init__",
    "get",
    "put",
    "read",
    "write",
    "reset",
    "size",
    "items",
    "keys",
    "validate",
    "_refresh",
    "_lock",
    "to_dict",
    "from_dict",
)
_ATTRIBUTE_NAMES = ("name", "path", "size", "items", "data", "parent", "_state", "id")
_CONSTANT_NAMES = ("DEFAULT_SIZE", "TIMEOUT", "VERSION", "MAX_ITEMS", "_CACHE_DIR", "ROOT")
_OTHER_TYPE_KINDS = ("interface", "enum", "struct", "type")
_ATTRIBUTE_KINDS = ("attribute", "field", "property")
_SUMMARIES = (
    "Stores and loads records.",
    "Command-line entry points.",
    "Helpers for paths | names.",
    "Cache of parsed files.\nEntries expire after a timeout.",
    "",
    "Wire format: `a|b|c`.",
    "Configuration defaults.",
)


def _records_of(records):
    return grounding_queries if records is None else records


def _pick_resolution(rng):
    return rng.choices(RESOLUTIONS, weights=_RESOLUTION_WEIGHTS)[0]


def _pick_refs(rng):
    # Mostly small groups of references, now and then a heavily used target.
    if rng.random() < 0.1:
        return rng.randint(5, 40)
    return rng.randint(1, 4)


def _module_of(path):
    stem = path.rsplit(".", 1)[0]
    return stem.replace("/", ".")


class _Ids:
    def __init__(self, start):
        self.value = start

    def next(self):
        self.value += 1
        return self.value


# ---------------------------------------------------------------------------
# Declarations of one file


def _declarations(rng, rec, path, count, ids):
    """About ``count`` declarations of one file, laid out top to bottom:
    classes (with nested methods, attributes and now and then a nested
    class), top-level functions, constants, other type kinds and top-level
    attributes.  A few carry odd line numbers (start at 0, end before start)
    as the index can report them."""
    module = _module_of(path)
    symbols = []
    line = rng.randint(1, 12)

    def add(name, fqn, kind, start, end, export):
        symbols.append(
            rec.ScopeSymbol(
                id=ids.next(),
                path=path,
                name=name,
                fqn=fqn,
                kind=kind,
                start_line=start,
                end_line=end,
                is_export=export,
            )
        )

    while len(symbols) < count:
        roll = rng.random()
        remaining = count - len(symbols)
        if roll < 0.30 and remaining >= 2:
            # A class; its members lie inside its line range.
            cls_name = rng.choice(_TYPE_NAMES)
            if rng.random() < 0.1:
                cls_name = "_" + cls_name
            cls_fqn = module + "." + cls_name
            start = line
            cls_index = len(symbols)
            add(cls_name, cls_fqn, "class", start, start, rng.random() < 0.85)
            line += 1
            n_members = rng.randint(1, min(6, remaining - 1))
            for _ in range(n_members):
                member_roll = rng.random()
                if member_roll < 0.6:
                    name = rng.choice(_METHOD_NAMES)
                    length = rng.choice((1, 3, 6, 12, 25, 45))
                    kind = "constructor" if name == "__init__" and rng.random() < 0.5 else "method"
                    add(name, cls_fqn + "." + name, kind, line, line + length, rng.random() < 0.7)
                    line += length + 1
                elif member_roll < 0.9:
                    name = rng.choice(_ATTRIBUTE_NAMES)
                    add(name, cls_fqn + "." + name, rng.choice(_ATTRIBUTE_KINDS), line, line, False)
                    line += 1
                else:
                    name = rng.choice(_TYPE_NAMES)
                    length = rng.randint(2, 8)
                    add(
                        name,
                        cls_fqn + "." + name,
                        rng.choice(("class", "enum")),
                        line,
                        line + length,
                        rng.random() < 0.5,
                    )
                    line += length + 1
            end = line if rng.random() < 0.8 else line - 1
            old = symbols[cls_index]
            symbols[cls_index] = rec.ScopeSymbol(
                id=old.id,
                path=old.path,
                name=old.name,
                fqn=old.fqn,
                kind=old.kind,
                start_line=old.start_line,
                end_line=end,
                is_export=old.is_export,
            )
            line = end + 1
        elif roll < 0.65:
            name = rng.choice(_FUNCTION_NAMES)
            if rng.random() < 0.15:
                name = "_" + name
            length = rng.choice((0, 2, 5, 9, 15, 30, 39, 40, 41, 90))
            add(name, module + "." + name, "function", line, line + length, rng.random() < 0.8)
            line += length + 1
        elif roll < 0.85:
            name = rng.choice(_CONSTANT_NAMES)
            length = 0 if rng.random() < 0.8 else rng.randint(2, 60)  # a long literal now and then
            add(name, module + "." + name, "constant", line, line + length, rng.random() < 0.7)
            line += length + 1
        elif roll < 0.92:
            name = rng.choice(_TYPE_NAMES)
            length = rng.randint(0, 12)
            add(name, module + "." + name, rng.choice(_OTHER_TYPE_KINDS), line, line + length, rng.random() < 0.8)
            line += length + 1
        else:
            name = rng.choice(_ATTRIBUTE_NAMES)
            kind = rng.choice(_ATTRIBUTE_KINDS + ("variable",))
            add(name, module + "." + name, kind, line, line, rng.random() < 0.5)
            line += 1
        line += rng.randint(0, 3)

    # Odd line numbers as some indexers report them.
    for i, s in enumerate(symbols):
        odd = rng.random()
        if odd < 0.02:
            symbols[i] = _with_lines(rec, s, 0, s.end_line)
        elif odd < 0.04:
            symbols[i] = _with_lines(rec, s, s.start_line, max(0, s.start_line - rng.randint(1, 3)))
    return symbols, line


def _with_lines(rec, s, start, end):
    return rec.ScopeSymbol(
        id=s.id,
        path=s.path,
        name=s.name,
        fqn=s.fqn,
        kind=s.kind,
        start_line=start,
        end_line=end,
        is_export=s.is_export,
    )


def _outside_symbols(rng, rec, path, ids):
    """A few declarations of a file outside the page, as outbound targets."""
    module = _module_of(path)
    symbols = []
    line = 1
    for _ in range(rng.randint(1, 5)):
        kind = rng.choice(("function", "function", "class", "method", "constant", "attribute", "field", "struct"))
        pool = {
            "class": _TYPE_NAMES,
            "struct": _TYPE_NAMES,
            "constant": _CONSTANT_NAMES,
            "attribute": _ATTRIBUTE_NAMES,
            "field": _ATTRIBUTE_NAMES,
        }.get(kind, _FUNCTION_NAMES)
        name = rng.choice(pool)
        # Now and then the index stores a bare name as the qualified name,
        # so equal names from different files tie on it.
        fqn = name if rng.random() < 0.1 else module + "." + name
        length = rng.randint(0, 30)
        symbols.append(
            rec.ScopeSymbol(
                id=ids.next(),
                path=path,
                name=name,
                fqn=fqn,
                kind=kind,
                start_line=line,
                end_line=line + length,
                is_export=rng.random() < 0.8,
            )
        )
        line += length + 2
    return symbols


# ---------------------------------------------------------------------------
# Pages


SIZES = {
    "tiny": dict(n_files=2, decls_per_file=4, n_inbound=12, n_outbound=6, n_outside=4),
    "small": dict(n_files=4, decls_per_file=12, n_inbound=60, n_outbound=30, n_outside=10),
    "medium": dict(n_files=12, decls_per_file=40, n_inbound=800, n_outbound=300, n_outside=80),
    "large": dict(n_files=40, decls_per_file=120, n_inbound=20000, n_outbound=4000, n_outside=1500),
}


def make_page(
    rng,
    n_files=4,
    decls_per_file=12,
    n_inbound=60,
    n_outbound=30,
    n_outside=10,
    test_share=0.2,
    *,
    records=None,
):
    """Build one synthetic page.

    ``rng`` is a ``random.Random``; ``n_files`` page files of about
    ``decls_per_file`` declarations each; ``n_inbound`` inbound and
    ``n_outbound`` outbound reference records; ``n_outside`` source files
    outside the page, of which about ``test_share`` are test files under
    ``tests/``.  ``records`` provides the record classes (default: the ones
    of this module).

    Returns a dict with the nine facts fields: ``files``, ``symbols``,
    ``inbound``, ``outbound`` (tuples), ``import_resolved_paths``,
    ``test_sources`` (frozensets), ``line_counts``, ``summaries`` and
    ``test_imports`` (dicts).
    """
    rec = _records_of(records)
    file_ids = _Ids(rng.randint(0, 50))
    symbol_ids = _Ids(rng.randint(100, 1000))

    # Page files: mostly production code in two languages, one of which the
    # index resolves imports for; now and then a file without a language, or
    # a test file that belongs to the page.
    page_paths = []
    page_files = []
    test_paths = set()
    seen = set()
    while len(page_paths) < n_files:
        roll = rng.random()
        if roll < 0.04:
            language = ""
        elif roll < 0.62:
            language = RESOLVED_LANGUAGE
        else:
            language = UNRESOLVED_LANGUAGE
        if rng.random() < 0.06:
            path = "tests/test_" + rng.choice(_MODULES) + _EXTENSIONS[language]
            is_test = True
        else:
            folder = rng.choice(_FOLDERS)
            if rng.random() < 0.3:
                folder = "src/" + folder
            path = folder + "/" + rng.choice(_MODULES) + _EXTENSIONS[language]
            is_test = False
        if path in seen:
            # A second file of the same name in another folder.
            path = f"pkg{len(page_paths)}/{path}"
        if path in seen:
            continue
        seen.add(path)
        if is_test:
            test_paths.add(path)
        page_paths.append(path)
        page_files.append(rec.ScopeFile(id=file_ids.next(), path=path, language=language))

    # Declarations, grouped by file; the groups come in the query's order,
    # which need not be the order of the files.
    groups = []
    last_line = {}
    for path in page_paths:
        count = 0 if rng.random() < 0.08 else max(1, decls_per_file + rng.randint(-2, 2))
        symbols, end = _declarations(rng, rec, path, count, symbol_ids) if count else ([], 0)
        groups.append(symbols)
        last_line[path] = end
    if rng.random() < 0.5:
        rng.shuffle(groups)
    page_symbols = [s for group in groups for s in group]

    # Files outside the page: production sources and tests.
    outside_paths = []
    for i in range(n_outside):
        if rng.random() < test_share:
            path = f"tests/{rng.choice(_FOLDERS)}/test_{rng.choice(_MODULES)}_{i}.py"
            test_paths.add(path)
        else:
            language = rng.choice((RESOLVED_LANGUAGE, UNRESOLVED_LANGUAGE))
            path = f"{rng.choice(_OUTSIDE_FOLDERS)}/{rng.choice(_MODULES)}_{i}{_EXTENSIONS[language]}"
        outside_paths.append(path)
    outside_symbols = []
    for path in outside_paths:
        outside_symbols.extend(_outside_symbols(rng, rec, path, symbol_ids))

    # Inbound references: mostly from outside, some from the page's own
    # files (a file referencing itself included).
    inbound = []
    if page_symbols:
        for _ in range(n_inbound):
            target = rng.choice(page_symbols)
            roll = rng.random()
            if outside_paths and roll < 0.7:
                # Skewed so that a few consumers dominate, as in real code.
                source = outside_paths[min(int(rng.expovariate(4.0) * len(outside_paths)), len(outside_paths) - 1)]
            elif roll < 0.8:
                source = target.path
            else:
                source = rng.choice(page_paths)
            inbound.append(
                rec.InboundReference(
                    source_path=source,
                    target_id=target.id,
                    target_path=target.path,
                    target_name=target.name,
                    target_kind=target.kind,
                    resolution=_pick_resolution(rng),
                    refs=_pick_refs(rng),
                )
            )

    # Outbound references: from the page's files to declarations elsewhere,
    # to test helpers, and back into the page itself.
    outbound = []
    targets = outside_symbols or page_symbols
    if targets:
        for _ in range(n_outbound):
            if page_symbols and rng.random() < 0.2:
                target = rng.choice(page_symbols)
            else:
                target = rng.choice(targets)
            outbound.append(
                rec.OutboundReference(
                    source_path=rng.choice(page_paths),
                    target=target,
                    resolution=_pick_resolution(rng),
                    refs=_pick_refs(rng),
                )
            )

    # What the checkout gives: some files cannot be read, some are empty.
    line_counts = {}
    summaries = {}
    for path in page_paths:
        if rng.random() < 0.12:
            continue
        end = last_line[path]
        line_counts[path] = 0 if end == 0 and rng.random() < 0.5 else end + rng.randint(0, 10)
        summaries[path] = rng.choice(_SUMMARIES)

    test_sources = frozenset(ref.source_path for ref in inbound if ref.source_path in test_paths)

    outside_tests = [p for p in outside_paths if p in test_paths]
    test_imports = {}
    for path in page_paths:
        if outside_tests and rng.random() < 0.5:
            test_imports[path] = frozenset(rng.sample(outside_tests, rng.randint(1, min(3, len(outside_tests)))))

    return {
        "files": tuple(page_files),
        "symbols": tuple(page_symbols),
        "inbound": tuple(inbound),
        "outbound": tuple(outbound),
        "import_resolved_paths": frozenset(f.path for f in page_files if f.language == RESOLVED_LANGUAGE),
        "test_sources": test_sources,
        "line_counts": line_counts,
        "summaries": summaries,
        "test_imports": test_imports,
    }


def make_facts(seed, size="small", facts_type=SimpleFacts, *, records=None, **overrides):
    """``facts_type(**make_page(...))`` for a seed and a named size of
    ``SIZES``, with any size parameter overridden by keyword."""
    params = dict(SIZES[size])
    params.update(overrides)
    return facts_type(**make_page(random.Random(seed), records=records, **params))


def make_scored(rng, symbols, count):
    """A best-first list of ``count`` (name, path) candidates drawn from
    ``symbols`` (repeats allowed), as the spread picking takes them."""
    if not symbols:
        return []
    return [(s.name, s.path) for s in (rng.choice(symbols) for _ in range(count))]


def missing_paths(rng, count):
    """``count`` page paths that the index does not hold."""
    return [f"{rng.choice(_FOLDERS)}/missing_{i}{rng.choice(('.py', '.go'))}" for i in range(count)]
