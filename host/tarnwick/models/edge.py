"""Resolutions of the references (edges) that the index records.

A reference is tied to its target in one of these ways:

- ``"import"``: the source imports the target's module and names it;
- ``"local"``: the target is declared in the same file or scope;
- ``"unique"``: the name matches exactly one production declaration;
- ``"ambiguous"``: the name matches several declarations;
- ``"legacy"``: recorded by an older indexer that did not say how.
"""

# Resolutions that are evidence of use on their own: an import or a local
# binding ties the reference to its target.
EVIDENCE_RESOLUTIONS: frozenset[str] = frozenset({"import", "local"})

# Resolutions good enough to count a reference as a use of its target.  A
# unique name match is trusted; an ambiguous one is only a name collision, and
# legacy edges carry no information about how they were resolved.
TRUSTED_RESOLUTIONS: frozenset[str] = frozenset({"import", "local", "unique"})
