"""Reads files of the repository checkout that a wiki page is written from."""

from __future__ import annotations

import codecs
import os
from collections.abc import Callable

from tarnwick.utils.source_text import PYTHON_SUFFIXES, python_source_text


def checkout_reader(root: str | os.PathLike[str]) -> Callable[[str], list[str] | None]:
    """Return ``read_lines(path)``: the lines of ``root/path``, or None.

    ``path`` is repository-relative with "/" separators.  The lines are those
    of ``str.splitlines()`` (no line ends).  Python sources are decoded as
    Python does (a coding line such as ``# -*- coding: latin-1 -*-`` is
    honoured), other files as UTF-8; a UTF-8 byte order mark is dropped.
    None stands for a file that cannot be read as text: missing, a directory,
    not permitted, not valid in its encoding, or a path that is absolute or
    climbs out of the checkout with "..".  Those cases never raise.
    """
    base = os.fspath(root)

    def read_lines(path: str) -> list[str] | None:
        # Plain string operations: this runs once per file of every page.
        if path.startswith("/") or ".." in path.split("/"):
            return None
        try:
            with open(os.path.join(base, path), "rb") as file:
                data = file.read()
            text = python_source_text(data) if path.endswith(PYTHON_SUFFIXES) and _may_name_coding(data) else None
            if text is None:  # UTF-8 without a byte order mark; the codec that drops one is written in Python
                text = data[3:].decode() if data.startswith(codecs.BOM_UTF8) else data.decode()
        except (OSError, UnicodeDecodeError, SyntaxError, ValueError):
            # ValueError covers paths the OS cannot even express (a NUL byte);
            # SyntaxError a coding line that names no known encoding.
            return None
        return text.splitlines()

    return read_lines


def _may_name_coding(data: bytes) -> bool:
    """Whether a Python source's first two lines could hold a coding line; without one, its
    text is its bytes as UTF-8, a byte order mark dropped, and the slower reading that looks
    for the coding line is skipped."""
    end = data.find(b"\n", data.find(b"\n") + 1)
    return data.find(b"coding", 0, len(data) if end < 0 else end) >= 0
