"""What a source file says it is for, taken from its opening docstring or comment."""

from __future__ import annotations

import re
from collections.abc import Iterable
from itertools import repeat

from tarnwick.workers.wiki.comment_summary import comment_summary

# A Python docstring opening: optional r/u prefix, then a triple quote.
_DOCSTRING = re.compile(r"""^\s*[rRuU]?(\"\"\"|''')""")

# "#" starts a comment when it stands alone or is followed by a space or more
# "#"s; "#include", "#define" and the like are preprocessor lines instead.
_HASH_COMMENT = re.compile(r"^\s*#(?:#|\s|$)")

# Lines without a single letter or digit (blank, "----", "****") separate
# paragraphs.
_WORD = re.compile(r"\w")

# Comment lines meant for tools, not readers: encoding declarations, editor
# modelines, type checkers' and linters' directives.
_PRAGMA = re.compile(
    r"""^\s*(?: -\*- | (?:file)?(?:en)?coding[:=] | .*\bvim?: | noqa\b | nosec\b | SPDX-License-Identifier:
              | (?:mypy|type|pylint|pyright|flake8|ruff|isort|fmt|pragma)\s*: )""",
    re.VERBOSE | re.IGNORECASE,
)

# Paragraphs of licence and copyright headers, and of authorship fields.
_LICENCE = re.compile(
    r"""\bcopyright\b | © | \(c\)\s*\d | ^\s*(?:author|contact|maintainer|created|date|version)s?\s*:
        | \blicen[cs]ed\s+(?:under|to)\b | \ball\s+rights\s+reserved\b
        | \bpermission\s+is\s+hereby\s+granted\b | \bfree\s+software\b | \bwithout\s+(?:any\s+)?warrant(?:y|ies)\b""",
    re.VERBOSE | re.IGNORECASE,
)

# The end of a sentence: ".", "!" or "?" before white space, but not after
# "e.g." or "i.e.".
_SENTENCE_END = re.compile(r"(?<!\be\.g\.)(?<!\bi\.e\.)(?<=[.!?])\s")


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


# Lines read before the rest of a file is looked at.
_FIRST_LINES = 64


class _Prefix(list):
    """The first lines of a longer file."""


class _BeyondPrefix(Exception):
    """The summary depends on lines after the prefix."""


def _at_end(lines: list[str]) -> None:
    """Called where a scan runs out of lines: only the file's real end is one."""
    if isinstance(lines, _Prefix):
        raise _BeyondPrefix


def _texts(lines: list | tuple) -> list[str]:
    """The lines as text, as `_as_text` makes them.  Lines that are all str
    (what a reader of the checkout returns) take one pass in C."""
    try:
        return list(map(str.rstrip, lines, repeat("\r\n", len(lines))))
    except TypeError:  # some line is no str
        return [_as_text(line) for line in lines]


def _paragraphs(lines: Iterable[str]) -> list[list[str]]:
    """The runs of lines that hold a letter or a digit."""
    found: list[list[str]] = [[]]
    for line in lines:
        if _WORD.search(line):
            found[-1].append(line)
        elif found[-1]:
            found.append([])
    return [paragraph for paragraph in found if paragraph]


# A summary is at most this many characters: a longer first sentence is cut
# after its last word that fits, and "…" marks the cut.
MOST_CHARS = 400

# Characters of a paragraph looked at for its first sentence: beyond them (a
# generated file's one huge comment line, say) the summary is cut anyway.
_SCANNED_CHARS = 4 * MOST_CHARS


def _first_sentence(paragraph: list[str]) -> str:
    scanned, size = [], 0
    for line in paragraph:
        scanned.append(line[:_SCANNED_CHARS])
        size += len(scanned[-1]) + 1
        if size > _SCANNED_CHARS:
            break
    text = " ".join(" ".join(scanned).split())
    end = _SENTENCE_END.search(text)
    sentence = text[: end.start()] if end else text
    if len(sentence) <= MOST_CHARS:
        return sentence
    cut = sentence.rfind(" ", 0, MOST_CHARS - 1)
    return sentence[: cut if cut > 0 else MOST_CHARS - 2] + " …"


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
    else:
        _at_end(lines)
    # An unterminated docstring runs to the end of the file.
    return text


def _block_comment(lines: list[str], start: int) -> tuple[list[str], int]:
    """The text lines of the ``/* ... */`` comment opening on line ``start``, and the line after it."""
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
            return text, index + 1
        text.append(line)
    _at_end(lines)
    return text, len(lines)


def _line_comment_body(line: str) -> str | None:
    """The text of a ``#``, ``//`` or ``--`` comment line, or None for any other line."""
    head = line.lstrip()
    if _HASH_COMMENT.match(head):
        return head.lstrip("#")
    if head.startswith("//"):
        return head[2:].removeprefix("/").removeprefix("!")  # doc comments: ///, //!
    if head.startswith("--"):
        return head[2:]
    return None


def _header_comments(lines: list[str], start: int) -> list[list[str]]:
    """The comment blocks that open the file, up to its first line of code,
    each as its text lines; a blank line ends a block."""
    blocks: list[list[str]] = [[]]
    index = start
    while index < len(lines):
        line = lines[index]
        if line.lstrip().startswith("/*"):
            text, index = _block_comment(lines, index)
            blocks += [text, []]
            continue
        body = _line_comment_body(line)
        if body is not None:
            blocks[-1].append(body)
        elif line.strip():
            break
        elif blocks[-1]:
            blocks.append([])
        index += 1
    else:
        _at_end(lines)
    return [block for block in blocks if block]


def _prose(block: list[str]) -> str:
    """The first sentence of the block's first paragraph that is written for
    a reader.  Tool directives that open a paragraph are dropped, and a
    paragraph that still holds one (a note about the directive) is skipped;
    a licence or copyright paragraph ends the block: the rest is licence text."""
    for paragraph in _paragraphs(block):
        while paragraph and _PRAGMA.match(paragraph[0]):
            paragraph = paragraph[1:]
        if _LICENCE.search(" ".join(paragraph)):
            return ""
        if paragraph and not any(_PRAGMA.match(line) for line in paragraph):
            return _first_sentence(paragraph)
    return ""


def file_summary(lines: Iterable[str]) -> str:
    """The first sentence of the file's own statement of purpose, as one line.

    That statement is the module docstring (a triple-quoted string that opens
    the file, possibly after a shebang, blank lines and comments) or, failing
    that, the first comment in the file's header (``#``, ``//``, ``/* */`` or
    ``--`` style, before its first line of code) that is prose: shebangs,
    encoding declarations, editor modelines, tool directives (``mypy:``,
    ``noqa``, ``pylint:``, ...) and licence or copyright headers are
    skipped.  A paragraph ends at the first line without a letter or digit,
    a sentence at ".", "!" or "?" before white space; words are joined with
    single spaces, and a sentence longer than `MOST_CHARS` is cut after its
    last word that fits, with " …".  Returns "" when the file has neither,
    and never raises on odd input such as no lines or an unterminated
    docstring.
    """
    if lines is None:
        return ""
    if isinstance(lines, str):
        lines = lines.splitlines()
    elif not isinstance(lines, (list, tuple)):
        lines = list(lines)
    # Files of the C family open with `/*` or `//` comments: licence tags,
    # copyright lines and file names come before their prose.
    for line in lines:
        first = _as_text(line).lstrip("\ufeff").strip()
        if first:
            if first.startswith(("/*", "//")):
                return comment_summary(_as_text(line) for line in lines)
            break
    # The statement of purpose opens the file: look at its first lines, and
    # at more only when the answer could lie beyond them.
    size = _FIRST_LINES
    while size < len(lines):
        try:
            return _summary(_Prefix(_texts(lines[:size])))
        except _BeyondPrefix:
            size *= 8
    return _summary(_texts(lines))


def _summary(text: list[str]) -> str:
    if not text:
        return ""
    text[0] = text[0].removeprefix("\ufeff")
    start = 1 if text[0].startswith("#!") else 0

    # A docstring wins over the comments before it (licence headers, notes).
    index = start
    while index < len(text) and (not text[index].strip() or text[index].lstrip().startswith("#")):
        index += 1
    if index < len(text):
        opening = _DOCSTRING.match(text[index])
        if opening:
            summary = _prose(_docstring(text, index, opening.group(1), text[index][opening.end() :]))
            if summary:
                return summary
    else:
        _at_end(text)

    for block in _header_comments(text, start):
        summary = _prose(block)
        if summary:
            return summary
    return ""
