"""Indexers that fill the index database from a source tree."""

from tarnwick.indexer.python_tree import IndexStats, index_tree

__all__ = ["IndexStats", "index_tree"]
