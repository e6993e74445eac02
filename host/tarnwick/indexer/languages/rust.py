"""Rust: what the query cannot say.

- Functions are "function", those of an `impl` block or a trait "method"
  (`macro_rules!` macros are functions too); structures and unions
  "struct", enumerations "enum" and their variants "constant", traits
  "interface", type aliases "type", `const` and `static` items "constant"
  (`static mut` ones "attribute"), fields "field".
- fqn: the module path (the crate's folder, or `crate` for a crate at the
  root, then the file's modules below `src/`: `src/net/tcp.rs` is
  `crate.net.tcp`; `mod.rs`, `lib.rs` and `main.rs` are their folder),
  then inline modules and the type of the `impl` block: `crate.net.tcp.Stream.connect`.
- Exported: items marked `pub` (in any form but `pub(self)`); enum
  variants, trait items and the methods of a trait's `impl` with their
  type or trait; a macro marked `#[macro_export]`.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

from tarnwick.indexer.languages._extract import Rules, Site, text

_ROOT_FILES = frozenset({"mod", "lib", "main"})


def _visibility(node: Any, source: bytes) -> bool:
    for child in node.children:
        if child.type == "visibility_modifier":
            return text(source, child).replace(" ", "") != "pub(self)"
    return False


class RustRules(Rules):
    def names(self, kind: str, node: Any) -> Iterable[Any]:
        if node.type != "impl_item":
            return super().names(kind, node)
        # The type an `impl` block is for: `Point`, `Wrapper<T>`, `geo::Point`.
        name = node.child_by_field_name("type")
        while name is not None and name.type != "type_identifier":
            name = name.child_by_field_name("type" if name.type == "generic_type" else "name")
        return [name] if name is not None else []

    def prefix(self, path: str, source: bytes, root: Any) -> str:
        parts = path.removesuffix(".rs").split("/")
        if "src" in parts[:-1]:
            at = len(parts) - 1 - parts[:-1][::-1].index("src") - 1
            crate = parts[at - 1] if at > 0 else "crate"
            parts = [crate, *parts[at + 1 :]]
        if len(parts) > 1 and parts[-1] in _ROOT_FILES:
            parts.pop()
        return ".".join(parts)

    def decide(self, site: Site, path: str, source: bytes) -> bool:
        node = site.node
        owner = site.chain[-1] if site.chain else None
        if site.kind == "constant" and node.type == "static_item":
            if any(child.type == "mutable_specifier" for child in node.children):
                site.kind = "attribute"
        if node.type == "macro_definition":
            previous = node.prev_named_sibling
            site.exported = (
                previous is not None
                and previous.type == "attribute_item"
                and (b"macro_export" in source[previous.start_byte : previous.end_byte])
            )
        elif owner is not None and (owner.kind in ("enum", "interface") and site.kind != "field"):
            site.exported = owner.exported
        elif owner is not None and owner.scope and owner.node.child_by_field_name("trait") is not None:
            site.exported = True
        else:
            site.exported = _visibility(node, source)
        return True
