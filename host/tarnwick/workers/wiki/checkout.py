"""Reads files of the repository checkout that a wiki page is written from."""

from __future__ import annotations

import codecs
import os
import stat
from collections.abc import Callable, Iterable, Iterator, Sequence
from typing import overload

from tarnwick.utils.source_text import PYTHON_SUFFIXES, python_source_text
from tarnwick.workers.wiki.file_summary import file_summary


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
        except (OSError, ValueError):  # ValueError: a path the OS cannot even express (a NUL byte)
            return None
        return text_lines(path, data)

    return read_lines


def text_lines(path: str, data: bytes) -> list[str] | None:
    """The lines of the file ``path`` whose bytes are ``data``, as ``read_lines`` gives
    them; None when they are not valid in the file's encoding."""
    try:
        text = python_source_text(data) if path.endswith(PYTHON_SUFFIXES) and _may_name_coding(data) else None
        if text is None:  # UTF-8 without a byte order mark; the codec that drops one is written in Python
            text = data[3:].decode() if data.startswith(codecs.BOM_UTF8) else data.decode()
    except (ValueError, SyntaxError):  # SyntaxError: a coding line that names no known encoding
        return None
    return text.splitlines()


def text_facts(path: str, data: bytes) -> tuple[int, str] | tuple[None, None]:
    """What a page keeps of the file ``path`` whose bytes are ``data``: its number of
    lines and its summary, as `read_lines` and `file_summary` give them; (None, None)
    when it is no text.  The indexer records them as it reads each file."""
    lines = text_lines(path, data)
    return (None, None) if lines is None else (len(lines), file_summary(lines))


def _may_name_coding(data: bytes) -> bool:
    """Whether a Python source's first two lines could hold a coding line; without one, its
    text is its bytes as UTF-8, a byte order mark dropped, and the slower reading that looks
    for the coding line is skipped."""
    end = data.find(b"\n", data.find(b"\n") + 1)
    return data.find(b"coding", 0, len(data) if end < 0 else end) >= 0


class IndexedLines(Sequence[str]):
    """The lines of a file that the index read and that has not changed since: its
    number of lines and its summary are the index's, and the lines themselves are
    read only when asked for."""

    __slots__ = ("_read", "_path", "_count", "summary", "_lines")

    def __init__(self, read: Callable[[str], list[str] | None], path: str, count: int, summary: str) -> None:
        self._read, self._path, self._count, self.summary = read, path, count, summary
        self._lines: list[str] | None = None

    def __len__(self) -> int:
        return self._count

    @overload
    def __getitem__(self, index: int) -> str: ...
    @overload
    def __getitem__(self, index: slice) -> list[str]: ...
    def __getitem__(self, index: int | slice) -> str | list[str]:
        return self._all()[index]

    def __iter__(self) -> Iterator[str]:
        return iter(self._all())

    def _all(self) -> list[str]:
        if self._lines is None:
            lines = self._read(self._path)
            if lines is None or len(lines) != self._count:
                raise OSError(f"{self._path} changed after it was indexed")
            self._lines = lines
        return self._lines


def indexed_reader(
    root: str | os.PathLike[str], known: Iterable[tuple[str, int, int, int | None, str | None]]
) -> IndexedReader:
    """``read_lines`` as `checkout_reader` gives it, for a checkout whose files the index
    has read: ``known`` holds (path, size, mtime_ns, lines, summary) of each.  A file whose
    size and modification time are still those is not read again: its lines come as
    `IndexedLines`, which `indexed_summary` summarises from the index.  Any other file
    is read."""
    reader = IndexedReader(root)
    reader.learn(known)
    return reader


class IndexedReader:
    """`indexed_reader`'s ``read_lines``; `learn` adds what the index knows of more files."""

    def __init__(self, root: str | os.PathLike[str]) -> None:
        self.read = checkout_reader(root)
        self.base = os.fspath(root)
        self.facts: dict[str, tuple[int, int, int, str | None]] = {}

    def learn(self, known: Iterable[tuple[str, int, int, int | None, str | None]]) -> None:
        self.facts.update(
            (path, (size, mtime, lines, summary)) for path, size, mtime, lines, summary in known if lines is not None
        )

    def __call__(self, path: str) -> Sequence[str] | None:
        known = self.facts.get(path)
        if known is not None:
            try:
                status = os.stat(os.path.join(self.base, path))
            except (OSError, ValueError):
                return self.read(path)
            if stat.S_ISREG(status.st_mode) and (status.st_size, status.st_mtime_ns) == known[:2]:
                return IndexedLines(self.read, path, known[2], known[3])
        return self.read(path)


def indexed_summary(summarise: Callable[[Sequence[str]], str]) -> Callable[[Sequence[str]], str]:
    """``summarise``, taking the summary of `IndexedLines` from the index when it is the
    `file_summary` the index used; any other summariser reads the lines themselves."""
    if summarise is not file_summary:
        return summarise

    def summary(lines: Sequence[str]) -> str:
        return lines.summary if type(lines) is IndexedLines else summarise(lines)

    return summary
