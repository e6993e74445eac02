"""Decodes Python source files as Python itself does."""

from __future__ import annotations

import io
import tokenize

PYTHON_SUFFIXES = (".py", ".pyw", ".pyi")


def python_source_text(data: bytes) -> str:
    """The text of a Python source file: decoded in the encoding its coding
    line names (``# -*- coding: latin-1 -*-``), else as UTF-8; a UTF-8 byte
    order mark is dropped.

    Raises ``UnicodeDecodeError`` for bytes that are not valid in that
    encoding, and ``SyntaxError`` for a coding line that names an unknown
    encoding or contradicts the byte order mark.
    """
    try:
        encoding, _ = tokenize.detect_encoding(io.BytesIO(data).readline)
    except SyntaxError:
        # Undecodable first lines are reported as a bad declaration; name the byte instead.
        data.decode("utf-8")
        raise
    return data.decode(encoding)
