"""Go: what the query cannot say.

- Functions are "function", methods (with a receiver, or listed in an
  interface) "method"; a named struct type is "struct", an interface
  "interface", any other named type or alias "type"; struct fields are
  "field", constants "constant" and package-level variables "attribute".
- fqn: the folder of the file (`net/http`, the package's import path
  within the tree; the package name for a file at the root), then the
  receiver or enclosing type, then the name: `net/http.Server.Close`.
- Exported: a name that starts with a capital letter, as the compiler rules.
"""

from __future__ import annotations

from typing import Any

from tarnwick.indexer.languages._extract import Rules, Site, text

_TYPE_KINDS = {"struct_type": "struct", "interface_type": "interface"}
# Where a `var` or `const` is no longer at package level.
_BODIES = frozenset({"block", "function_declaration", "method_declaration", "func_literal"})


def _receiver_type(node: Any, source: bytes) -> str | None:
    """The type a method's receiver names: `Point` for `(p *Point)` or `(p Point[T])`."""
    receiver = node.child_by_field_name("receiver")
    if receiver is None:
        return None
    for parameter in receiver.named_children:
        kind = parameter.child_by_field_name("type")
        while kind is not None and kind.type in ("pointer_type", "generic_type", "parenthesized_type"):
            inner = kind.child_by_field_name("type")
            kind = inner if inner is not None else (kind.named_children[0] if kind.named_child_count else None)
        if kind is not None and kind.type == "type_identifier":
            return text(source, kind)
    return None


class GoRules(Rules):
    def prefix(self, path: str, source: bytes, root: Any) -> str:
        folder = path.rpartition("/")[0]
        if folder:
            return folder
        for child in root.named_children:
            if child.type == "package_clause" and child.named_child_count:
                return text(source, child.named_children[0])
        return ""

    def bound_names(self, source: bytes, root: Any) -> list[bytes]:
        """The names of the imported packages: `fmt`, `url` for "net/url", an alias."""
        names = []
        for declaration in root.named_children:
            if declaration.type != "import_declaration":
                continue
            clauses = declaration.named_children
            if clauses and clauses[0].type == "import_spec_list":
                clauses = clauses[0].named_children
            for clause in clauses:
                alias, imported = clause.child_by_field_name("name"), clause.child_by_field_name("path")
                if alias is not None:
                    names.append(source[alias.start_byte : alias.end_byte])
                elif imported is not None:
                    names.append(source[imported.start_byte : imported.end_byte].strip(b'"`').rpartition(b"/")[2])
        return names

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        node = site.node
        if site.kind == "type" and node.type == "type_spec":
            site.kind = _TYPE_KINDS.get(getattr(node.child_by_field_name("type"), "type", ""), "type")
            site.container = site.kind != "type"
        elif site.kind in ("constant", "attribute"):
            parent = node.parent
            while parent is not None and parent.type != "source_file":
                if parent.type in _BODIES:
                    return False
                parent = parent.parent
        elif site.kind == "method" and node.type == "method_declaration":
            receiver = _receiver_type(node, source)
            site.qualifier = [receiver] if receiver else []
        site.exported = site.name[:1].isupper()
        return True
