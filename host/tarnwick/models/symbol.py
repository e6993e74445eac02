"""Kinds of declarations (symbols) that the index records."""

# Declarations that can be called: their bodies are code rather than data.
CALLABLE_KINDS: frozenset[str] = frozenset({"function", "method", "constructor"})
