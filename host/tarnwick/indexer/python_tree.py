"""Index a tree of Python source files with the standard library's `ast`.

Files
    Every `.py` file under the root becomes a file of language "python", a
    language whose imports this indexer resolves (it is recorded as such).
    Hidden directories, `__pycache__`, `site-packages`, `dist-packages`,
    `node_modules`, virtual environments (a directory holding `pyvenv.cfg`)
    and top-level `build` / `dist` output directories are skipped.  A file
    is read in the encoding its coding line names (`# -*- coding: latin-1
    -*-`), else as UTF-8.  A file that cannot be read or parsed (a syntax
    error, bytes not valid in its encoding) is still indexed as a file,
    without declarations, and listed with the reason in the statistics; a
    file whose name is no valid UTF-8 cannot be stored and is listed apart.

Unchanged files
    The index keeps each file's size and modification time, and this
    indexer's analysis of the file: what it declares, imports, binds and
    uses, before any name is resolved against other files.  Given the
    previous index of the tree, a file whose size, time and module name are
    unchanged is not parsed again; its stored analysis is reused.  Names are
    then resolved over the whole tree, as in a first run, since an edit of
    one file can change what the names of any other resolve to.

Module names
    A file in a package (a directory with an `__init__.py`, or a directory
    below one) is named by its packages: `src/shop/models.py` is
    `shop.models` when `src/` is no package.  When the root itself is a
    package, its own package path leads (indexing `.../email` gives
    `email.parser`).  A file in a directory that is no package (scripts,
    test folders) is named by its dotted path from the root
    (`tests/helpers.py` is `tests.helpers`), and its absolute imports look
    for a neighbour in the same directory first (`import helpers`).  The
    dotted path from the root (`src.shop.models`) resolves too.

Declarations
    - classes ("class"), functions ("function") and methods ("method");
    - properties ("property"): methods decorated with `property`,
      `functools.cached_property` or `abc.abstractproperty`;
    - module-level constants ("constant"): UPPER_CASE names assigned at
      module level;
    - fields ("field"): names annotated in a class body (`x: int`, `x: int =
      0`), as dataclasses, NamedTuples and TypedDicts declare theirs;
    - attributes ("attribute"): names assigned without an annotation in a
      class body (class attributes, enum members) and instance attributes
      assigned as `self.name = ...` in a method, once per class and name,
      at the first assignment.
    Definitions under module-level or class-level `if` / `try` / `with`
    blocks count; the first definition of a name wins.  Lines are the
    statement's `lineno`..`end_lineno` (decorators are not included).
    `fqn` is the module name and the qualified name (`email.parser.Parser.parse`).

Exports
    A module-level name is exported when the module's literal `__all__`
    lists it, or, without one, when it does not start with "_".  A member
    of a class (method, attribute, nested class) is exported when its class
    is and its own name does not start with "_" (so `__init__` is not).

References, counted per (source file, target declaration, resolution)
    - "local": a name bound in the same file to one of its declarations,
      `self.member` / `cls.member` inside a class, and the members reached
      from those (`Cart.Line.total`);
    - "import": a name or an attribute chain that the file's imports resolve
      to a declaration of another file: `from .x import Y`, `from .. import
      mod` then `mod.Y`, `import a.b as c` then `c.Y`, a member of an
      imported class (`Parser.parse`), names re-exported by a package's
      `__init__` or pulled in by `from m import *`.  The imported name in a
      `from m import Y` statement counts as one reference too, so a module
      that only re-exports `Y` still depends on it;
    - "unique": an otherwise unresolved name or attribute that matches
      exactly one production declaration (one outside test files): an
      attribute (`obj.parse` where the type of `obj` is unknown) is matched
      against the members of classes, a name bound nowhere in the file
      against module-level declarations;
    - "ambiguous": one that matches several, up to `AMBIGUOUS_LIMIT`; a name
      shared by more declarations says nothing and is skipped.
    Members are also looked up in base classes that resolve to indexed
    classes, and `super().name` in the bases of the method's class; the
    reference is then "local" or "import" by where the member is declared.
    Attributes of modules and classes outside the tree, of builtins and
    names of the built-in types' own methods (`text.split`) are not matched
    by name, nor are special names (`__enter__`).  A declaration's defining
    name (`def f`, `X = 1`, the first `self.x = ...`) is no reference to
    itself; stores are not counted at all.

Values of a known class
    Attributes of a value are looked up in its class when a plain hint
    names one: a call of the class (`Cart().total`), a name assigned from
    such a call earlier in the same function or at module level (`cart =
    Cart()`), an annotation (`cart: Cart`, `Optional[Cart]`, `"Cart"`), an
    attribute or a constant assigned or annotated so, and a call of a
    function whose return annotation names a class.

Values from outside the tree
    The attributes of a value known to come from outside the tree are not
    matched by name: a literal, a comprehension or a comparison, the result
    of a builtin or of a call of anything outside the tree, a name, an
    attribute or a constant assigned one of those, and the result of a
    function of the tree that has no return annotation and returns only
    such values, or is a generator.  Returns of `None`, of the function's
    own parameters and of subscripts say nothing of the type and are left
    out of that judgement (`re.compile` returns `_compile(...)`, which
    returns a parameter, an item of a cache, or what `_sre` compiled).

This is a heuristic index, not a type checker: a local variable that shadows
a module-level name is taken for that name, imports anywhere in a file count
for the whole file, and a name's hint is the latest one the walk has seen.
"""

from __future__ import annotations

import ast
import builtins
import fnmatch
import gc
import marshal
import os
import sys
import time
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

from tarnwick.storage.grounding_queries import NAME_MATCH_KINDS
from tarnwick.utils.path_filter import is_test_path
from tarnwick.utils.source_text import python_source_text
from tarnwick.workers.wiki.checkout import text_facts

LANGUAGE = "python"
SKIPPED_DIRS = frozenset({"__pycache__", "site-packages", "dist-packages", "node_modules"})
# Output directories of packaging tools, skipped at the top of the tree
# (unless they are packages themselves).
OUTPUT_DIRS = frozenset({"build", "dist"})
BUILTINS = frozenset(dir(builtins))
AMBIGUOUS_LIMIT = 8
# Decorators that make a method a property.
PROPERTY_DECORATORS = frozenset({"property", "cached_property", "abstractproperty"})
# Attribute names of the built-in types: `text.split()` on an unknown object
# is far more likely a str method than the one declaration named `split`.
BUILTIN_ATTRIBUTES = frozenset(
    name
    for kind in (str, bytes, bytearray, list, dict, set, frozenset, tuple, int, float, complex, object)
    for name in dir(kind)
)
# How many hops of re-exports (`from .x import Y` in a package) are followed.
REEXPORT_DEPTH = 8
PROGRESS_MIN_FILES = 200
PROGRESS_EVERY = 0.5  # seconds

# Kinds of use chains collected per file (the first item of a chain key).
# _NAME: a name and its attributes; _SELF: `self.a.b` in a method of a class;
# _EXPR: attributes of some other expression; _FROM: the name imported by a
# `from m import name`; _INSTANCE: attributes of a value whose type is
# named by another chain (`Cls().a`, `x.a` after `x = Cls()` or with
# `x: Cls`); _SUPER: attributes of `super()` in a method; _BUILTIN: a value
# of a built-in type (a literal, a comprehension), only as a type.
_NAME, _SELF, _EXPR, _FROM, _INSTANCE, _SUPER, _BUILTIN = range(7)
_BUILTIN_VALUE = (_BUILTIN, None, ())
# What a resolved name or attribute is: ("module", dotted name), ("decl",
# index), or one of these two.
_EXTERNAL = ("external",)  # outside the tree, or a builtin: its attributes are not ours
_UNKNOWN = ("unknown",)  # an object of unknown type: its attributes are matched by name
_FREE = ("free",)  # a name bound nowhere in the file: matched by name itself

_FUNCTIONS = (ast.FunctionDef, ast.AsyncFunctionDef)
_LITERALS = (
    ast.Constant,
    ast.JoinedStr,
    ast.List,
    ast.Tuple,
    ast.Dict,
    ast.Set,
    ast.ListComp,
    ast.SetComp,
    ast.DictComp,
)
# Expressions whose value is of a built-in type.
_BUILTIN_EXPRESSIONS = _LITERALS + (ast.GeneratorExp, ast.Compare)
_BLOCKS = (ast.If, ast.Try, ast.With, ast.AsyncWith, ast.For, ast.AsyncFor, ast.While) + (
    (ast.TryStar,) if hasattr(ast, "TryStar") else ()
)


@dataclass
class IndexStats:
    """What one run put into the index.

    `files` of them, `parsed` were parsed in this run and `reused` were
    unchanged since the previous index.  `references` counts rows, one per
    (source file, target, resolution); `by_resolution` sums their counts
    per resolution.  `unparsable` maps the files indexed without
    declarations to the reason (they cannot be read, decoded or parsed);
    `unnamed` lists the files left out because their paths are no valid
    UTF-8 (as `os.fsdecode` gives them), which the index cannot store.
    """

    files: int = 0
    parsed: int = 0
    reused: int = 0
    declarations: int = 0
    references: int = 0
    by_resolution: dict[str, int] = field(default_factory=dict)
    unparsable: dict[str, str] = field(default_factory=dict)
    unnamed: list[str] = field(default_factory=list)
    seconds: float = 0.0


class _Decl:
    __slots__ = (
        "name",
        "fqn",
        "kind",
        "start",
        "end",
        "exported",
        "members",
        "bases",
        "type",
        "returns",
        "module",
        "ancestry",
        "instance",
    )
    # What a file's stored analysis keeps of a declaration.
    STORED = __slots__[:10]

    def __init__(self, name, fqn, kind, start, end, exported):
        self.name, self.fqn, self.kind = name, fqn, kind
        self.start, self.end, self.exported = start, end, exported
        self.members: dict[str, int] | None = {} if kind == "class" else None
        self.bases: list | None = None  # a class's base expressions, as chain keys (None: not a chain)
        # The chain key (in its module) of the class an attribute's or a
        # constant's value, or a function's result, is an instance of.
        self.type: tuple | None = None
        # A function without a return annotation: the chain keys of what its
        # returns give (instances of what they name), None when one of them
        # cannot be placed.
        self.returns: tuple | None = None
        self.module = -1  # the index of its module, once its file joins the tree
        self.ancestry = None  # resolved lazily: (base class indices, whether a base lies outside the tree)
        self.instance = None  # what `type` or `returns` give, resolved lazily


class _Walk:
    """What one file declares, imports, binds and uses, before any name is
    resolved against other files: its analysis, stored with the index.

    Declarations are numbered from 0 within the file (in `top`, in class
    members and in `_SELF` / `_SUPER` chain keys); imports are kept as
    written: ("import", dotted name) or ("from", level, module, name), and
    star imports as (level, module).
    """

    __slots__ = ("module", "decls", "top", "imports", "stars", "bound", "chains")

    def __init__(self, module: str):
        self.module = module  # the module name the declarations' fqns start with
        self.decls: list[_Decl] = []
        self.top: dict[str, int] = {}  # module-level name -> declaration number
        self.imports: dict[str, tuple] = {}  # local name -> the import that binds it first
        self.stars: list[tuple[int, str]] = []
        self.bound: set[str] = set()  # every name the file binds somewhere
        self.chains: Counter = Counter()  # use chain key -> occurrences

    def dump(self) -> bytes:
        rows = [tuple(getattr(decl, name) for name in _Decl.STORED) for decl in self.decls]
        return marshal.dumps((self.module, rows, self.top, self.imports, self.stars, self.bound, dict(self.chains)))

    @classmethod
    def load(cls, data: bytes) -> _Walk:
        module, rows, top, imports, stars, bound, chains = marshal.loads(data)
        walk = cls(module)
        for row in rows:
            decl = _Decl(*row[:6])
            decl.members, decl.bases, decl.type, decl.returns = row[6:]
            walk.decls.append(decl)
        walk.top, walk.imports, walk.stars, walk.bound, walk.chains = top, imports, stars, bound, Counter(chains)
        return walk


class _Source:
    """A file to index and the names it is imported by."""

    __slots__ = ("path", "module", "package", "folder", "dotted")

    def __init__(self, path: str, module: str, package: str, folder: str, dotted: str):
        self.path = path  # relative to the root, "/"-separated
        self.module = module  # its module name
        self.package = package  # where its relative imports start ("" outside packages)
        self.folder = folder  # the dotted path of its directory when that is no package, else ""
        self.dotted = dotted  # its dotted path from the root (the root's package name first)


class _Module:
    """A file of the tree once its walk has joined it: declaration indices
    are the tree's, imports are resolved to module names."""

    __slots__ = ("path", "name", "package", "folder", "first", "top", "imports", "stars", "bound", "chains")

    def __init__(self, source: _Source):
        self.path, self.name, self.package, self.folder = source.path, source.module, source.package, source.folder
        self.first = 0  # the index of its first declaration: its walk's numbers start there
        self.top: dict[str, int] = {}  # module-level name -> declaration index
        # local name -> ("module", dotted) | ("from", module, attribute) | _EXTERNAL
        self.imports: dict[str, tuple] = {}
        self.stars: list[str] = []  # modules of `from m import *`
        self.bound: set[str] = set()  # every name the file binds somewhere
        self.chains: Counter = Counter()  # use chain key -> occurrences


# -- the files of a tree ------------------------------------------------------


def _skipped(directory: str, name: str, top: bool) -> bool:
    if name.startswith(".") or name in SKIPPED_DIRS:
        return True
    path = os.path.join(directory, name)
    if top and name in OUTPUT_DIRS and not os.path.isfile(os.path.join(path, "__init__.py")):
        return True
    return os.path.isfile(os.path.join(path, "pyvenv.cfg"))  # a virtual environment


def _stamp(path: Path) -> tuple[int, int]:
    """What tells a changed file: its size and modification time in ns ((-1, -1) when it cannot be stat'ed)."""
    try:
        status = path.stat()
    except OSError:
        return (-1, -1)
    return (status.st_size, status.st_mtime_ns)


def _python_files(root: Path, exclude=(), keep=(), unnamed=None) -> list[_Source]:
    """The `.py` files under `root`, sorted by path.

    A path that matches a glob of `exclude` is left out unless it matches one
    of `keep`; one that is no valid UTF-8 is left out and added to `unnamed`.
    """
    prefix = []
    up = root.resolve()
    while (up / "__init__.py").is_file() and up.name:
        prefix.insert(0, up.name)
        up = up.parent
    packages: dict[str, str | None] = {}  # directory (relative) -> its package name, None if no package
    found = []
    for directory, dirs, files in os.walk(root):
        relative = Path(directory).relative_to(root).as_posix()
        relative = "" if relative == "." else relative
        if not relative:
            packages[relative] = ".".join(prefix) if prefix else None
        else:
            parent, _, own = relative.rpartition("/")
            above = packages.get(parent)
            if above:
                # Inside a package, a directory without `__init__.py` is a namespace package.
                packages[relative] = f"{above}.{own}"
            else:
                packages[relative] = own if "__init__.py" in files else None
        dirs[:] = sorted(d for d in dirs if not _skipped(directory, d, top=not relative))
        package = packages[relative]
        folder = ".".join(prefix + (relative.split("/") if relative else []))
        for name in files:
            if not name.endswith(".py") or not os.path.isfile(os.path.join(directory, name)):
                continue  # not Python, or no file to read: a named pipe would block its reader
            path = f"{relative}/{name}" if relative else name
            try:
                path.encode()
            except UnicodeEncodeError:  # undecodable bytes in a name, kept as surrogates
                if unnamed is not None:
                    unnamed.append(path)
                continue
            if any(fnmatch.fnmatchcase(path, glob) for glob in exclude) and not any(
                fnmatch.fnmatchcase(path, glob) for glob in keep
            ):
                continue
            stem = name[:-3]
            dotted = f"{folder}.{stem}" if folder else stem
            if package is None:
                # A directory without `__init__.py`: the file is a top-level module
                # to its neighbours, and found by its dotted path from the root.
                found.append(_Source(path, dotted, "", folder, dotted))
            elif stem == "__init__":
                found.append(_Source(path, package, package, "", folder))
            else:
                found.append(_Source(path, f"{package}.{stem}" if package else stem, package, "", dotted))
    found.sort(key=lambda source: source.path)
    return found


# -- per file: declarations, imports and use chains ---------------------------


def _literal_all(body: list[ast.stmt]) -> set[str] | None:
    """The names of a literal `__all__` (with `+=`, `.extend` and `.append` of
    literals), or None when the module assigns no literal `__all__`."""
    names: set[str] | None = None

    def literal(node) -> list[str] | None:
        try:
            value = ast.literal_eval(node)
        except (ValueError, TypeError, SyntaxError, MemoryError, RecursionError):
            return None
        if isinstance(value, str):
            return [value]
        if isinstance(value, (list, tuple, set)) and all(isinstance(v, str) for v in value):
            return list(value)
        return None

    for node in _flat(body):
        if isinstance(node, (ast.Assign, ast.AnnAssign)):
            targets = node.targets if isinstance(node, ast.Assign) else [node.target]
            if node.value is not None and any(isinstance(t, ast.Name) and t.id == "__all__" for t in targets):
                value = literal(node.value)
                if value is not None:
                    names = set(value)
        elif (
            isinstance(node, ast.AugAssign)
            and isinstance(node.target, ast.Name)
            and node.target.id == "__all__"
            and names is not None
        ):
            names.update(literal(node.value) or ())
        elif (
            isinstance(node, ast.Expr)
            and isinstance(node.value, ast.Call)
            and isinstance(node.value.func, ast.Attribute)
            and node.value.func.attr in ("extend", "append")
            and isinstance(node.value.func.value, ast.Name)
            and node.value.func.value.id == "__all__"
            and names is not None
            and len(node.value.args) == 1
        ):
            names.update(literal(node.value.args[0]) or ())
    return names


def _flat(body: list[ast.stmt]):
    """The statements of a body, with those nested in if / try / with / loop
    blocks, in source order (not those in functions or classes)."""
    for node in body:
        yield node
        if isinstance(node, _BLOCKS):
            for name in ("body", "orelse", "finalbody"):
                yield from _flat(getattr(node, name, ()))
            for handler in getattr(node, "handlers", ()):
                yield from _flat(handler.body)


def _names_in(target: ast.expr):
    """The plain Name and Attribute nodes an assignment target stores to."""
    if isinstance(target, (ast.Tuple, ast.List)):
        for item in target.elts:
            yield from _names_in(item)
    elif isinstance(target, ast.Starred):
        yield from _names_in(target.value)
    elif isinstance(target, (ast.Name, ast.Attribute)):
        yield target


def _chain_of(node: ast.expr):
    """(base expression, attribute names) of `a.b.c`: (Name a, ("b", "c"))."""
    attrs = []
    while isinstance(node, ast.Attribute):
        attrs.append(node.attr)
        node = node.value
    attrs.reverse()
    return node, tuple(attrs)


def _last_name(node: ast.expr) -> str | None:
    """`c` of `a.b.c` and of `c`."""
    return node.attr if isinstance(node, ast.Attribute) else getattr(node, "id", None)


def _string_annotations(node: ast.expr):
    """String constants of an annotation that are forward references (not
    the values of a `Literal[...]`)."""
    if isinstance(node, ast.Constant):
        if isinstance(node.value, str):
            yield node
    elif isinstance(node, ast.Subscript):
        if _last_name(node.value) == "Literal":
            return
        yield from _string_annotations(node.slice)
    elif isinstance(node, (ast.Tuple, ast.List)):
        for item in node.elts:
            yield from _string_annotations(item)
    elif isinstance(node, ast.BinOp):
        yield from _string_annotations(node.left)
        yield from _string_annotations(node.right)


class _Returns:
    """What the return statements of the function being walked give."""

    __slots__ = ("params", "keys", "unplaced", "generator")
    SKIP = ("skip",)  # a return that says nothing of the type

    def __init__(self, params: set[str]):
        self.params = params
        self.keys: list[tuple] = []
        self.unplaced = False
        self.generator = False

    def add(self, key: tuple | None) -> None:
        if key is None:
            self.unplaced = True
        elif key is not self.SKIP and key not in self.keys:
            self.keys.append(key)

    def result(self) -> tuple | None:
        """The function's `returns` (see `_Decl`)."""
        if self.generator:
            return (_BUILTIN_VALUE,)
        return None if self.unplaced or not self.keys else tuple(self.keys)


class _FileWalker:
    """One walk over a parsed file: declares its classes, functions,
    constants and attributes, records its imports and the names it binds,
    and counts its use chains, all into a `_Walk`."""

    def __init__(self, module: str, tree: ast.Module):
        self.walk = _Walk(module)
        self.decls = self.walk.decls
        self.chains = self.walk.chains
        self.bound = self.walk.bound
        self.exported_names = _literal_all(tree.body)
        self.scope: str = "module"  # "module", "class" or "function"
        self.owner: int | None = None  # the class whose body is walked (scope "class")
        self.self_ctx: tuple[str, int] | None = None  # (self name, class) inside methods of a declared class
        self.classes: dict[int, int] = {}  # id(ClassDef) -> declaration, for nested classes
        self.functions: dict[int, int] = {}  # id(FunctionDef) -> declaration, for functions and methods
        self.returns: _Returns | None = None  # inside a function: what its returns give
        # Types of local names, as chain keys (None: not known), one layer per
        # enclosing function and one for the module.
        self.types: list[dict[str, tuple | None]] = [{}]
        for node in tree.body:
            self.visit(node)

    # -- walking ------------------------------------------------------------

    def visit(self, node: ast.AST) -> None:
        handler = _DISPATCH.get(type(node), _FileWalker.generic)
        if handler is not None:
            handler(self, node)

    def generic(self, node: ast.AST) -> None:
        for name in node._fields:
            value = getattr(node, name, None)
            if isinstance(value, list):
                for item in value:
                    if isinstance(item, ast.AST):
                        self.visit(item)
            elif isinstance(value, ast.AST):
                self.visit(value)

    def visit_all(self, nodes) -> None:
        for node in nodes:
            if node is not None:
                self.visit(node)

    def annotation(self, node: ast.expr | None) -> None:
        if node is None:
            return
        self.visit(node)
        for text in _string_annotations(node):
            try:
                parsed = ast.parse(text.value.strip(), mode="eval")
            except (SyntaxError, ValueError, MemoryError, RecursionError):
                continue
            self.visit(parsed.body)

    # -- declarations -------------------------------------------------------

    def declare(self, name: str, kind: str, node: ast.AST, owner: int | None, typed: tuple | None = None) -> int | None:
        """Declare `name` at module level (owner None) or in class `owner`
        (with the chain key of its type, if known); the first declaration of
        a name wins (None for a later one)."""
        walk = self.walk
        if owner is None:
            if name in walk.top:
                return None
            fqn = f"{walk.module}.{name}" if walk.module else name
            names = self.exported_names
            exported = name in names if names is not None else not name.startswith("_")
        else:
            cls = self.decls[owner]
            if name in cls.members:
                return None
            fqn = f"{cls.fqn}.{name}"
            exported = cls.exported and not name.startswith("_")
        decl_index = len(self.decls)
        self.decls.append(_Decl(name, fqn, kind, node.lineno, node.end_lineno, exported))
        self.decls[-1].type = typed
        if owner is None:
            walk.top[name] = decl_index
        else:
            self.decls[owner].members[name] = decl_index
        return decl_index

    def declare_members(self, cls: int, body: list[ast.stmt]) -> None:
        """A class body's methods, nested classes and attributes, before any
        `self.x` assignment of its methods, so that those never shadow them."""
        for node in _flat(body):
            if isinstance(node, _FUNCTIONS):
                prop = any(_last_name(decorator) in PROPERTY_DECORATORS for decorator in node.decorator_list)
                method = self.declare(
                    node.name, "property" if prop else "method", node, cls, self.type_key(node.returns, False)
                )
                if method is not None:
                    self.functions[id(node)] = method
            elif isinstance(node, ast.ClassDef):
                nested = self.declare(node.name, "class", node, cls)
                if nested is not None:
                    self.classes[id(node)] = nested
            elif isinstance(node, (ast.Assign, ast.AnnAssign)):
                typed = self.value_type(node)
                kind = "field" if isinstance(node, ast.AnnAssign) else "attribute"
                for target in node.targets if isinstance(node, ast.Assign) else [node.target]:
                    for stored in _names_in(target):
                        if isinstance(stored, ast.Name):
                            self.declare(stored.id, kind, node, cls, typed)

    def value_type(self, node: ast.Assign | ast.AnnAssign) -> tuple | None:
        """The type an assignment gives a single target, as a chain key."""
        if isinstance(node, ast.AnnAssign):
            return self.type_key(node.annotation, False) or self.type_key(node.value, True)
        if len(node.targets) == 1 and isinstance(node.targets[0], (ast.Name, ast.Attribute)):
            return self.type_key(node.value, True)
        return None

    # -- visitors -----------------------------------------------------------

    def visit_name(self, node: ast.Name) -> None:
        if isinstance(node.ctx, ast.Load):
            if self.self_ctx is None or node.id != self.self_ctx[0]:
                self.chains[(_NAME, node.id, ())] += 1
        else:
            self.bound.add(node.id)
            if self.scope != "class":
                self.types[-1][node.id] = None  # rebound: its type is no longer known

    def key(self, base: ast.expr, attrs: tuple[str, ...]) -> tuple | None:
        """The chain key of a name or `self` and attributes after it."""
        if not isinstance(base, ast.Name):
            return None
        if self.self_ctx is not None and base.id == self.self_ctx[0]:
            return (_SELF, self.self_ctx[1], attrs)
        if attrs:
            for layer in reversed(self.types):
                if base.id in layer:
                    if layer[base.id] is not None:
                        return (_INSTANCE, layer[base.id], attrs)
                    break
        return (_NAME, base.id, attrs)

    def type_key(self, node: ast.expr | None, call: bool) -> tuple | None:
        """The chain key naming the type of a value: the callee of `Cls(...)`
        or `_BUILTIN_VALUE` for a literal (call true), or a plain annotation
        `Cls` / `mod.Cls` (call false)."""
        if call:
            if isinstance(node, _BUILTIN_EXPRESSIONS):
                # None and ... are placeholders more often than values (`parser = None`).
                placeholder = isinstance(node, ast.Constant) and (node.value is None or node.value is Ellipsis)
                return None if placeholder else _BUILTIN_VALUE
            if not isinstance(node, ast.Call):
                return None
            node = node.func
        else:
            if isinstance(node, ast.Constant) and isinstance(node.value, str):
                try:
                    node = ast.parse(node.value.strip(), mode="eval").body
                except (SyntaxError, ValueError, MemoryError, RecursionError):
                    return None
            # `Optional[Cls]` and `Cls | None` name Cls.
            if isinstance(node, ast.Subscript) and _last_name(node.value) == "Optional":
                node = node.slice
            elif isinstance(node, ast.BinOp) and isinstance(node.op, ast.BitOr):
                if isinstance(node.right, ast.Constant) and node.right.value is None:
                    node = node.left
                elif isinstance(node.left, ast.Constant) and node.left.value is None:
                    node = node.right
        if not isinstance(node, (ast.Name, ast.Attribute)):
            return None
        key = self.key(*_chain_of(node))
        return None if key is None or key[0] == _SELF and not key[2] else key

    def visit_attribute(self, node: ast.Attribute) -> None:
        if not isinstance(node.ctx, ast.Load):
            self.visit(node.value)  # a store or delete: its base is still used
            return
        base, attrs = _chain_of(node)
        key = self.key(base, attrs)
        if key is not None:
            if key[0] != _SELF or attrs:
                self.chains[key] += 1
            return
        self.visit(base)
        if isinstance(base, ast.Call):
            callee = self.key(*_chain_of(base.func))
            if callee == (_NAME, "super", ()) and self.self_ctx is not None and "super" not in self.bound:
                key = (_SUPER, self.self_ctx[1], attrs)
            elif callee is not None and (callee[0] != _SELF or callee[2]):
                key = (_INSTANCE, callee, attrs)
        elif isinstance(base, _LITERALS):
            return  # methods of str, list, dict, ...
        self.chains[key or (_EXPR, None, attrs)] += 1

    def visit_function(self, node: ast.FunctionDef | ast.AsyncFunctionDef) -> None:
        self.bound.add(node.name)
        self.visit_all(node.decorator_list)
        self.visit_arguments(node.args)
        self.annotation(node.returns)
        args = node.args
        self.types.append(
            {
                arg.arg: self.type_key(arg.annotation, False)
                for arg in args.posonlyargs + args.args + args.kwonlyargs + [args.vararg, args.kwarg]
                if arg is not None
            }
        )
        scope, owner, self_ctx, returns = self.scope, self.owner, self.self_ctx, self.returns
        self.returns = _Returns(set(self.types[-1]))
        if scope == "module":
            function = self.declare(node.name, "function", node, None, self.type_key(node.returns, False))
            if function is not None:
                self.functions[id(node)] = function
        elif scope == "class":
            positional = node.args.posonlyargs + node.args.args
            static = any(isinstance(d, ast.Name) and d.id == "staticmethod" for d in node.decorator_list)
            if owner is not None and positional and not static:
                self.self_ctx = (positional[0].arg, owner)
            else:
                self.self_ctx = None
        self.scope, self.owner = "function", None
        self.visit_all(node.body)
        if id(node) in self.functions:
            self.decls[self.functions[id(node)]].returns = self.returns.result()
        self.scope, self.owner, self.self_ctx, self.returns = scope, owner, self_ctx, returns
        self.types.pop()

    def visit_class(self, node: ast.ClassDef) -> None:
        self.bound.add(node.name)
        self.visit_all(node.decorator_list)
        self.visit_all(node.bases)
        self.visit_all(node.keywords)
        if self.scope == "module":
            cls = self.declare(node.name, "class", node, None)
        elif self.scope == "class":
            cls = self.classes.get(id(node))
        else:
            cls = None  # a class local to a function is not indexed
        if cls is not None:
            bases = []
            for base in node.bases:
                head, attrs = _chain_of(base)
                bases.append((_NAME, head.id, attrs) if isinstance(head, ast.Name) else None)
            self.decls[cls].bases = bases
            self.declare_members(cls, node.body)
        scope, owner = self.scope, self.owner
        self.scope, self.owner = "class", cls
        self.visit_all(node.body)
        self.scope, self.owner = scope, owner

    def visit_assign(self, node: ast.Assign | ast.AnnAssign) -> None:
        targets = node.targets if isinstance(node, ast.Assign) else [node.target]
        typed = self.value_type(node) if self.scope != "class" else None
        constants = set()
        if self.scope == "module":
            for target in targets:
                for stored in _names_in(target):
                    if isinstance(stored, ast.Name) and stored.id.isupper():  # UPPER_CASE, any script
                        self.declare(stored.id, "constant", node, None, typed)
                        constants.add(stored.id)
        elif self.self_ctx is not None and self.scope == "function":
            self_name, cls = self.self_ctx
            for target in targets:
                for stored in _names_in(target):
                    if (
                        isinstance(stored, ast.Attribute)
                        and isinstance(stored.value, ast.Name)
                        and stored.value.id == self_name
                    ):
                        if self.declare(stored.attr, "attribute", node, cls, typed) is None and typed:
                            # Declared before (`parser = None` in the class body): the
                            # first assignment that names a class gives its type.
                            existing = self.decls[self.decls[cls].members[stored.attr]]
                            if existing.kind in ("attribute", "field") and existing.type is None:
                                existing.type = typed
        if isinstance(node, ast.AnnAssign):
            self.annotation(node.annotation)
            if node.value is not None:
                self.visit(node.value)
            self.visit(node.target)
        else:
            self.visit(node.value)
            self.visit_all(node.targets)
        # A local name typed by this assignment (a constant's type lives on
        # its declaration, so that its own uses still count).
        target = targets[0]
        if typed is not None and isinstance(target, ast.Name) and target.id not in constants:
            self.types[-1][target.id] = typed

    def visit_arguments(self, node: ast.arguments) -> None:
        for arg in node.posonlyargs + node.args + node.kwonlyargs + [node.vararg, node.kwarg]:
            if arg is not None:
                self.bound.add(arg.arg)
                self.annotation(arg.annotation)
        self.visit_all(node.defaults)
        self.visit_all(node.kw_defaults)

    def visit_import(self, node: ast.Import) -> None:
        for alias in node.names:
            local = alias.asname or alias.name.partition(".")[0]
            # The first import of a name wins (`try: import a as x` / `except: import b as x`).
            self.walk.imports.setdefault(local, ("import", alias.name if alias.asname else local))
            self.bound.add(local)

    def visit_import_from(self, node: ast.ImportFrom) -> None:
        if node.module == "__future__":
            return
        for alias in node.names:
            if alias.name == "*":
                self.walk.stars.append((node.level, node.module or ""))
                continue
            local = alias.asname or alias.name
            self.bound.add(local)
            self.walk.imports.setdefault(local, ("from", node.level, node.module or "", alias.name))
            self.chains[(_FROM, (node.level, node.module or "", alias.name), ())] += 1

    def visit_return(self, node: ast.Return) -> None:
        if node.value is not None:
            self.visit(node.value)
        if self.returns is not None:
            self.returns.add(self.returned(node.value))

    def returned(self, value: ast.expr | None) -> tuple | None:
        """The chain key of what a return statement gives, `_Returns.SKIP`
        when it says nothing of the type, or None when it cannot be placed."""
        if (
            value is None
            or isinstance(value, ast.Subscript)
            or (isinstance(value, ast.Constant) and value.value is None)
        ):
            return _Returns.SKIP
        if isinstance(value, ast.Name):
            if value.id in self.returns.params:
                return _Returns.SKIP
            return next((layer[value.id] for layer in reversed(self.types) if value.id in layer), None)
        return self.type_key(value, True)

    def visit_yield(self, node: ast.Yield | ast.YieldFrom) -> None:
        if self.returns is not None:
            self.returns.generator = True
        self.generic(node)

    def visit_binop(self, node: ast.BinOp) -> None:
        # Long sums (`"a" + "b" + ...`) nest to the left; walk them without recursion.
        rights = []
        while isinstance(node, ast.BinOp):
            rights.append(node.right)
            node = node.left
        self.visit(node)
        for right in reversed(rights):
            self.visit(right)

    def visit_except(self, node: ast.ExceptHandler) -> None:
        if node.name:
            self.bound.add(node.name)
        self.generic(node)

    def visit_match_name(self, node) -> None:
        name = getattr(node, "name", None) or getattr(node, "rest", None)
        if name:
            self.bound.add(name)
        self.generic(node)


_DISPATCH = {
    ast.Name: _FileWalker.visit_name,
    ast.Attribute: _FileWalker.visit_attribute,
    ast.FunctionDef: _FileWalker.visit_function,
    ast.AsyncFunctionDef: _FileWalker.visit_function,
    ast.ClassDef: _FileWalker.visit_class,
    ast.Assign: _FileWalker.visit_assign,
    ast.AnnAssign: _FileWalker.visit_assign,
    ast.Import: _FileWalker.visit_import,
    ast.ImportFrom: _FileWalker.visit_import_from,
    ast.arguments: _FileWalker.visit_arguments,
    ast.ExceptHandler: _FileWalker.visit_except,
    ast.BinOp: _FileWalker.visit_binop,
    ast.MatchAs: _FileWalker.visit_match_name,
    ast.MatchStar: _FileWalker.visit_match_name,
    ast.MatchMapping: _FileWalker.visit_match_name,
    ast.Return: _FileWalker.visit_return,
    ast.Yield: _FileWalker.visit_yield,
    ast.YieldFrom: _FileWalker.visit_yield,
    # Nothing to see below these.
    ast.Load: None,
    ast.Store: None,
    ast.Del: None,
    ast.Constant: None,
    ast.Global: None,
    ast.Nonlocal: None,
    ast.Pass: None,
}


# -- the whole tree -----------------------------------------------------------


class _Indexer:
    def __init__(self, root: Path, progress, exclude=(), keep=()):
        self.root = root
        self.exclude, self.keep = tuple(exclude), tuple(keep)
        self.progress = progress
        self.decls: list[_Decl] = []
        self.modules: list[_Module] = []
        self.by_module: dict[str, int] = {}
        self.prefixes: set[str] = set()  # dotted names of packages, namespace packages included
        # Short name -> production declarations: module-level ones, and members of classes.
        self.top_names: dict[str, list[int]] = {}
        self.member_names: dict[str, list[int]] = {}
        self.lookups: dict[tuple[str, str], tuple] = {}
        self.refs: Counter = Counter()  # (source module, declaration, resolution) -> count

    # -- modules and imports ------------------------------------------------

    def is_module(self, name: str) -> bool:
        return name in self.by_module or name in self.prefixes

    def absolute(self, module: _Module, name: str) -> str:
        """The module an absolute import of `name` means in `module`: a
        neighbour in the same directory (when that is no package, as for
        scripts and test folders run directly) before a top-level one."""
        if module.folder:
            near = f"{module.folder}.{name}"
            if self.is_module(near):
                return near
        return name

    def import_source(self, module: _Module, level: int, name: str) -> str | None:
        """The dotted module a `from <level dots><name> import` reads from;
        None when a relative import climbs above the top of the tree's packages."""
        if not level:
            return self.absolute(module, name)
        base = module.package.split(".") if module.package else []
        if level - 1 >= len(base):
            return None
        base = base[: len(base) - (level - 1)]
        if name:
            base += name.split(".")
        return ".".join(base)

    def linked(self, module: _Module, entry: tuple) -> tuple:
        """An import entry of a walk, as the module sees it: ("module",
        dotted), ("from", module, attribute) or _EXTERNAL."""
        if entry[0] == "import":
            return ("module", self.absolute(module, entry[1]))
        _, level, name, attribute = entry
        source = self.import_source(module, level, name)
        if source is None:
            return _EXTERNAL
        submodule = f"{source}.{attribute}" if source else attribute
        return ("module", submodule) if self.is_module(submodule) else ("from", source, attribute)

    def join(self, index: int, walk: _Walk) -> None:
        """Add a file's walk to the tree: its declarations get the tree's
        indices, its imports are resolved to module names."""
        module = self.modules[index]
        first = module.first = len(self.decls)
        for decl in walk.decls:
            decl.module = index
            if decl.members is not None:
                decl.members = {name: number + first for name, number in decl.members.items()}
        self.decls += walk.decls
        module.top = {name: number + first for name, number in walk.top.items()}
        module.imports = {local: self.linked(module, entry) for local, entry in walk.imports.items()}
        stars = (self.import_source(module, level, name) for level, name in walk.stars)
        module.stars = [star for star in stars if star is not None]
        module.bound, module.chains = walk.bound, walk.chains

    def imported(self, entry: tuple, depth: int = 0) -> tuple:
        """What an import entry of a module stands for."""
        if entry[0] == "module":
            return entry if self.is_module(entry[1]) else _EXTERNAL
        if entry[0] == "from":
            return self.lookup(entry[1], entry[2], depth)
        return _EXTERNAL

    def lookup(self, module_name: str, attribute: str, depth: int = 0) -> tuple:
        """`attribute` of the module `module_name`: ("module", name),
        ("decl", index), _UNKNOWN (a name of an indexed module that is no
        declaration) or _EXTERNAL (a module outside the tree)."""
        key = (module_name, attribute)
        found = self.lookups.get(key)
        if found is not None:
            return found
        submodule = f"{module_name}.{attribute}" if module_name else attribute
        if self.is_module(submodule):
            found = ("module", submodule)
        elif module_name not in self.by_module:
            found = _UNKNOWN if module_name in self.prefixes else _EXTERNAL
        else:
            module = self.modules[self.by_module[module_name]]
            found = _UNKNOWN
            if attribute in module.top:
                found = ("decl", module.top[attribute])
            elif depth < REEXPORT_DEPTH:
                if attribute in module.imports:
                    found = self.imported(module.imports[attribute], depth + 1)
                else:
                    for star in module.stars:
                        through = self.lookup(star, attribute, depth + 1)
                        if through[0] in ("decl", "module"):
                            found = through
                            break
        self.lookups[key] = found
        return found

    def name_value(self, module: _Module, name: str) -> tuple:
        """What a bare name of a module stands for (top-level declarations first)."""
        if name in module.top:
            return ("decl", module.top[name])
        if name in module.imports:
            return self.imported(module.imports[name])
        if name in module.bound:
            return _UNKNOWN
        if name in BUILTINS:
            return _EXTERNAL
        for star in module.stars:
            through = self.lookup(star, name)
            if through[0] in ("decl", "module"):
                return through
        return _FREE

    # -- classes ------------------------------------------------------------

    def ancestry(self, cls: int) -> tuple[tuple[int, ...], bool]:
        """A class's bases that are indexed classes, and whether any other
        base (from outside the tree, or not a plain name) has members we cannot see."""
        decl = self.decls[cls]
        if decl.ancestry is None:
            decl.ancestry = ((), False)  # guards against a class that inherits from itself
            found, outside = [], False
            for base in decl.bases or ():
                value = self.follow(decl.module, base, None) if base is not None else _EXTERNAL
                if value[0] == "decl" and self.decls[value[1]].kind == "class":
                    found.append(value[1])
                elif base is None or base[1] != "object" or base[2]:
                    outside = True
            decl.ancestry = (tuple(found), outside)
        return decl.ancestry

    def member(self, cls: int, name: str) -> tuple:
        """`name` in class `cls` or its bases: ("decl", index), _EXTERNAL when
        a base outside the tree may hold it, else _UNKNOWN."""
        seen, stack, outside = set(), [cls], False
        while stack:
            current = stack.pop()
            if current in seen:
                continue
            seen.add(current)
            found = self.decls[current].members.get(name)
            if found is not None:
                return ("decl", found)
            bases, external = self.ancestry(current)
            outside = outside or external
            stack.extend(reversed(bases))
        return _EXTERNAL if outside else _UNKNOWN

    def instance_of(self, index: int, type_chain: tuple) -> tuple:
        """What calling (or annotating with) what a chain of module `index`
        names gives: an instance of a class (("decl", class)), _EXTERNAL for
        something from outside the tree, else _UNKNOWN.  A function gives an
        instance of the class its return annotation names."""
        named = self.follow(index, type_chain, None)
        if named[0] != "decl":
            return _EXTERNAL if named is _EXTERNAL else _UNKNOWN
        kind = self.decls[named[1]].kind
        if kind == "class":
            return named
        return self.value_of(named[1]) if kind in ("function", "method") else _UNKNOWN

    def value_of(self, decl_index: int) -> tuple:
        """The value of an attribute, a field, a property or a constant, or
        what a function returns: an instance of the class its type names,
        _EXTERNAL or _UNKNOWN."""
        decl = self.decls[decl_index]
        if decl.instance is None:
            decl.instance = _UNKNOWN  # guards against a value defined through itself
            if decl.type is not None:
                decl.instance = self.instance_of(decl.module, decl.type)
            elif decl.returns is not None:
                decl.instance = self.returned(decl)
        return decl.instance

    def returned(self, decl: _Decl) -> tuple:
        """What a function without a return annotation gives: _EXTERNAL when
        every return that can be placed gives a value from outside the tree."""
        values = {self.instance_of(decl.module, key) for key in decl.returns}
        return _EXTERNAL if values == {_EXTERNAL} else _UNKNOWN

    # -- references ---------------------------------------------------------

    def count(self, source: int, target: int, weight: int) -> None:
        resolution = "local" if self.decls[target].module == source else "import"
        self.refs[(source, target, resolution)] += weight

    def name_match(self, source: int, name: str, weight: int, pool: dict[str, list[int]]) -> None:
        """Tie an unresolved name to the production declarations of `pool` that bear it."""
        candidates = pool.get(name)
        if not candidates or (name.startswith("__") and name.endswith("__")):
            return  # special names (`__init__`, `__name__`) belong to every object
        if len(candidates) == 1:
            self.refs[(source, candidates[0], "unique")] += weight
        elif len(candidates) <= AMBIGUOUS_LIMIT:
            for candidate in candidates:
                self.refs[(source, candidate, "ambiguous")] += weight

    def follow(self, index: int, chain: tuple, weight: int | None) -> tuple:
        """Resolve a use chain of module `index`; with a weight, count each
        resolved step and name-match the unresolved ones."""
        value, attrs = self.follow_head(index, chain, weight)
        for attr in attrs:
            if value is _EXTERNAL:
                return value
            value = self.follow_attribute(index, value, attr, weight)
        return value

    def follow_head(self, index: int, chain: tuple, weight: int | None) -> tuple:
        """The value the head of a use chain names, and the attributes still
        to follow from it."""
        kind, head, attrs = chain
        module = self.modules[index]
        if kind == _SELF:
            return ("decl", head + module.first), attrs
        if kind == _FROM:
            source = self.import_source(module, head[0], head[1])
            value = _EXTERNAL if source is None else self.lookup(source, head[2])
            if value[0] == "decl" and weight:
                self.count(index, value[1], weight)
            return value, ()
        if kind == _BUILTIN:
            return _EXTERNAL, ()
        if kind == _INSTANCE:
            # An instance of the class that `head` names; anything else is
            # an unknown value.  (`head` itself is counted by its own chain.)
            return self.instance_of(index, head), attrs
        if kind == _SUPER:
            return self.follow_super(index, head + module.first, attrs[0], weight), attrs[1:]
        if kind != _NAME:
            return _UNKNOWN, attrs
        value = self.name_value(module, head)
        if value[0] == "decl":
            if weight:
                self.count(index, value[1], weight)
        elif value is _FREE:
            if weight:
                self.name_match(index, head, weight, self.top_names)
            value = _UNKNOWN
        return value, attrs

    def follow_super(self, index: int, method: int, name: str, weight: int | None) -> tuple:
        """`super().name` in the method `method`: the name in the bases of
        the method's class."""
        bases, outside = self.ancestry(method)
        value = _EXTERNAL if outside else _UNKNOWN
        for base in bases:
            found = self.member(base, name)
            if found[0] == "decl":
                value = found
                break
            if found is _EXTERNAL:
                value = _EXTERNAL
        if value[0] == "decl":
            if weight:
                self.count(index, value[1], weight)
        elif value is _UNKNOWN and weight and name not in BUILTIN_ATTRIBUTES:
            self.name_match(index, name, weight, self.member_names)
        return value

    def follow_attribute(self, index: int, value: tuple, attr: str, weight: int | None) -> tuple:
        """The value of `value.attr`, counted or name-matched as `follow` says."""
        if value is _UNKNOWN:
            # An attribute of an object of unknown type.
            if weight and attr not in BUILTIN_ATTRIBUTES:
                self.name_match(index, attr, weight, self.member_names)
            return value
        if value[0] == "module":
            # A name of an indexed module that is no declaration stays
            # unknown without being matched: it is known not to be one.
            value = self.lookup(value[1], attr)
        else:
            kind = self.decls[value[1]].kind
            if kind in NAME_MATCH_KINDS:
                value = self.value_of(value[1])  # the attribute's, property's or constant's value
                if value is _EXTERNAL:
                    return value
            elif kind != "class":
                value = _UNKNOWN  # an attribute of a function
            if value is not _UNKNOWN:
                value = self.member(value[1], attr)
            # A member no class body declares is set from outside or dynamically.
            if value is _UNKNOWN and weight and attr not in BUILTIN_ATTRIBUTES:
                self.name_match(index, attr, weight, self.member_names)
        if value[0] == "decl" and weight:
            self.count(index, value[1], weight)
        return value

    # -- running ------------------------------------------------------------

    def run(self, db, previous) -> IndexStats:
        started = time.perf_counter()
        stats = IndexStats()
        if not self.root.is_dir():
            raise NotADirectoryError(f"not a directory: {self.root}")
        files = _python_files(self.root, self.exclude, self.keep, stats.unnamed)
        show = self.progress is not None and len(files) > PROGRESS_MIN_FILES
        last = started

        def tick(stage: str, done: int) -> None:
            nonlocal last
            now = time.perf_counter()
            if show and (now - last >= PROGRESS_EVERY or done == len(files)):
                last = now
                print(f"indexing {self.root}: {stage} {done}/{len(files)} files", file=self.progress, flush=True)

        self.name_modules(files)
        stored = previous.file_analyses() if previous is not None else {}
        sources = []  # per file: (size, mtime_ns, problem, analysis, lines, summary)
        for index, source in enumerate(files):
            stamp = _stamp(self.root / source.path)
            problem, analysis, walk, text = self.walk_of(source, stamp, stored.get(source.path), stats)
            if problem is not None:
                stats.unparsable[source.path] = problem
            self.join(index, walk)
            sources.append((*stamp, problem, analysis, *text))
            tick("declared", index + 1)
        self.resolve(lambda done: tick("resolved", done))
        self.write(db, sources)

        by_resolution: Counter = Counter()
        for (_, _, resolution), n in self.refs.items():
            by_resolution[resolution] += n
        stats.files, stats.declarations, stats.references = len(self.modules), len(self.decls), len(self.refs)
        stats.by_resolution = dict(sorted(by_resolution.items()))
        stats.seconds = time.perf_counter() - started
        if show:
            unchanged = f" ({stats.reused} unchanged)" if stats.reused else ""
            skipped = f", {len(stats.unparsable)} unparsable" if stats.unparsable else ""
            print(
                f"indexed {stats.files} files{unchanged}{skipped}, {stats.declarations} declarations, "
                f"{stats.references} references in {stats.seconds:.1f} s",
                file=self.progress,
                flush=True,
            )
        return stats

    def name_modules(self, files: list[_Source]) -> None:
        """Module names first, then the dotted paths from the root where they
        differ (`src.shop.models` for `shop.models`); the first file of a name wins."""
        for names in ([source.module for source in files], [source.dotted for source in files]):
            for index, name in enumerate(names):
                self.by_module.setdefault(name, index)
                parts = name.split(".")
                self.prefixes.update(".".join(parts[:n]) for n in range(1, len(parts)))
        self.modules = [_Module(source) for source in files]

    def walk_of(
        self, source: _Source, stamp: tuple[int, int], stored: tuple | None, stats: IndexStats
    ) -> tuple[str | None, bytes | None, _Walk, tuple]:
        """A file's problem (why it has no declarations), stored analysis, walk
        and (lines, summary): those of the previous index while the file is
        unchanged, else new."""
        if stored is not None and tuple(stored[:2]) == stamp:
            problem, analysis, text = stored[2], stored[3], tuple(stored[4:6])
            walk = _Walk.load(analysis) if analysis is not None else _Walk(source.module)
            if walk.module == source.module:
                stats.reused += 1
                return problem, analysis, walk, text
        stats.parsed += 1
        problem, walk, text = _analyse(self.root / source.path, source)
        return problem, None if problem is not None else walk.dump(), walk, text

    def resolve(self, tick) -> None:
        """Follow every use chain of every file, counting references."""
        top = {decl for module in self.modules for decl in module.top.values()}
        production = [not is_test_path(module.path) for module in self.modules]
        for decl_index, decl in enumerate(self.decls):
            if production[decl.module]:
                pool = self.top_names if decl_index in top else self.member_names
                pool.setdefault(decl.name, []).append(decl_index)
        for index, module in enumerate(self.modules):
            for chain, weight in module.chains.items():
                self.follow(index, chain, weight)
            module.chains = None
            tick(index + 1)

    def write(self, db, sources: list[tuple]) -> None:
        """Load everything into `db` with one bulk insert per table."""
        file_ids = db.add_files((module.path, LANGUAGE) for module in self.modules)
        db.add_sources((file_id, *source) for file_id, source in zip(file_ids, sources, strict=True))
        db.add_resolved_language(LANGUAGE)
        decl_ids = db.add_symbols(
            (file_ids[d.module], d.name, d.fqn, d.kind, d.start, d.end, d.exported) for d in self.decls
        )
        db.add_references(
            (file_ids[source], decl_ids[target], resolution, n) for (source, target, resolution), n in self.refs.items()
        )


def _analyse(path: Path, source: _Source) -> tuple[str | None, _Walk, tuple]:
    """Read, parse and walk one file: (None, its walk), or (why it cannot
    be, an empty walk); then its (lines, summary) as a wiki page shows them."""
    text: tuple = (None, None)
    try:
        data = path.read_bytes()
        text = text_facts(source.path, data)
        return None, _FileWalker(source.module, ast.parse(python_source_text(data), filename=source.path)).walk, text
    except OSError as error:
        problem = f"cannot be read: {error.strerror or error}"
    except UnicodeDecodeError as error:
        line = error.object.count(b"\n", 0, error.start) + 1
        problem = f"not valid {error.encoding.removesuffix('-sig').upper()} (line {line})"
    except SyntaxError as error:
        problem = f"syntax error at line {error.lineno}: {error.msg}" if error.lineno else error.msg
    except ValueError as error:
        problem = f"cannot be parsed: {error}"
    except (RecursionError, MemoryError):
        problem = "nested too deeply to parse"
    return problem, _Walk(source.module), text


def tree_stamps(root, exclude=(), keep=()) -> dict[str, tuple[int, int]]:
    """The size and modification time (in ns) of every file `index_tree`
    would index, by path: what the index records to tell a changed file."""
    root = Path(root)
    return {source.path: _stamp(root / source.path) for source in _python_files(root, exclude, keep)}


def index_tree(root, db, progress=sys.stderr, exclude=(), keep=(), previous=None) -> IndexStats:
    """Index every `.py` file under `root` into `db` (a `Database`) and
    return what was indexed.

    Paths are relative to `root` with "/" separators.  Files whose relative
    path matches a glob of `exclude` are skipped unless they match one of
    `keep`.  `previous`, an earlier index of the same tree made by this
    indexer, lends the analyses of the files that did not change since.
    Progress goes to `progress` (a text stream, or None for quiet) for trees
    of more than `PROGRESS_MIN_FILES` files.  The tree is analysed
    completely before anything is written, then loaded with one bulk insert
    per table (files first: a path the index already holds raises
    `sqlite3.IntegrityError` before anything of this run is stored).
    A `root` that is no directory raises `NotADirectoryError`.
    """
    collecting = gc.isenabled()
    # The walk builds millions of small objects that all stay alive until the
    # end; the cyclic collector would scan them again and again for nothing.
    gc.disable()
    try:
        return _Indexer(Path(root), progress, exclude, keep).run(db, previous)
    finally:
        if collecting:
            gc.enable()
