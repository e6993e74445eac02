"""Index a tree of Python source files with the standard library's `ast`.

Files
    Every `.py` file under the root becomes a file of language "python", a
    language whose imports this indexer resolves (it is recorded as such).
    Hidden directories, `__pycache__`, `site-packages`, `dist-packages`,
    `node_modules`, virtual environments (a directory holding `pyvenv.cfg`)
    and top-level `build` / `dist` output directories are skipped.  A file
    that does not parse (a syntax error, an undecodable file) is still
    indexed as a file, without declarations, and listed in the statistics.

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
    - module-level constants ("constant"): UPPER_CASE names assigned at
      module level;
    - attributes ("attribute"): names assigned in a class body (fields,
      enum members) and instance attributes assigned as `self.name = ...` in
      a method, once per class and name, at the first assignment.
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
    - "unique": an otherwise unresolved name or attribute (`obj.parse` where
      the type of `obj` is unknown) that matches exactly one production
      declaration (one outside test files);
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
    function whose return annotation names a class.  A value made by
    something outside the tree is outside too: its attributes are not
    matched by name.

This is a heuristic index, not a type checker: a local variable that shadows
a module-level name is taken for that name, imports anywhere in a file count
for the whole file, and a name's hint is the latest one the walk has seen.
"""

from __future__ import annotations

import ast
import builtins
import fnmatch
import gc
import os
import re
import sys
import time
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

from tarnwick.utils.path_filter import is_test_path

LANGUAGE = "python"
SKIPPED_DIRS = frozenset({"__pycache__", "site-packages", "dist-packages", "node_modules"})
# Output directories of packaging tools, skipped at the top of the tree
# (unless they are packages themselves).
OUTPUT_DIRS = frozenset({"build", "dist"})
CONSTANT = re.compile(r"_*[A-Z][A-Z0-9_]*")
BUILTINS = frozenset(dir(builtins))
AMBIGUOUS_LIMIT = 8
# Attribute names of the built-in types: `text.split()` on an unknown object
# is far more likely a str method than the one declaration named `split`.
BUILTIN_ATTRIBUTES = frozenset(
    name for kind in (str, bytes, bytearray, list, dict, set, frozenset, tuple, int, float, complex, object)
    for name in dir(kind))
# How many hops of re-exports (`from .x import Y` in a package) are followed.
REEXPORT_DEPTH = 8
PROGRESS_MIN_FILES = 200
PROGRESS_EVERY = 0.5  # seconds

# Kinds of use chains collected per file (the first item of a chain key).
# _NAME: a name and its attributes; _SELF: `self.a.b` in a method of a class;
# _EXPR: attributes of some other expression; _FROM: the name imported by a
# `from m import name`; _INSTANCE: attributes of a value whose type is
# named by another chain (`Cls().a`, `x.a` after `x = Cls()` or with
# `x: Cls`); _SUPER: attributes of `super()` in a method.
_NAME, _SELF, _EXPR, _FROM, _INSTANCE, _SUPER = range(6)
# What a resolved name or attribute is: ("module", dotted name), ("decl",
# index), or one of these two.
_EXTERNAL = ("external",)  # outside the tree, or a builtin: its attributes are not ours
_UNKNOWN = ("unknown",)  # an object of unknown type: its attributes are matched by name
_FREE = ("free",)  # a name bound nowhere in the file: matched by name itself

_FUNCTIONS = (ast.FunctionDef, ast.AsyncFunctionDef)
_LITERALS = (ast.Constant, ast.JoinedStr, ast.List, ast.Tuple, ast.Dict, ast.Set, ast.ListComp, ast.SetComp,
             ast.DictComp)
_BLOCKS = (ast.If, ast.Try, ast.With, ast.AsyncWith, ast.For, ast.AsyncFor, ast.While) + (
    (ast.TryStar,) if hasattr(ast, "TryStar") else ())


@dataclass
class IndexStats:
    """What one run put into the index.

    `references` counts rows, one per (source file, target, resolution);
    `by_resolution` sums their counts per resolution.  `unparsable` lists the
    files indexed without declarations because they do not parse;
    `unnamed` the files left out because their paths are no valid UTF-8
    (as `os.fsdecode` gives them), which the index cannot store.
    """

    files: int = 0
    declarations: int = 0
    references: int = 0
    by_resolution: dict[str, int] = field(default_factory=dict)
    unparsable: list[str] = field(default_factory=list)
    unnamed: list[str] = field(default_factory=list)
    seconds: float = 0.0


class _Decl:
    __slots__ = ("name", "fqn", "kind", "start", "end", "exported", "module", "members", "bases", "ancestry",
                 "type", "instance")

    def __init__(self, name, fqn, kind, node, exported, module):
        self.name, self.fqn, self.kind = name, fqn, kind
        self.start, self.end = node.lineno, node.end_lineno
        self.exported, self.module = exported, module
        self.members: dict[str, int] | None = {} if kind == "class" else None
        self.bases: list | None = None  # a class's base expressions, as chain keys (None: not a chain)
        self.ancestry = None  # resolved lazily: (base class indices, whether a base lies outside the tree)
        # The chain key (in its module) of the class an attribute's or a
        # constant's value, or a function's result, is an instance of.
        self.type: tuple | None = None
        self.instance = None  # that instance, resolved lazily


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
    __slots__ = ("path", "name", "package", "folder", "top", "imports", "stars", "bound", "chains")

    def __init__(self, source: _Source):
        self.path, self.name, self.package, self.folder = source.path, source.module, source.package, source.folder
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
            if not name.endswith(".py"):
                continue
            path = f"{relative}/{name}" if relative else name
            try:
                path.encode()
            except UnicodeEncodeError:  # undecodable bytes in a name, kept as surrogates
                if unnamed is not None:
                    unnamed.append(path)
                continue
            if any(fnmatch.fnmatchcase(path, glob) for glob in exclude) and not any(
                    fnmatch.fnmatchcase(path, glob) for glob in keep):
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
        elif (isinstance(node, ast.AugAssign) and isinstance(node.target, ast.Name)
              and node.target.id == "__all__" and names is not None):
            names.update(literal(node.value) or ())
        elif (isinstance(node, ast.Expr) and isinstance(node.value, ast.Call)
              and isinstance(node.value.func, ast.Attribute) and node.value.func.attr in ("extend", "append")
              and isinstance(node.value.func.value, ast.Name) and node.value.func.value.id == "__all__"
              and names is not None and len(node.value.args) == 1):
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


class _FileWalker:
    """One walk over a parsed file: declares its classes, functions,
    constants and attributes, records its imports and the names it binds,
    and counts its use chains (resolved once every file is declared)."""

    def __init__(self, indexer: _Indexer, index: int, module: _Module, tree: ast.Module):
        self.ix = indexer
        self.index = index
        self.module = module
        self.chains = module.chains
        self.bound = module.bound
        self.exported_names = _literal_all(tree.body)
        self.scope: str = "module"  # "module", "class" or "function"
        self.owner: int | None = None  # the class whose body is walked (scope "class")
        self.self_ctx: tuple[str, int] | None = None  # (self name, class) inside methods of a declared class
        self.classes: dict[int, int] = {}  # id(ClassDef) -> declaration, for nested classes
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

    def declare(self, name: str, kind: str, node: ast.AST, owner: int | None, typed: tuple | None = None
                ) -> int | None:
        """Declare `name` at module level (owner None) or in class `owner`
        (with the chain key of its type, if known); the first declaration of
        a name wins (None for a later one)."""
        ix = self.ix
        if owner is None:
            if name in self.module.top:
                return None
            fqn = f"{self.module.name}.{name}" if self.module.name else name
            names = self.exported_names
            exported = name in names if names is not None else not name.startswith("_")
        else:
            cls = ix.decls[owner]
            if name in cls.members:
                return None
            fqn = f"{cls.fqn}.{name}"
            exported = cls.exported and not name.startswith("_")
        decl_index = len(ix.decls)
        ix.decls.append(_Decl(name, fqn, kind, node, exported, self.index))
        ix.decls[-1].type = typed
        if owner is None:
            self.module.top[name] = decl_index
        else:
            ix.decls[owner].members[name] = decl_index
        return decl_index

    def declare_members(self, cls: int, body: list[ast.stmt]) -> None:
        """A class body's methods, nested classes and attributes, before any
        `self.x` assignment of its methods, so that those never shadow them."""
        for node in _flat(body):
            if isinstance(node, _FUNCTIONS):
                self.declare(node.name, "method", node, cls, self.type_key(node.returns, False))
            elif isinstance(node, ast.ClassDef):
                nested = self.declare(node.name, "class", node, cls)
                if nested is not None:
                    self.classes[id(node)] = nested
            elif isinstance(node, (ast.Assign, ast.AnnAssign)):
                typed = self.value_type(node)
                for target in (node.targets if isinstance(node, ast.Assign) else [node.target]):
                    for stored in _names_in(target):
                        if isinstance(stored, ast.Name):
                            self.declare(stored.id, "attribute", node, cls, typed)

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
        (call true) or a plain annotation `Cls` / `mod.Cls` (call false)."""
        if call:
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
        self.types.append({arg.arg: self.type_key(arg.annotation, False)
                           for arg in args.posonlyargs + args.args + args.kwonlyargs + [args.vararg, args.kwarg]
                           if arg is not None})
        scope, owner, self_ctx = self.scope, self.owner, self.self_ctx
        if scope == "module":
            self.declare(node.name, "function", node, None, self.type_key(node.returns, False))
        elif scope == "class":
            positional = node.args.posonlyargs + node.args.args
            static = any(isinstance(d, ast.Name) and d.id == "staticmethod" for d in node.decorator_list)
            if owner is not None and positional and not static:
                self.self_ctx = (positional[0].arg, owner)
            else:
                self.self_ctx = None
        self.scope, self.owner = "function", None
        self.visit_all(node.body)
        self.scope, self.owner, self.self_ctx = scope, owner, self_ctx
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
            self.ix.decls[cls].bases = bases
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
                    if isinstance(stored, ast.Name) and CONSTANT.fullmatch(stored.id):
                        self.declare(stored.id, "constant", node, None, typed)
                        constants.add(stored.id)
        elif self.self_ctx is not None and self.scope == "function":
            self_name, cls = self.self_ctx
            for target in targets:
                for stored in _names_in(target):
                    if (isinstance(stored, ast.Attribute) and isinstance(stored.value, ast.Name)
                            and stored.value.id == self_name):
                        if self.declare(stored.attr, "attribute", node, cls, typed) is None and typed:
                            # Declared before (`parser = None` in the class body): the
                            # first assignment that names a class gives its type.
                            existing = self.ix.decls[self.ix.decls[cls].members[stored.attr]]
                            if existing.kind == "attribute" and existing.type is None:
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
            target = self.ix.absolute(self.module, alias.name if alias.asname else local)
            self.module.imports.setdefault(local, ("module", target))
            self.bound.add(local)

    def visit_import_from(self, node: ast.ImportFrom) -> None:
        if node.module == "__future__":
            return
        source = self.ix.import_source(self.module, node)
        for alias in node.names:
            if alias.name == "*":
                if source is not None:
                    self.module.stars.append(source)
                continue
            local = alias.asname or alias.name
            self.bound.add(local)
            if source is None:
                self.module.imports.setdefault(local, _EXTERNAL)
                continue
            submodule = f"{source}.{alias.name}" if source else alias.name
            if self.ix.is_module(submodule):
                self.module.imports.setdefault(local, ("module", submodule))
            else:
                self.module.imports.setdefault(local, ("from", source, alias.name))
                self.chains[(_FROM, (source, alias.name), ())] += 1

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
    ast.Name: _FileWalker.visit_name, ast.Attribute: _FileWalker.visit_attribute,
    ast.FunctionDef: _FileWalker.visit_function, ast.AsyncFunctionDef: _FileWalker.visit_function,
    ast.ClassDef: _FileWalker.visit_class, ast.Assign: _FileWalker.visit_assign,
    ast.AnnAssign: _FileWalker.visit_assign, ast.Import: _FileWalker.visit_import,
    ast.ImportFrom: _FileWalker.visit_import_from, ast.arguments: _FileWalker.visit_arguments,
    ast.ExceptHandler: _FileWalker.visit_except, ast.BinOp: _FileWalker.visit_binop,
    ast.MatchAs: _FileWalker.visit_match_name, ast.MatchStar: _FileWalker.visit_match_name,
    ast.MatchMapping: _FileWalker.visit_match_name,
    # Nothing to see below these.
    ast.Load: None, ast.Store: None, ast.Del: None, ast.Constant: None, ast.Global: None, ast.Nonlocal: None,
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
        self.names: dict[str, list[int]] = {}  # short name -> production declarations
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

    def import_source(self, module: _Module, node: ast.ImportFrom) -> str | None:
        """The dotted module a `from ... import` reads from; None when a
        relative import climbs above the top of the tree's packages."""
        if not node.level:
            return self.absolute(module, node.module or "")
        base = module.package.split(".") if module.package else []
        if node.level - 1 >= len(base):
            return None
        base = base[: len(base) - (node.level - 1)]
        if node.module:
            base += node.module.split(".")
        return ".".join(base)

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
        """The value of an attribute or a constant, or what a function
        returns: an instance of the class its type names, _EXTERNAL or _UNKNOWN."""
        decl = self.decls[decl_index]
        if decl.type is None:
            return _UNKNOWN
        if decl.instance is None:
            decl.instance = _UNKNOWN  # guards against a type defined through itself
            decl.instance = self.instance_of(decl.module, decl.type)
        return decl.instance

    # -- references ---------------------------------------------------------

    def count(self, source: int, target: int, weight: int) -> None:
        resolution = "local" if self.decls[target].module == source else "import"
        self.refs[(source, target, resolution)] += weight

    def name_match(self, source: int, name: str, weight: int) -> None:
        candidates = self.names.get(name)
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
        kind, head, attrs = chain
        module = self.modules[index]
        if kind == _SELF:
            value = ("decl", head)
        elif kind == _NAME:
            value = self.name_value(module, head)
            if value[0] == "decl":
                if weight:
                    self.count(index, value[1], weight)
            elif value is _FREE:
                if weight:
                    self.name_match(index, head, weight)
                value = _UNKNOWN
        elif kind == _FROM:
            value = self.lookup(*head)
            if value[0] == "decl" and weight:
                self.count(index, value[1], weight)
            return value
        elif kind == _INSTANCE:
            # An instance of the class that `head` names; anything else is
            # an unknown value.  (`head` itself is counted by its own chain.)
            value = self.instance_of(index, head)
        elif kind == _SUPER:
            # `super().name`: the name in the bases of the method's class.
            bases, outside = self.ancestry(head)
            value = _EXTERNAL if outside else _UNKNOWN
            for base in bases:
                found = self.member(base, attrs[0])
                if found[0] == "decl":
                    value = found
                    break
                if found is _EXTERNAL:
                    value = _EXTERNAL
            if value[0] == "decl":
                if weight:
                    self.count(index, value[1], weight)
            elif value is _UNKNOWN and weight and attrs[0] not in BUILTIN_ATTRIBUTES:
                self.name_match(index, attrs[0], weight)
            attrs = attrs[1:]
        else:
            value = _UNKNOWN
        for attr in attrs:
            if value is _EXTERNAL:
                return value
            if value is _UNKNOWN:
                # An attribute of an object of unknown type.
                if weight and attr not in BUILTIN_ATTRIBUTES:
                    self.name_match(index, attr, weight)
                continue
            if value[0] == "module":
                # A name of an indexed module that is no declaration stays
                # unknown without being matched: it is known not to be one.
                value = self.lookup(value[1], attr)
            else:
                kind = self.decls[value[1]].kind
                if kind in ("attribute", "constant"):
                    value = self.value_of(value[1])  # the attribute's or constant's value
                    if value is _EXTERNAL:
                        return value
                elif kind != "class":
                    value = _UNKNOWN  # an attribute of a function
                if value is not _UNKNOWN:
                    value = self.member(value[1], attr)
                # A member no class body declares is set from outside or dynamically.
                if value is _UNKNOWN and weight and attr not in BUILTIN_ATTRIBUTES:
                    self.name_match(index, attr, weight)
            if value[0] == "decl" and weight:
                self.count(index, value[1], weight)
        return value

    # -- running ------------------------------------------------------------

    def run(self, db) -> IndexStats:
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

        # Module names first, then the dotted paths from the root where they differ
        # (`src.shop.models` for `shop.models`); the first file of a name wins.
        for names in ([source.module for source in files], [source.dotted for source in files]):
            for index, name in enumerate(names):
                self.by_module.setdefault(name, index)
                parts = name.split(".")
                self.prefixes.update(".".join(parts[:n]) for n in range(1, len(parts)))
        self.modules = [_Module(source) for source in files]

        for index, module in enumerate(self.modules):
            try:
                tree = ast.parse((self.root / module.path).read_bytes(), filename=module.path)
            except (SyntaxError, ValueError, UnicodeDecodeError, RecursionError, MemoryError, OSError):
                stats.unparsable.append(module.path)
            else:
                before = len(self.decls)
                try:
                    _FileWalker(self, index, module, tree)
                except RecursionError:
                    # Nested too deeply to walk: keep the file, but nothing of it.
                    del self.decls[before:]
                    self.modules[index] = _Module(files[index])
                    stats.unparsable.append(module.path)
            tick("declared", index + 1)

        production = [not is_test_path(module.path) for module in self.modules]
        for decl_index, decl in enumerate(self.decls):
            if production[decl.module]:
                self.names.setdefault(decl.name, []).append(decl_index)
        for index, module in enumerate(self.modules):
            for chain, weight in module.chains.items():
                self.follow(index, chain, weight)
            module.chains = None
            tick("resolved", index + 1)

        file_ids = db.add_files((module.path, LANGUAGE) for module in self.modules)
        db.add_resolved_language(LANGUAGE)
        decl_ids = db.add_symbols(
            (file_ids[d.module], d.name, d.fqn, d.kind, d.start, d.end, d.exported) for d in self.decls)
        db.add_references((file_ids[source], decl_ids[target], resolution, n)
                          for (source, target, resolution), n in self.refs.items())
        by_resolution: Counter = Counter()
        for (_, _, resolution), n in self.refs.items():
            by_resolution[resolution] += n
        stats.files, stats.declarations, stats.references = len(self.modules), len(self.decls), len(self.refs)
        stats.by_resolution = dict(sorted(by_resolution.items()))
        stats.seconds = time.perf_counter() - started
        if show:
            skipped = f", {len(stats.unparsable)} unparsable" if stats.unparsable else ""
            print(f"indexed {stats.files} files{skipped}, {stats.declarations} declarations, {stats.references} "
                  f"references in {stats.seconds:.1f} s", file=self.progress, flush=True)
        return stats


def index_tree(root, db, progress=sys.stderr, exclude=(), keep=()) -> IndexStats:
    """Index every `.py` file under `root` into `db` (a `Database`) and
    return what was indexed.

    Paths are relative to `root` with "/" separators.  Files whose relative
    path matches a glob of `exclude` are skipped unless they match one of
    `keep`.  Progress goes to `progress` (a text stream, or None for quiet)
    for trees of more than `PROGRESS_MIN_FILES` files.  The tree is analysed
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
        return _Indexer(Path(root), progress, exclude, keep).run(db)
    finally:
        if collecting:
            gc.enable()
