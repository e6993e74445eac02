"""Sibling modules of the indexing tool that the ``scope`` extension module imports.

These are small, self-contained implementations: enough of the index model,
the SQLite index, the path filter and the wiki worker's helpers to load and
test grounding facts without the rest of the tool.
"""
