"""Java: what the query cannot say.

- Classes and records are "class", interfaces and annotation types
  "interface", enums "enum" and their constants "constant"; methods
  "method", constructors "constructor"; fields "field", but `static final`
  fields and the fields of an interface "constant".
- fqn: the package, then the enclosing classes, then the name:
  `com.example.geo.Shape.area`.
  Members of anonymous classes are no declarations.
- Exported: what is `public`, and the members of a public interface,
  annotation type or enum's constants; a member only when its class is
  exported too.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

from tarnwick.indexer.languages._extract import Rules, Site, text


def _modifiers(node: Any, source: bytes) -> set[str]:
    for child in node.children:
        if child.type == "modifiers":
            return set(text(source, child).split())
    return set()


class JavaRules(Rules):
    plain_members = True

    def prefix(self, path: str, source: bytes, root: Any) -> str:
        for child in root.named_children:
            if child.type == "package_declaration":
                for part in child.named_children:
                    if part.type in ("scoped_identifier", "identifier"):
                        return text(source, part)
        return ""

    def names(self, kind: str, node: Any) -> Iterable[Any]:
        if node.type not in ("field_declaration", "constant_declaration"):
            return super().names(kind, node)
        names = [declarator.child_by_field_name("name") for declarator in node.children_by_field_name("declarator")]
        return [name for name in names if name is not None]

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        node = site.node
        body = node.parent
        if body is not None and body.parent is not None and body.parent.type == "object_creation_expression":
            return False  # a member of an anonymous class
        modifiers = _modifiers(node, source)
        owner = site.chain[-1] if site.chain else None
        implicit = owner is not None and owner.kind == "interface"
        if site.kind == "field" and ({"static", "final"} <= modifiers or implicit):
            site.kind = "constant"
        if site.kind == "constant" and node.type == "enum_constant":
            site.exported = owner is not None and owner.exported
        else:
            site.exported = "public" in modifiers or implicit
            if owner is not None:
                site.exported = site.exported and owner.exported
        return True
