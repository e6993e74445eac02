"""What a source file says it is for, taken from its opening docstring or comment."""

from __future__ import annotations

import re
from collections.abc import Iterable

# PEP 263 encoding declarations and editor modelines: they open many files
# but say nothing about them.
_PRAGMA = re.compile(r"^\s*(?:#|//|--|/\*).*(?:coding[:=]|-\*-.*-\*-|\bvim?:)")

# A Python docstring opening: optional r/u prefix, then a triple quote.
_DOCSTRING = re.compile(r"""^\s*[rRuU]?(\"\"\"|''')""")

# "#" starts a comment when it stands alone or is followed by a space or more
# "#"s; "#include", "#define" and the like are preprocessor lines instead.
_HASH_COMMENT = re.compile(r"^\s*#(?:#|\s|$)")

# Lines without a single letter or digit (blank, "----", "****") separate
# paragraphs.
_WORD = re.compile(r"\w")


def _as_text(line: object) -> str:
    if isinstance(line, str):
        text = line
    elif isinstance(line, (bytes, bytearray)):
        text = bytes(line).decode("utf-8", errors="replace")
    elif line is None:
        text = ""
    else:
        text = str(line)
    return text.rstrip("\r\n")


def _first_paragraph(lines: Iterable[str]) -> str:
    words: list[str] = []
    for line in lines:
        if _WORD.search(line):
            words.extend(line.split())
        elif words:
            break
    return " ".join(words)


def _docstring(lines: list[str], start: int, quote: str, body: str) -> list[str]:
    """The text lines of the docstring whose opening quote ends ``body`` on line ``start``."""
    if quote in body:
        return [body[: body.index(quote)]]
    text = [body]
    for line in lines[start + 1 :]:
        if quote in line:
            text.append(line[: line.index(quote)])
            break
        text.append(line)
    # An unterminated docstring runs to the end of the file.
    return text


def _block_comment(lines: list[str], start: int) -> list[str]:
    """The text lines of the ``/* ... */`` comment opening on line ``start``."""
    text = []
    for index in range(start, len(lines)):
        line = lines[index].strip()
        if index == start:
            line = line[2:].lstrip("*!")
        elif line.startswith("*") and not line.startswith("*/"):
            line = line[1:]
        end = line.find("*/")
        if end >= 0:
            text.append(line[:end])
            break
        text.append(line)
    return text


def _line_comments(lines: list[str], start: int, prefix: str) -> list[str]:
    """The text of the run of ``prefix`` comment lines that begins on line ``start``."""
    text = []
    for line in lines[start:]:
        if prefix == "#":
            if not _HASH_COMMENT.match(line):
                break
        elif not line.lstrip().startswith(prefix):
            break
        body = line.lstrip().lstrip(prefix[0])
        if prefix == "//":
            body = body.removeprefix("!")  # Rust inner doc comments: //!
        text.append(body)
    return text


def _comment(lines: list[str], start: int) -> list[str]:
    if start >= len(lines):
        return []
    head = lines[start].lstrip()
    if head.startswith("/*"):
        return _block_comment(lines, start)
    if head.startswith("//"):
        return _line_comments(lines, start, "//")
    if head.startswith("--"):
        return _line_comments(lines, start, "--")
    if _HASH_COMMENT.match(head):
        return _line_comments(lines, start, "#")
    return []


def file_summary(lines: Iterable[str]) -> str:
    """The first paragraph of the file's own statement of purpose, as one line.

    That statement is the module docstring (a triple-quoted string that opens
    the file, possibly after a shebang, blank lines and comments) or, failing
    that, the comment block that opens the file (``#``, ``//``, ``/* */`` or
    ``--`` style).  Shebangs, encoding declarations and editor modelines are
    skipped.  The paragraph ends at the first line without a letter or digit;
    its words are joined with single spaces.  Returns "" when the file opens
    with neither, and never raises on odd input such as no lines or an
    unterminated docstring.
    """
    if lines is None:
        return ""
    if isinstance(lines, str):
        lines = lines.splitlines()
    text = [_as_text(line) for line in lines]
    if not text:
        return ""
    text[0] = text[0].removeprefix("\ufeff")

    start = 1 if text[0].startswith("#!") else 0
    while start < len(text) and (not text[start].strip() or _PRAGMA.match(text[start])):
        start += 1

    # A docstring wins over the comments before it (licence headers, notes).
    index = start
    while index < len(text) and (not text[index].strip() or text[index].lstrip().startswith("#")):
        index += 1
    if index < len(text):
        opening = _DOCSTRING.match(text[index])
        if opening:
            body = text[index][opening.end() :]
            return _first_paragraph(_docstring(text, index, opening.group(1), body))

    return _first_paragraph(_comment(text, start))
