"""Index a tree of Python source files with the standard library's `ast`.

Every `.py` file becomes a file of language "python" (a language whose
imports this indexer resolves). Declarations:

- classes ("class"), module-level functions ("function"), methods ("method"),
  module-level UPPER_CASE constants ("constant"), and instance attributes
  assigned as `self.name = ...` in a method ("attribute", once per class and
  name, at the first assignment);
- `fqn` is the module's dotted path and the qualified name
  (`email.parser.Parser.parse`);
- a module-level name is exported when it is listed in a literal `__all__`,
  or, without one, when it does not start with "_"; a member of a class is
  exported when its class is and its own name does not start with "_".

References, counted per (source file, target declaration, resolution):

- "local": a name bound in the same file to one of its declarations, and
  `self.member` / `cls.member` inside a class;
- "import": a name or an attribute chain that the file's imports (absolute or
  relative) resolve to an indexed declaration, including a member of an
  imported class (`Parser.parse`);
- "unique": an unresolved attribute (`obj.parse`) or free name that matches
  exactly one production declaration (not in a test file);
- "ambiguous": one that matches several (at most `AMBIGUOUS_LIMIT`; a name
  shared by more declarations is too common to say anything and is skipped).

This is a heuristic index, not a type checker: a local variable that shadows
an imported name, or calls through dynamic objects, are taken at face value.
"""

from __future__ import annotations

import ast
import builtins
import fnmatch
import os
import re
import sys
import time
from collections import Counter, defaultdict
from dataclasses import dataclass, field
from pathlib import Path

from tarnwick.utils.path_filter import is_test_path

LANGUAGE = "python"
SKIPPED_DIRS = {"__pycache__", "site-packages", "node_modules", "venv", ".venv", "env", "build", "dist"}
CONSTANT = re.compile(r"^_*[A-Z][A-Z0-9_]*$")
BUILTINS = frozenset(dir(builtins))
AMBIGUOUS_LIMIT = 8
# Attribute names of the built-in types (and of regular expressions):
# `text.split()` on an unknown object is far more likely a str method than
# the one declaration named `split`.
BUILTIN_ATTRIBUTES = frozenset(
    name for kind in (str, bytes, bytearray, list, dict, set, frozenset, tuple, int, float, complex, object)
    for name in dir(kind))


@dataclass
class IndexStats:
    files: int = 0
    declarations: int = 0
    references: int = 0
    unparsable: list[str] = field(default_factory=list)
    seconds: float = 0.0


@dataclass
class _Decl:
    name: str
    fqn: str
    kind: str
    start: int
    end: int
    exported: bool
    members: dict[str, int] = field(default_factory=dict)  # for classes: member name -> declaration index


@dataclass
class _Module:
    path: str
    name: str  # dotted module name
    package: str  # the package relative imports start from
    tree: ast.Module | None
    top: dict[str, int] = field(default_factory=dict)  # module-level name -> declaration index
    imports: dict[str, tuple[str, str | None]] = field(default_factory=dict)  # local name -> (module, attribute)
    bound: set[str] = field(default_factory=set)  # every name the file binds somewhere


def _python_files(root: Path, exclude=(), keep=()) -> list[str]:
    """The `.py` files under `root`, as sorted relative paths. A path that
    matches a glob of `exclude` is left out unless it matches one of `keep`."""
    found = []
    for directory, dirs, files in os.walk(root):
        dirs[:] = sorted(d for d in dirs if not d.startswith(".") and d not in SKIPPED_DIRS)
        for name in files:
            if name.endswith(".py"):
                path = Path(directory, name).relative_to(root).as_posix()
                if any(fnmatch.fnmatchcase(path, glob) for glob in exclude) and not any(
                        fnmatch.fnmatchcase(path, glob) for glob in keep):
                    continue
                found.append(path)
    return sorted(found)


def _module_name(path: str) -> tuple[str, str]:
    parts = path[:-3].split("/")
    if parts[-1] == "__init__":
        parts.pop()
        return ".".join(parts), ".".join(parts)
    return ".".join(parts), ".".join(parts[:-1])


def _literal_all(tree: ast.Module) -> set[str] | None:
    for node in tree.body:
        if isinstance(node, ast.Assign) and any(isinstance(t, ast.Name) and t.id == "__all__" for t in node.targets):
            try:
                return {str(name) for name in ast.literal_eval(node.value)}
            except (ValueError, TypeError, SyntaxError):
                return None
    return None


class _Indexer:
    def __init__(self, root: Path, progress, exclude=(), keep=()):
        self.root = root
        self.exclude, self.keep = tuple(exclude), tuple(keep)
        self.progress = progress
        self.decls: list[_Decl] = []
        self.decl_file: list[int] = []  # declaration index -> module index
        self.modules: list[_Module] = []
        self.by_module: dict[str, int] = {}
        self.refs: Counter = Counter()  # (source module index, declaration index, resolution) -> count

    # -- declarations -------------------------------------------------------

    def _add(self, module_index: int, decl: _Decl) -> int:
        self.decls.append(decl)
        self.decl_file.append(module_index)
        return len(self.decls) - 1

    def declare(self, index: int, module: _Module) -> None:
        tree = module.tree
        exported_names = _literal_all(tree)

        def public(name: str) -> bool:
            return name in exported_names if exported_names is not None else not name.startswith("_")

        for node in tree.body:
            if isinstance(node, ast.ClassDef):
                module.top[node.name] = self.declare_class(index, module, node, module.name, public(node.name))
            elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
                module.top[node.name] = self._add(index, _Decl(
                    node.name, f"{module.name}.{node.name}", "function", node.lineno, node.end_lineno,
                    public(node.name)))
            elif isinstance(node, (ast.Assign, ast.AnnAssign)):
                targets = node.targets if isinstance(node, ast.Assign) else [node.target]
                for target in targets:
                    if isinstance(target, ast.Name) and CONSTANT.match(target.id) and target.id not in module.top:
                        module.top[target.id] = self._add(index, _Decl(
                            target.id, f"{module.name}.{target.id}", "constant", node.lineno, node.end_lineno,
                            public(target.id)))

    def declare_class(self, index: int, module: _Module, node: ast.ClassDef, owner: str, exported: bool) -> int:
        qualified = f"{owner}.{node.name}"
        decl = _Decl(node.name, qualified, "class", node.lineno, node.end_lineno, exported)
        class_index = self._add(index, decl)
        for item in node.body:
            if isinstance(item, ast.ClassDef):
                decl.members[item.name] = self.declare_class(
                    index, module, item, qualified, exported and not item.name.startswith("_"))
            elif isinstance(item, (ast.FunctionDef, ast.AsyncFunctionDef)):
                decl.members.setdefault(item.name, self._add(index, _Decl(
                    item.name, f"{qualified}.{item.name}", "method", item.lineno, item.end_lineno,
                    exported and not item.name.startswith("_"))))
        for item in node.body:
            if not isinstance(item, (ast.FunctionDef, ast.AsyncFunctionDef)) or not item.args.args:
                continue
            owner_name = item.args.args[0].arg
            for sub in ast.walk(item):
                targets = sub.targets if isinstance(sub, ast.Assign) else (
                    [sub.target] if isinstance(sub, (ast.AnnAssign, ast.AugAssign)) else [])
                for target in targets:
                    if (isinstance(target, ast.Attribute) and isinstance(target.value, ast.Name)
                            and target.value.id == owner_name and target.attr not in decl.members):
                        decl.members[target.attr] = self._add(index, _Decl(
                            target.attr, f"{qualified}.{target.attr}", "attribute", sub.lineno, sub.end_lineno,
                            exported and not target.attr.startswith("_")))
        return class_index

    # -- imports ------------------------------------------------------------

    def resolve_from(self, module: _Module, node: ast.ImportFrom) -> str:
        if not node.level:
            return node.module or ""
        base = module.package.split(".") if module.package else []
        if node.level > 1:
            base = base[: len(base) - (node.level - 1)] if node.level - 1 <= len(base) else []
        if node.module:
            base += node.module.split(".")
        return ".".join(base)

    def collect_imports(self, module: _Module) -> None:
        for node in ast.walk(module.tree):
            if isinstance(node, ast.Import):
                for alias in node.names:
                    if alias.asname:
                        module.imports[alias.asname] = (alias.name, None)
                    else:
                        head = alias.name.split(".")[0]
                        module.imports[head] = (head, None)
            elif isinstance(node, ast.ImportFrom):
                source = self.resolve_from(module, node)
                for alias in node.names:
                    if alias.name == "*":
                        continue
                    local = alias.asname or alias.name
                    submodule = f"{source}.{alias.name}" if source else alias.name
                    if submodule in self.by_module:
                        module.imports[local] = (submodule, None)
                    else:
                        module.imports[local] = (source, alias.name)
            elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
                module.bound.add(node.name)
                if not isinstance(node, ast.ClassDef):
                    for arg in node.args.posonlyargs + node.args.args + node.args.kwonlyargs:
                        module.bound.add(arg.arg)
                    for extra in (node.args.vararg, node.args.kwarg):
                        if extra:
                            module.bound.add(extra.arg)
            elif isinstance(node, ast.Name) and not isinstance(node.ctx, ast.Load):
                module.bound.add(node.id)
            elif isinstance(node, (ast.ExceptHandler,)) and node.name:
                module.bound.add(node.name)
            elif isinstance(node, ast.alias):
                module.bound.add((node.asname or node.name).split(".")[0])

    # -- references ---------------------------------------------------------

    def member_of(self, decl_index: int, name: str) -> int | None:
        return self.decls[decl_index].members.get(name)

    def lookup(self, module_name: str, attribute: str) -> tuple[str, int | None]:
        """What `attribute` of a module is: ("module", None), ("decl", index) or ("", None)."""
        submodule = f"{module_name}.{attribute}"
        if submodule in self.by_module:
            return "module:" + submodule, None
        target = self.by_module.get(module_name)
        if target is None:
            return "", None
        found = self.modules[target].top.get(attribute)
        if found is None:
            # A name the package re-exports from its own imports.
            imported = self.modules[target].imports.get(attribute)
            if imported and imported[1] is not None and imported[0] in self.by_module:
                inner = self.modules[self.by_module[imported[0]]].top.get(imported[1])
                if inner is not None:
                    return "decl", inner
            return "", None
        return "decl", found

    def reference(self, index: int, module: _Module) -> None:
        count = self.refs
        class_stack: list[int | None] = []
        # self/cls names of the methods being walked, with their class
        self_names: list[tuple[str, int | None]] = []

        def through_module(module_name: str, attribute: str):
            """`attribute` of an imported module: a submodule, or an imported declaration (counted)."""
            what, found = self.lookup(module_name, attribute)
            if what.startswith("module:"):
                return ("module", what[len("module:"):])
            if found is None:
                return None
            count[(index, found, "import")] += 1
            return ("decl", found, "import")

        def resolve(node: ast.expr):
            """('module', name) | ('decl', index, resolution) | None, counting uses on the way."""
            if isinstance(node, ast.Name):
                if self_names and node.id == self_names[-1][0]:
                    return ("self", self_names[-1][1])
                if node.id in module.imports:
                    target_module, attribute = module.imports[node.id]
                    if attribute is None:
                        return ("module", target_module)
                    return through_module(target_module, attribute)
                if node.id in module.top:
                    found = module.top[node.id]
                    count[(index, found, "local")] += 1
                    return ("decl", found, "local")
                if node.id not in module.bound and node.id not in BUILTINS:
                    self.name_match(index, node.id)
                return None
            if isinstance(node, ast.Attribute):
                base = resolve(node.value)
                if base is None:
                    if node.attr not in BUILTIN_ATTRIBUTES:
                        self.name_match(index, node.attr)
                    return None
                if base[0] == "module":
                    return through_module(base[1], node.attr)
                owner = base[1]
                resolution = "local" if base[0] == "self" else base[2]
                member = self.member_of(owner, node.attr) if owner is not None else None
                if member is not None:
                    count[(index, member, resolution)] += 1
                    return ("decl", member, resolution)
                if base[0] == "self":
                    self.name_match(index, node.attr)
                return None
            for child in ast.iter_child_nodes(node):
                visit(child)
            return None

        def visit(node: ast.AST) -> None:
            if isinstance(node, (ast.Name, ast.Attribute)) and isinstance(getattr(node, "ctx", None), ast.Load):
                resolve(node)
                return
            if isinstance(node, ast.Attribute):  # a store or delete: its base is still used
                visit(node.value)
                return
            if isinstance(node, (ast.Import, ast.ImportFrom)):
                return
            if isinstance(node, ast.ClassDef):
                for child in node.bases + node.keywords + node.decorator_list:
                    visit(child)
                owner = self.class_index.get((index, node.lineno, node.name))
                class_stack.append(owner)
                for child in node.body:
                    visit(child)
                class_stack.pop()
                return
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
                for child in node.decorator_list + node.args.defaults + node.args.kw_defaults:
                    if child is not None:
                        visit(child)
                if node.returns:
                    visit(node.returns)
                in_class = bool(class_stack) and class_stack[-1] is not None
                pushed = in_class and node.args.args
                if pushed:
                    self_names.append((node.args.args[0].arg, class_stack[-1]))
                class_stack.append(None)  # nested functions are not in the class
                for child in node.body:
                    visit(child)
                class_stack.pop()
                if pushed:
                    self_names.pop()
                return
            for child in ast.iter_child_nodes(node):
                visit(child)

        visit(module.tree)

    def name_match(self, index: int, name: str) -> None:
        candidates = self.names.get(name)
        if not candidates:
            return
        if len(candidates) == 1:
            self.refs[(index, candidates[0], "unique")] += 1
        elif len(candidates) <= AMBIGUOUS_LIMIT:
            for candidate in candidates:
                self.refs[(index, candidate, "ambiguous")] += 1

    # -- the whole tree -----------------------------------------------------

    def run(self, db) -> IndexStats:
        started = time.perf_counter()
        stats = IndexStats()
        paths = _python_files(self.root, self.exclude, self.keep)
        show = self.progress is not None and len(paths) > 200
        last = started

        def tick(stage: str, done: int) -> None:
            nonlocal last
            now = time.perf_counter()
            if show and (now - last > 0.5 or done == len(paths)):
                last = now
                print(f"indexing {self.root}: {stage} {done}/{len(paths)} files", file=self.progress, flush=True)

        for number, path in enumerate(paths, 1):
            name, package = _module_name(path)
            try:
                tree = ast.parse((self.root / path).read_bytes(), filename=path)
            except (SyntaxError, ValueError, UnicodeDecodeError, RecursionError, OSError):
                tree = None
                stats.unparsable.append(path)
            self.by_module.setdefault(name, len(self.modules))
            self.modules.append(_Module(path, name, package, tree))
            tick("parsed", number)
        self.class_index: dict[tuple[int, int, str], int] = {}
        for index, module in enumerate(self.modules):
            if module.tree is not None:
                before = len(self.decls)
                self.declare(index, module)
                for decl_index in range(before, len(self.decls)):
                    decl = self.decls[decl_index]
                    if decl.kind == "class":
                        self.class_index[(index, decl.start, decl.name)] = decl_index
        self.names: dict[str, list[int]] = defaultdict(list)
        for decl_index, decl in enumerate(self.decls):
            if not is_test_path(self.modules[self.decl_file[decl_index]].path):
                self.names[decl.name].append(decl_index)
        for module in self.modules:
            if module.tree is not None:
                self.collect_imports(module)
        for number, module in enumerate(self.modules, 1):
            if module.tree is not None:
                self.reference(number - 1, module)
            tick("resolved", number)

        file_ids = db.add_files((module.path, LANGUAGE) for module in self.modules)
        db.add_resolved_language(LANGUAGE)
        decl_ids = db.add_symbols(
            (file_ids[self.decl_file[i]], d.name, d.fqn, d.kind, d.start, d.end, d.exported)
            for i, d in enumerate(self.decls))
        db.add_references((file_ids[source], decl_ids[target], resolution, n)
                          for (source, target, resolution), n in self.refs.items())
        stats.files, stats.declarations, stats.references = len(self.modules), len(self.decls), len(self.refs)
        stats.seconds = time.perf_counter() - started
        if show:
            print(f"indexed {stats.files} files, {stats.declarations} declarations, {stats.references} "
                  f"references in {stats.seconds:.1f} s", file=self.progress, flush=True)
        return stats


def index_tree(root, db, progress=sys.stderr, exclude=(), keep=()) -> IndexStats:
    """Index every `.py` file under `root` into `db` (a Database); returns counts.

    Files whose relative path matches a glob of `exclude` are skipped unless
    they match one of `keep`. Progress goes to `progress` (a text stream, or
    None) for trees of more than a few hundred files.
    """
    return _Indexer(Path(root), progress, exclude, keep).run(db)
