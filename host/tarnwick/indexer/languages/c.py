"""C: what the query cannot say.

- Functions are "function" (a function-like macro too); a prototype is a
  declaration that is no definition, and a file's prototype and definition
  of one function are one declaration.  File-scope variables are
  "constant" when `const`, else "attribute"; an `extern` one is no
  definition.  Structures and unions are "struct", enumerations "enum",
  typedefs "type" (a typedef of an unnamed structure or enumeration is that
  "struct" or "enum", under the typedef's name); fields are "field";
  enumerators and object-like macros "constant".
- fqn: the name, after the name of the structure, union or enumeration it
  lies in (`page.flags`, `zone_type.ZONE_DMA`): C has one namespace per
  program, and the file is the declaration's path already.
- Exported: everything declared in a header (`.h`); in a `.c` file the
  functions and variables that are not `static`.  Types, enumerators and
  macros of a `.c` file are seen by that file alone.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

from tarnwick.indexer.languages._extract import Rules, Site, text

# Where a declaration is at file scope: its parents up to the root are these.
_FILE_SCOPE = frozenset(
    {
        "translation_unit",
        "preproc_if",
        "preproc_ifdef",
        "preproc_else",
        "preproc_elif",
        "preproc_elifdef",
        "linkage_specification",
        "declaration_list",
        "namespace_definition",
        "template_declaration",
    }
)
# Words that a misread declaration may take for its name.
_KEYWORDS = frozenset(
    "auto break case char const continue default do double else enum extern float for goto if inline int long"
    " register restrict return short signed sizeof static struct switch typedef typeof union unsigned void"
    " volatile while".split()
)
# Declarations whose names are found in their declarators.
_DECLARATORS = frozenset({"function_definition", "declaration", "field_declaration", "type_definition"})
_NAMES = frozenset({"identifier", "field_identifier", "type_identifier", "destructor_name", "operator_name"})
# Declarators whose name is their `name` (C++: `ns::f`, `f<int>`).
_NAMED = frozenset({"qualified_identifier", "template_function", "template_method"})
# Declarators that wrap another without a `declarator` field.
_WRAPPERS = frozenset({"parenthesized_declarator", "reference_declarator"})


def declarator_name(node: Any) -> Any:
    """The identifier a declarator declares, under pointers, arrays,
    parentheses, references, prototypes, initialisers and qualifiers;
    None when there is none."""
    while node is not None:
        kind = node.type
        if kind in _NAMES:
            return node
        if kind in _NAMED:
            inner = node.child_by_field_name("name")
        else:
            inner = node.child_by_field_name("declarator")
            if inner is None and kind in _WRAPPERS:
                inner = node.named_children[0] if node.named_child_count else None
        node = inner
    return None


def storage(node: Any, source: bytes) -> set[str]:
    """The storage classes written on a declaration (`static`, `extern`, ...)."""
    return {text(source, child) for child in node.children if child.type == "storage_class_specifier"}


def at_file_scope(node: Any) -> bool:
    parent = node.parent
    while parent is not None:
        if parent.type not in _FILE_SCOPE:
            return False
        parent = parent.parent
    return True


def is_prototype(name_node: Any) -> bool:
    """Whether the name is that of a function being declared (not a pointer to one)."""
    parent = name_node.parent
    return parent is not None and parent.type == "function_declarator"


def _annotated_name(site: Site, source: bytes) -> bool:
    """Finds the name of a file-scope declaration that annotation macros
    (`__read_mostly`, `__initdata`, `__init`), which the grammar cannot
    know, made it misread; False for a declaration that is no more than a
    misread annotation (`void __init` before a function's name)."""
    node, name = site.node, site.name
    if name in _KEYWORDS:
        return False
    if not node.has_error:
        kind = node.child_by_field_name("type")
        if name.startswith("__") and kind is not None and kind.child_by_field_name("body") is not None:
            return False  # `struct page { ... } __packed;`
        if name.startswith("__"):
            # `unsigned long jiffies __read_mostly;` reads as a variable
            # `__read_mostly` of type `unsigned long jiffies`.
            inner = node.child_by_field_name("type")
            inner = (
                inner.child_by_field_name("type")
                if inner is not None and inner.type == "sized_type_specifier"
                else None
            )
            if inner is not None and inner.type == "type_identifier":
                site.name_node, site.name = inner, text(source, inner)
        return True
    if name.startswith("__"):
        if any(child.is_missing for child in node.children):
            return False  # its end was made up: an annotation read as a declaration
        # `static int count __read_mostly;`: the name is left in an error node.
        for child in node.children:
            if child.type == "ERROR" and child.named_child_count:
                last = child.named_children[-1]
                if last.type == "identifier":
                    site.name_node, site.name = last, text(source, last)
                    return True
        return False
    return True


class CRules(Rules):
    headers: tuple[str, ...] = (".h",)

    def names(self, kind: str, node: Any) -> Iterable[Any]:
        if node.type not in _DECLARATORS:
            return super().names(kind, node)
        names = []
        for declarator in node.children_by_field_name("declarator"):
            name = declarator_name(declarator)
            if name is not None:
                names.append(name)
        return names

    def chain_names(self, site: Site) -> list[str]:
        return [site.chain[-1].name] if site.chain else []

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        header = path.endswith(self.headers)
        kind, node = site.kind, site.node
        if kind == "declaration":
            if not at_file_scope(node) or not _annotated_name(site, source):
                return False
            classes = storage(node, source)
            if "typedef" in classes:
                return False
            if is_prototype(site.name_node):
                if not any(character.islower() for character in site.name):
                    # `DEFINE_MUTEX(lock);`, `LIST_HEAD(list);`: a macro used at
                    # file scope reads as a prototype; it declares nothing.
                    return False
                site.kind = "function"
                site.definition = False
            else:
                const = any(c.type == "type_qualifier" and text(source, c) == "const" for c in node.children)
                site.kind = "constant" if const else "attribute"
                site.definition = "extern" not in classes
            site.exported = header or "static" not in classes
        elif kind == "function" and node.type == "function_definition":
            if site.name in _KEYWORDS:
                return False
            site.exported = header or "static" not in storage(node, source)
        elif kind == "field":
            if is_prototype(site.name_node):
                return False
            site.exported = site.chain[-1].exported if site.chain else header
        elif kind == "type":
            inner = node.child_by_field_name("type")
            body = inner is not None and inner.child_by_field_name("body") is not None
            if body and inner.child_by_field_name("name") is None:
                site.kind = "enum" if inner.type == "enum_specifier" else "struct"
            else:
                site.container = False
            site.exported = header
        else:
            site.exported = header
        return True
