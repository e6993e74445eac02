"""Vocabulary of the index model: resolutions of references and kinds of declarations."""
