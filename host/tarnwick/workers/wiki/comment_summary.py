"""What a C-like source file (C, C++, Go, Rust, Java, JavaScript, TypeScript)
says it is for: the first sentence of prose in its leading comments."""

from __future__ import annotations

import re
from collections.abc import Iterable
from itertools import islice

# Copyright and authorship lines: they and the rest of their paragraph
# (names, addresses) are no prose; nor are the parameter lines of a
# function's documentation (`@dev: the device`).
_ATTRIBUTION = re.compile(
    r"""^(?: .*\bcopyright\b | .*© | .*\(c\)\s*\d
           | (?:authors?|maintainers?|contributors?|contact|created|date|version|written\s+by)\b\s*:
           | maintained\s+(?:at|by)\b
           | @(?:author|copyright|license|licence|version|date)\b
           | @\w+\s*: )""",
    re.VERBOSE | re.IGNORECASE,
)

# Other lines that are no prose: licence tags, a lone file name, tool
# directives, generated-code marks.
_NOT_PROSE = re.compile(
    r"""^(?: SPDX-\S+: | @file\b | \\file\b
           | [\w./+-]+\.(?:c|h|cc|cpp|cxx|hh|hpp|hxx|go|rs|java|js|jsx|mjs|cjs|ts|tsx|mts|cts)\s*:?
           | go:\w | \+build\b | eslint | prettier | jshint | jscs: | tslint | @ts- | clang-format
           | (?:TODO|FIXME|XXX)\b
         )""",
    re.VERBOSE | re.IGNORECASE,
)

# Paragraphs of licence text, and the headers of generated files.
_LICENCE = re.compile(
    r"""\bdo\s+not\s+edit\b | \blicen[cs]ed\s+(?:under|to)\b | \ball\s+rights\s+reserved\b
      | \bpermission\s+is\s+hereby\s+granted\b | \bfree\s+software\b
      | \bwithout\s+(?:any\s+)?warrant(?:y|ies)\b | \bgnu\s+general\s+public\b
      | \bapache\s+license\b | \bthis\s+(?:file|program|source\s+code)\s+is\s+(?:distributed|released|licensed)\b""",
    re.VERBOSE | re.IGNORECASE,
)

# Lines that may come between the leading comments: preprocessor lines
# (include guards, includes), package and import statements, strict mode.
_PREAMBLE = re.compile(
    r"""^(?: \# | package\s | import\s | use\s | extern\s+crate\s | (?:export\s+)?(?:\{|\}\s*from)
           | ['"]use\s+(?:strict|client|server)['"] )""",
    re.VERBOSE,
)

# The opening of a class-like declaration: its documentation, the file's
# first, says what the file is for (Java, TypeScript).
_CLASS = re.compile(
    r"^(?:@\w+\s+)*(?:(?:public|protected|final|abstract|sealed|static|export|default|declare)\s+)*"
    r"(?:class|interface|enum|record|@interface)\s"
)

# A doc-comment tag that opens a paragraph's text: `@brief`, `\brief`.
_BRIEF = re.compile(r"^[@\\](?:brief|summary|fileoverview|overview|module)\b\s*", re.IGNORECASE)

# Lines without a letter or digit ("----", "****") separate paragraphs.
_WORD = re.compile(r"\w")

# The end of a sentence: ".", "!" or "?" before white space, but not after
# "e.g." or "i.e.".
_SENTENCE_END = re.compile(r"(?<!\be\.g\.)(?<!\bi\.e\.)(?<=[.!?])\s")

# How many lines from the top are searched.
_HEAD_LINES = 400


def _comments(lines: list[str]) -> list[list[str]]:
    """The text lines of the comments at the head of the file, one list per
    comment block (a blank line or code ends a block of `//` lines).  Once
    some code (an include, the package clause) has been passed, a comment
    that code follows at once is that code's own, not the file's."""
    blocks: list[list[str]] = []
    block: list[str] = []  # the `//` lines being read
    touching = False  # whether the last block ended on the line before
    after_code = False
    index, end = 0, min(len(lines), _HEAD_LINES)
    while index < end:
        line = lines[index].strip()
        index += 1
        if line.startswith("//"):
            block.append(line[2:].lstrip("/!"))
            continue
        if block:
            blocks.append(block)
            block, touching = [], True
        if line.startswith("/*"):
            body = line[2:].lstrip("*!")
            comment = []
            while True:
                close = body.find("*/")
                if close >= 0:
                    comment.append(body[:close])
                    break
                comment.append(body)
                if index >= len(lines):
                    break
                body = lines[index].strip()
                index += 1
                if body.startswith("*") and not body.startswith("*/"):
                    body = body[1:]
            blocks.append(comment)
            touching = True
            continue
        if line and touching and after_code and not _CLASS.match(line):
            blocks.pop()
        touching = False
        if line and not _PREAMBLE.match(line):
            break
        after_code = after_code or bool(line)
    if block:
        blocks.append(block)
    return blocks


def _paragraphs(block: list[str]) -> Iterable[list[str]]:
    paragraph: list[str] = []
    for line in block:
        if _WORD.search(line):
            paragraph.append(line.strip())
        elif paragraph:
            yield paragraph
            paragraph = []
    if paragraph:
        yield paragraph


def comment_summary(lines: Iterable[str]) -> str:
    """The first sentence of prose in the comments that open the file, as one line.

    The comments are the `/* ... */` and `//` comments before the file's
    first line of code; include guards, includes, package and import lines
    between them are passed over.  Licence tags (`SPDX-License-Identifier:`),
    copyright and authorship lines, a line naming the file itself, tool
    directives and generated-code marks are no prose, and a paragraph of
    licence text is skipped whole.  A paragraph ends at a line without a
    letter or digit, a sentence at ".", "!" or "?" before white space.
    Returns "" when there is no such comment.
    """
    text = [line.rstrip("\r\n") for line in islice(lines, _HEAD_LINES)]
    if text:
        text[0] = text[0].removeprefix("\ufeff")
    for block in _comments(text):
        for paragraph in _paragraphs(block):
            prose = []
            for line in paragraph:
                if _ATTRIBUTION.match(line):
                    break
                if not _NOT_PROSE.match(line):
                    prose.append(line)
            if not prose or _LICENCE.search(" ".join(paragraph)):
                continue
            prose[0] = _BRIEF.sub("", prose[0])
            joined = " ".join(" ".join(prose).split())
            # One word alone ("from", a name) is no statement of purpose.
            if len(re.findall(r"[^\W\d_]{2,}", joined)) < 2:
                continue
            end = _SENTENCE_END.search(joined)
            return joined[: end.start()] if end else joined
    return ""
