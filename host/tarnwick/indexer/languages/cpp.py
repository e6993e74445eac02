"""C++: what the query cannot say, on top of the C rules.

- Classes are "class", structures and unions "struct", enumerations (also
  `enum class`) "enum", typedefs and `using X = ...` aliases "type".
  Functions inside a class, and the out-of-line definitions `Shape::area`,
  are "method"; one named after its class is a "constructor" (a destructor
  is the method `~Shape`).  Data members are "field", a method declared in
  its class but defined elsewhere is no definition there.
- fqn: the namespaces and classes that hold the declaration, then its
  name, joined by "." (`geo.Shape.area`); an out-of-line definition is
  placed by its qualifier (`geo::Shape::area` is `geo.Shape.area`).
- Exported: at file scope as in C (everything in a header, and what is not
  `static` in a source file), never inside an unnamed namespace; a member
  when its class is exported and the member is public (`struct` members are
  public unless said otherwise, `class` members private).
"""

from __future__ import annotations

from typing import Any

from tarnwick.indexer.languages._extract import TYPE_KINDS, Site, text
from tarnwick.indexer.languages.c import CRules, is_prototype

_HEADERS = (".h", ".hh", ".hpp", ".hxx", ".h++", ".inl", ".ipp", ".tcc")
_NAMESPACE_NAMES = frozenset(
    {"namespace_identifier", "identifier", "nested_namespace_specifier", "qualified_identifier"}
)
# Nodes whose children may define namespaces.
_NAMESPACE_HOLDERS = frozenset(
    {"namespace_definition", "declaration_list", "linkage_specification", "preproc_if", "preproc_ifdef", "preproc_else"}
)


def qualifier(source: bytes, name_node: Any, stop: Any) -> list[str]:
    """The scopes written before a qualified name (`a::B::f` gives a, B)."""
    scopes: list[str] = []
    node = name_node.parent
    while node is not None and node.start_byte >= stop.start_byte and node != stop:
        if node.type == "qualified_identifier":
            scope = node.child_by_field_name("scope")
            if scope is not None:
                if scope.type == "template_type":
                    scope = scope.child_by_field_name("name") or scope
                scopes.append(text(source, scope))
        node = node.parent
    return scopes[::-1]


def _access(member: Any, source: bytes, default: str) -> str:
    """The access (public, protected, private) a class member is declared under."""
    while member.parent is not None and member.parent.type != "field_declaration_list":
        member = member.parent
    node = member.prev_sibling
    while node is not None:
        if node.type == "access_specifier":
            return text(source, node).strip()
        node = node.prev_sibling
    return default


def _in_unnamed_namespace(node: Any) -> bool:
    parent = node.parent
    while parent is not None:
        if parent.type == "namespace_definition" and parent.child_by_field_name("name") is None:
            return True
        parent = parent.parent
    return False


class CppRules(CRules):
    plain_members = True

    headers = _HEADERS

    def chain_names(self, site: Site) -> list[str]:
        names = [outer.name.replace("::", ".") for outer in site.chain]
        return names + site.qualifier

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        node, name_node = site.node, site.name_node
        owner = site.chain[-1] if site.chain and site.chain[-1].kind in TYPE_KINDS else None
        site.qualifier = qualifier(source, name_node, node) if name_node is not None else []
        if owner is not None and site.kind in ("declaration", "field", "function", "method"):
            # A member of a class: a method (declared or defined here), a constructor or a field.
            if site.kind in ("declaration", "field") and not is_prototype(name_node):
                if site.kind == "declaration":
                    return False
                site.kind = "field"
            else:
                site.definition = node.type == "function_definition"
                site.kind = "constructor" if site.name == owner.name else "method"
            default = "private" if owner.node.type == "class_specifier" else "public"
            site.exported = owner.exported and _access(node, source, default) == "public"
            return True
        if not super().decide(site, path, source):
            return False
        if site.qualifier and site.kind in ("function", "attribute", "constant"):
            if site.kind == "function":
                scope = site.qualifier[-1]
                if scope in self.namespaces(source):
                    return True
                site.kind = "constructor" if site.name == scope else "method"
            else:
                site.kind = "field"
        if site.kind in TYPE_KINDS and site.chain and site.chain[-1].kind in TYPE_KINDS:
            # A nested type: public or not as any member.
            owner = site.chain[-1]
            default = "private" if owner.node.type == "class_specifier" else "public"
            site.exported = owner.exported and _access(node, source, default) == "public"
        elif site.exported and _in_unnamed_namespace(node):
            site.exported = False
        return True

    def start(self, path: str, source: bytes, root: Any) -> None:
        self._root = root
        self._namespaces: set[str] | None = None

    def namespaces(self, source: bytes) -> set[str]:
        """The namespaces the file names (defines, or brings in with `using namespace`)."""
        if self._namespaces is None:
            found = {"std"}
            stack = [self._root]
            while stack:
                for child in stack.pop().named_children:
                    kind = child.type
                    if kind == "namespace_definition" or kind == "using_declaration":
                        for part in child.named_children:
                            if part.type in _NAMESPACE_NAMES:
                                found.update(text(source, part).split("::"))
                    if kind in _NAMESPACE_HOLDERS:
                        stack.append(child)
            self._namespaces = found
        return self._namespaces
