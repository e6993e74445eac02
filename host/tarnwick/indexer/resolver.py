"""Turns the names a file uses into references, for the languages whose
imports the index does not resolve (everything but Python).

A file's uses are its names with how often it uses each (calls, type uses,
member accesses and other identifiers, summed).  One name is resolved for
all its users at once, against the declarations of that name in the tree's
files of the user's language family (C with C++, JavaScript with
TypeScript, every other language alone):

- "local": the user declares the name itself; the reference goes to each
  of its own declarations of that name.  A file that only announces the
  name (a C prototype, an `extern`) while another file defines it is
  resolved against the tree instead, as if it did not declare it;
- "unique": exactly one production declaration (outside test files) has
  the name;
- "ambiguous": several do; the reference is counted once for each of them,
  up to `FAN_OUT` (below).

Prototypes never make a name ambiguous next to a definition: when some
production declaration of the name is a definition, the announcements
(`definition` false) are left out of the candidates.

Names declared in many places
    A name with more than `FAN_OUT` candidates (a field called `flags`, a
    `static` helper called `init` in hundreds of files) is matched to the
    `FAN_OUT` candidates nearest to the user: those whose paths share the
    most leading folders with the user's folder, and among equally near
    ones those closest to it in path order.  Linking every use to every
    candidate would add thousands of rows per use, and every page declaring
    the name would report thousands of "not counted" references from all
    over the tree; linking none would hide that the page's nearby files
    use the name at all.  With the nearest ones, the count a page reports
    comes from its neighbourhood and stays bounded by `FAN_OUT` rows per
    use.

The choice depends on the user's folder, the name and its candidates
only (their paths and lines), never on ids or on the
order files were read in, so an incrementally updated index resolves every
name as a fresh one does.
"""

from __future__ import annotations

from bisect import bisect_left
from collections.abc import Iterator

# Most declarations one use of an ambiguous name is linked to.
FAN_OUT = 2

# The language families whose declarations answer each other's names.
FAMILIES = {"c": "c", "cpp": "c", "javascript": "js", "typescript": "js"}


def family_of(language: str) -> str:
    return FAMILIES.get(language, language)


# One declaration of a name, as the resolver sees it:
# (declaration id, file id, path, is a definition, is production, start line).
Candidate = tuple[int, int, str, bool, bool, int]
# One row of the index: (source file id, target declaration id, resolution, count).
Row = tuple[int, int, str, int]


def resolve_name(decls: list[Candidate], users: list[tuple[int, str, int]]) -> Iterator[Row]:
    """The references from `users`, (file id, path, count) each, to the
    declarations `decls` of one name in one language family."""
    own: dict[int, list[Candidate]] = {}
    for decl in decls:
        own.setdefault(decl[1], []).append(decl)
    production = [decl for decl in decls if decl[4]]
    definitions = [decl for decl in production if decl[3]]
    pool = sorted(definitions or production, key=_order)
    near = _Nearest(pool) if len(pool) > FAN_OUT else None
    for file_id, path, count in users:
        mine = own.get(file_id)
        if mine:
            defined = [decl for decl in mine if decl[3]]
            if defined or not definitions:
                for decl in defined or mine:
                    yield (file_id, decl[0], "local", count)
                continue
        if not pool:
            continue
        if len(pool) == 1:
            yield (file_id, pool[0][0], "unique", count)
        else:
            for decl in near.of(path) if near is not None else pool:
                yield (file_id, decl[0], "ambiguous", count)


def _order(decl: Candidate) -> tuple:
    # Ids only part declarations of one file that start on the same line,
    # which every run numbers in the order the file declares them.
    return (decl[2], decl[5], decl[0])


class _Nearest:
    """The `FAN_OUT` candidates nearest to a folder, remembered per folder."""

    def __init__(self, pool: list[Candidate]):
        self.pool = pool
        self.paths = [decl[2] for decl in pool]
        self.known: dict[str, list[Candidate]] = {}

    def of(self, path: str) -> list[Candidate]:
        folder = path[: path.rfind("/") + 1]  # "" at the root, else "a/b/"
        chosen = self.known.get(folder)
        if chosen is None:
            chosen = self.known[folder] = self._choose(folder)
        return chosen

    def _choose(self, folder: str) -> list[Candidate]:
        # In path order, the number of folders a path shares with `folder`
        # never grows with its distance from where `folder` would be
        # inserted; so the nearest ones are found walking both ways from there.
        paths = self.paths
        right = bisect_left(paths, folder)
        left = right - 1
        chosen = []
        while len(chosen) < FAN_OUT:
            left_depth = _shared(folder, paths[left]) if left >= 0 else -1
            right_depth = _shared(folder, paths[right]) if right < len(paths) else -1
            if left_depth < 0 and right_depth < 0:
                break
            if right_depth >= left_depth:
                chosen.append(self.pool[right])
                right += 1
            else:
                chosen.append(self.pool[left])
                left -= 1
        return chosen


def _shared(folder: str, path: str) -> int:
    """How many leading folders `path` shares with `folder` ("a/b/")."""
    n = min(len(folder), len(path))
    i = 0
    while i < n and folder[i] == path[i]:
        i += 1
    return folder.count("/", 0, i)
