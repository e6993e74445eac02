"""JavaScript and TypeScript: what the query cannot say.

- Functions are "function" (a variable that holds a function or an arrow
  function too; a TypeScript overload signature is no definition), classes
  "class", interfaces "interface", type aliases "type", enums "enum" and
  their members "constant".  In a class, methods are "method" (a field
  holding an arrow function too), `constructor` is "constructor", getters
  and setters "property", other fields "field".  Module-level `const`s are
  "constant", other module-level variables "attribute"; variables inside
  functions and the methods of object literals are no declarations.
- fqn: the module's path without its suffix (`src/util/strings`; an
  `index` file is its folder), then namespaces and classes:
  `src/shapes.Point.area`.
- Exported: what the module exports: `export` declarations, the names of
  `export { a, b as c }` and `export default a`, and CommonJS's
  `module.exports = { a }`, `exports.a = ...`.  A class member is exported
  when its class is and it is not private (`#name`, TypeScript `private`
  and `protected`); interface and enum members with their type.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

from tarnwick.indexer.languages._extract import TYPE_KINDS, Rules, Site, text

_FUNCTIONS = frozenset({"arrow_function", "function_expression", "function", "generator_function"})
_CLASSES = frozenset({"class", "class_expression"})
_SUFFIXES = (".d.ts", ".d.mts", ".d.cts", ".tsx", ".jsx", ".mjs", ".cjs", ".mts", ".cts", ".ts", ".js")
# Nodes between a top-level declaration and the module.
_TOP = frozenset({"program", "export_statement", "lexical_declaration", "variable_declaration"})


def _module_exports(root: Any, source: bytes) -> set[str]:
    """The top-level names exported by an export clause or by CommonJS assignments."""
    names: set[str] = set()
    for statement in root.named_children:
        if statement.type == "export_statement":
            for part in statement.named_children:
                if part.type == "export_clause":
                    for specifier in part.named_children:
                        name = specifier.child_by_field_name("name")
                        if name is not None:
                            names.add(text(source, name))
                elif part.type == "identifier":  # export default name;
                    names.add(text(source, part))
        elif statement.type == "expression_statement" and statement.named_child_count:
            assignment = statement.named_children[0]
            if assignment.type != "assignment_expression":
                continue
            left, right = assignment.child_by_field_name("left"), assignment.child_by_field_name("right")
            target = text(source, left) if left is not None else ""
            if target in ("module.exports", "exports") and right is not None:
                if right.type == "identifier":
                    names.add(text(source, right))
                for item in right.named_children if right.type == "object" else ():
                    if item.type == "shorthand_property_identifier":
                        names.add(text(source, item))
                    elif item.type == "pair":
                        value = item.child_by_field_name("value")
                        if value is not None and value.type == "identifier":
                            names.add(text(source, value))
            elif (
                target.startswith(("exports.", "module.exports.")) and right is not None and right.type == "identifier"
            ):
                names.add(text(source, right))
    return names


def _exported_statement(node: Any) -> bool:
    """Whether the declaration stands in an `export` statement."""
    parent = node.parent
    while parent is not None and parent.type in ("lexical_declaration", "variable_declaration"):
        parent = parent.parent
    return parent is not None and parent.type == "export_statement"


def _private(node: Any, source: bytes, name_node: Any) -> bool:
    if name_node.type == "private_property_identifier":
        return True
    return any(
        child.type == "accessibility_modifier" and text(source, child) in ("private", "protected")
        for child in node.children
    )


class JavaScriptRules(Rules):
    def start(self, path: str, source: bytes, root: Any) -> None:
        self._exports: set[str] | None = None
        self._root = root

    def exports(self, source: bytes) -> set[str]:
        if self._exports is None:
            self._exports = _module_exports(self._root, source)
        return self._exports

    def names(self, kind: str, node: Any) -> Iterable[Any]:
        if node.type == "field_definition":
            name = node.child_by_field_name("property")
            return [name] if name is not None else []
        return super().names(kind, node)

    def prefix(self, path: str, source: bytes, root: Any) -> str:
        for suffix in _SUFFIXES:
            if path.endswith(suffix):
                path = path[: -len(suffix)]
                break
        if path.endswith("/index"):
            path = path[: -len("/index")]
        return path

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        node, kind = site.node, site.kind
        owner = site.chain[-1] if site.chain and site.chain[-1].kind in TYPE_KINDS else None
        if kind == "attribute":
            # A variable: a declaration at module level (or in a namespace) only.
            parent = node.parent
            while parent is not None and parent.type in _TOP:
                parent = parent.parent
            top = parent is None or (parent.type == "statement_block" and site.chain and site.chain[-1].scope)
            if not top:
                return False
            value = node.child_by_field_name("value")
            value_type = value.type if value is not None else ""
            if value_type in _FUNCTIONS:
                site.kind = "function"
            elif value_type in _CLASSES:
                site.kind = "class"
                site.container = True
            elif node.parent is not None and text(source, node.parent).startswith("const"):
                site.kind = "constant"
        elif kind == "function" and node.type == "function_signature":
            site.definition = False
        elif kind in ("method", "field") and owner is None:
            return False  # a method of an object literal, not of a class
        elif kind in ("method", "field"):
            value = node.child_by_field_name("value")
            if kind == "field" and value is not None and value.type in _FUNCTIONS:
                site.kind = "method"
            elif kind == "method" and node.type == "method_definition":
                if site.name == "constructor":
                    site.kind = "constructor"
                elif any(child.type in ("get", "set") for child in node.children):
                    site.kind = "property"
            if node.type == "method_signature" and owner.kind == "class":
                site.definition = False  # an overload signature in a class
            site.exported = owner.exported and not _private(node, source, site.name_node)
            return True
        if owner is not None:
            site.exported = owner.exported
        elif site.chain:
            site.exported = _exported_statement(node)
        else:
            site.exported = _exported_statement(node) or site.name in self.exports(source)
        return True
