"""Plain Python implementation of the ``scope`` grounding functions.

This module mirrors, function for function, what the native ``scope``
extension computes.  It is written for clarity rather than speed: it is the
baseline that the benchmarks compare the native module against, and the
oracle that the randomized tests compare the native results with.  Every
step follows the documented algorithm literally (same iteration orders, same
stable sorts with keys computed once, same insertion-ordered maps), so any
difference between the two implementations is a bug on one side.

The loader and the ``ScopeFacts`` record are not reimplemented here: callers
pass any object with the nine fields (``files``, ``symbols``, ``inbound``,
``outbound``, ``import_resolved_paths``, ``test_sources``, ``line_counts``,
``summaries``, ``test_imports``), a ``paths`` property and an
``import_resolved(path)`` method.

The sibling functions ``is_test_path`` and ``tests_reaching`` are looked up
as module globals when they are called, so tests may replace them with
``monkeypatch.setattr(pyscope, "is_test_path", ...)``.
"""

from __future__ import annotations

import math
from collections import Counter, namedtuple
from types import MappingProxyType

# Sibling modules of the host tool.  Each import falls back to a local
# default so that this module stays usable without the host package on the
# path (the defaults satisfy what the grounding functions require of them).
try:
    from tarnwick.models.edge import TRUSTED_RESOLUTIONS
except ImportError:
    TRUSTED_RESOLUTIONS = frozenset({"import", "local", "unique"})

try:
    from tarnwick.models.symbol import CALLABLE_KINDS as _CALLABLE_KINDS
except ImportError:
    _CALLABLE_KINDS = frozenset({"function", "method", "constructor"})

try:
    from tarnwick.storage.grounding_queries import NAME_MATCH_KINDS
except ImportError:
    NAME_MATCH_KINDS = frozenset({"attribute", "field", "property", "constant"})

try:
    from tarnwick.utils.path_filter import is_test_path
except ImportError:

    def is_test_path(path):
        """Whether ``path`` looks like a test file: inside a ``tests`` or
        ``test`` folder, or named ``test_*.py``."""
        parts = path.split("/")
        if any(part in ("tests", "test") for part in parts[:-1]):
            return True
        name = parts[-1]
        return name.startswith("test_") and name.endswith(".py")


try:
    from tarnwick.workers.wiki.scope_tests import tests_reaching
except ImportError:

    def tests_reaching(facts):
        """No test-reach information: no tests reach any file."""
        return set(), {}


# Module constants.
EVIDENCE_RESOLUTIONS = frozenset({"import", "local"})
_TRUSTED = frozenset(TRUSTED_RESOLUTIONS)
_TYPE_KINDS = frozenset({"enum", "class", "interface", "type", "struct"})
_CARD_NAMES = 3
_CONSUMER_ROWS = 12
_CONSUMER_NAMES = 4
_UNUSED_NAMES = 8
_SIZE_CAP = 40


class FanIn(
    namedtuple(
        "FanIn",
        ["outside", "inside", "entry"],
        defaults=(MappingProxyType({}), frozenset()),
    )
):
    """Production uses of a page's declarations by symbol id: from files
    outside the page, from the page's own files, and the entry points."""

    __slots__ = ()

    def api(self, symbol_id):
        """Whether the declaration is the page's API: used from outside the
        page, or an entry point.  Uses from inside never make API."""
        return self.outside.get(symbol_id, 0) > 0 or symbol_id in self.entry


# ---------------------------------------------------------------------------
# Use evidence, fan-in, type members


def is_use(resolution, target_kind, import_resolved):
    """Whether one reference is evidence that its source uses its target.

    "import" and "local" always are.  A "unique" name match is accepted only
    where the index does not resolve imports for the target's file, and never
    for attributes or constants, whose short names collide.
    """
    if resolution in EVIDENCE_RESOLUTIONS:
        return True
    if resolution != "unique":
        return False
    if import_resolved:
        return False
    return target_kind not in NAME_MATCH_KINDS


def production_fan_in(facts):
    """Count production uses of each page declaration, split into uses from
    outside the page and from its own files, and find the entry points."""
    outside = Counter()
    inside = Counter()
    referenced = set()
    scope = facts.paths
    test_sources = facts.test_sources
    for ref in facts.inbound:
        if ref.source_path in test_sources:
            continue
        if ref.resolution != "legacy":
            referenced.add(ref.target_id)
        counts = ref.resolution in EVIDENCE_RESOLUTIONS or (
            ref.resolution in _TRUSTED and ref.target_kind not in NAME_MATCH_KINDS
        )
        if not counts:
            continue
        if ref.source_path in scope:
            inside[ref.target_id] += ref.refs
        else:
            outside[ref.target_id] += ref.refs

    members = _members(facts)
    entry = set()
    for s in facts.symbols:
        if not (s.kind in _CALLABLE_KINDS or s.kind in _TYPE_KINDS):
            continue
        if not s.is_export:
            continue
        if s.name.startswith("_"):
            continue
        if s.id in referenced:
            continue
        if s.id in members:
            continue
        if is_test_path(s.path):
            continue
        entry.add(s.id)
    return FanIn(dict(outside), dict(inside), frozenset(entry))


def _members(facts):
    """Ids of the declarations that lie inside a type of their own file
    (line ranges compared inclusively; a type never contains itself)."""
    types_by_file = {}
    for s in facts.symbols:
        if s.kind in _TYPE_KINDS:
            types_by_file.setdefault(s.path, []).append(s)
    members = set()
    for s in facts.symbols:
        for t in types_by_file.get(s.path, ()):
            if t.id != s.id and t.start_line <= s.start_line and t.end_line >= s.end_line:
                members.add(s.id)
                break
    return members


# ---------------------------------------------------------------------------
# Ranking and selection


def rank_key(symbol, fan_in):
    """Sort key of a declaration; ascending order lists the best first:
    API, types and callables, public, outside uses (a constant weighs half),
    capped size, inside uses, source order."""
    weight = 1 if symbol.kind == "constant" else 2
    kind_group = 0 if (symbol.kind in _CALLABLE_KINDS or symbol.kind in _TYPE_KINDS) else 1
    size = min(symbol.end_line - symbol.start_line, _SIZE_CAP)
    return (
        not fan_in.api(symbol.id),
        kind_group,
        symbol.name.startswith("_"),
        -fan_in.outside.get(symbol.id, 0) * weight,
        -size,
        -fan_in.inside.get(symbol.id, 0) * weight,
        symbol.start_line,
    )


def ranked_by_file(facts, fan_in):
    """Each file's declarations, best first, keyed by path in the order of
    each path's first declaration in ``facts.symbols``."""
    by_file = {}
    for s in facts.symbols:
        by_file.setdefault(s.path, []).append(s)
    for path in by_file:
        by_file[path] = sorted(by_file[path], key=lambda s: rank_key(s, fan_in))
    return by_file


def file_seeds(facts, fan_in):
    """One citable (start, end) line range per file: its best declaration
    starting at line 1 or later, else its whole text when it has lines."""
    seeds = {}
    for path, declarations in ranked_by_file(facts, fan_in).items():
        best = None
        for s in declarations:
            if s.start_line > 0:
                best = s
                break
        if best is not None:
            seeds[path] = (best.start_line, max(best.start_line, best.end_line))
    for f in facts.files:
        lines = facts.line_counts.get(f.path, 0)
        if f.path not in seeds and lines > 0:
            seeds[f.path] = (1, lines)
    return seeds


def select_with_quota(ranked, fan_in, total, floor, max_share):
    """Pick up to ``total`` declarations: a floor per file, then the rest by
    rank with a per-file cap, interleaved so every file's best comes first."""
    files = [path for path in ranked if len(ranked[path]) > 0]
    if not files or total <= 0:
        return []
    floor_each = max(1, min(floor, total // len(files)))
    taken = {path: 0 for path in files}
    budget = total

    # Floor stage: files visited by the rank of their first declaration.
    by_best = sorted(files, key=lambda path: rank_key(ranked[path][0], fan_in))
    for path in by_best:
        taken[path] = min(floor_each, len(ranked[path]), budget)
        budget -= taken[path]

    rest = [(path, index) for path in files for index in range(taken[path], len(ranked[path]))]
    rest = sorted(rest, key=lambda pair: (rank_key(ranked[pair[0]][pair[1]], fan_in), pair[0]))

    cap = max(floor_each, math.ceil(total * max_share))

    # Sharing stage: a capped pass, then an uncapped one.
    for limit in (cap, total):
        for path, index in rest:
            if budget > 0 and taken[path] == index and taken[path] < limit:
                taken[path] += 1
                budget -= 1

    picked = [(index, ranked[path][index], path) for path in files for index in range(taken[path])]
    picked = sorted(picked, key=lambda t: (t[0], rank_key(t[1], fan_in), t[2]))
    return [symbol for _, symbol, _ in picked]


def pick_spread(scored, limit, per_file):
    """The first ``limit`` names of a best-first (name, path) list, at most
    ``per_file`` of them from any one path."""
    result = []
    counts = {}
    for name, path in scored:
        if len(result) >= limit:
            break
        if counts.get(path, 0) < per_file:
            result.append(name)
            counts[path] = counts.get(path, 0) + 1
    return result


# ---------------------------------------------------------------------------
# Markdown text helpers


def _short_path(path):
    """The last two "/"-separated segments of a path."""
    return "/".join(path.split("/")[-2:])


def _cell(text):
    """Escape bars and fold line feeds so the text fits one table cell."""
    return text.replace("|", "\\|").replace("\n", " ")


def _named(names, limit=_CARD_NAMES):
    """The first ``limit`` names joined by ", ", then " +N" for the rest."""
    shown = ", ".join(names[:limit])
    if len(names) > limit:
        return shown + " +" + str(len(names) - limit)
    return shown


# ---------------------------------------------------------------------------
# File users and file cards


def file_users(facts):
    """For each page file, a counter of the other production files that use
    it through evidence-backed references (summed ``refs``)."""
    users = {}
    for ref in facts.inbound:
        if ref.source_path == ref.target_path:
            continue
        if ref.source_path in facts.test_sources:
            continue
        if not is_use(ref.resolution, ref.target_kind, facts.import_resolved(ref.target_path)):
            continue
        counter = users.get(ref.target_path)
        if counter is None:
            counter = users[ref.target_path] = Counter()
        counter[ref.source_path] += ref.refs
    return users


def _most_used(declarations, fan_in):
    """Display items of a file's used declarations, most used first: from
    outside uses when there are any, else from in-page uses."""
    for source, label in ((fan_in.outside, ""), (fan_in.inside, "in-page ")):
        selected = [s for s in declarations if source.get(s.id, 0) > 0]
        if selected:
            selected = sorted(selected, key=lambda s: -source.get(s.id, 0))
            return [
                "`" + s.name + "` L" + str(s.start_line) + " (" + label + str(source.get(s.id, 0)) + ")"
                for s in selected
            ]
    return []


_CARDS_PARAGRAPH = (
    "Every file of this page, from the index. Lines and the summary come from "
    "the file; the most used declarations are ranked by the references "
    "production code outside the page makes to them (line, references; "
    "`in-page` when only the page's own files use them); users are the other "
    "production files that reference the file through evidence-backed edges."
)


def render_file_cards(facts, fan_in, heading, missing=()):
    """The Markdown table with one card per page file, then one row per
    path that the index does not hold."""
    by_file = {}
    for s in facts.symbols:
        by_file.setdefault(s.path, []).append(s)
    users = file_users(facts)
    tests_by_file = tests_reaching(facts)[1]

    lines = [
        heading,
        "",
        _CARDS_PARAGRAPH,
        "",
        "| File | Lines | Declarations | Summary | Most used | Used by | Tests |",
        "|---|---|---|---|---|---|---|",
    ]
    for f in facts.files:
        declarations = by_file.get(f.path, [])
        count = facts.line_counts.get(f.path)
        user_counter = users.get(f.path, Counter())
        tests = tests_by_file.get(f.path)
        cells = [
            "`" + f.path + "`",
            "?" if count is None else str(count),
            str(len(declarations)),
            _cell(facts.summaries.get(f.path, "")),
            _cell(_named(_most_used(declarations, fan_in))),
            _cell(_named([_short_path(p) for p, _ in user_counter.most_common()])),
            _cell(_named(list(tests) if tests is not None else [])),
        ]
        lines.append("| " + " | ".join(cells) + " |")
    for path in missing:
        lines.append("| `" + path + "` | ? | 0 | not in the index | | | |")
    return "\n".join(lines) + "\n"


# ---------------------------------------------------------------------------
# Consumers section


_INTRO_RESOLVED = (
    "Production files outside this page that use its code, counted from "
    "`import` and `local` edges only (evidence); `unique` and `ambiguous` "
    "edges match a name and are not counted."
)
_INTRO_UNRESOLVED_HEAD = "The index does not resolve imports for "
_INTRO_UNRESOLVED_TAIL = (
    ", so the files below reference this page's code by a `unique` name (the "
    "only production declaration of that name): likely uses, not proven ones. "
    "Attribute and constant names are not counted."
)
_ZERO_CONSUMERS = "0 production consumers: no production file outside this page reaches its code "
_NOT_COUNTED_TAIL = " that match a name only (an attribute or a call that shares a name with a declaration here)."
_UNUSED_HEAD = "Used by no production file outside this page: "
_UNUSED_TAIL = " (code used inside the page, entry points, and code reached dynamically or by name can still be live)."


def render_consumers(facts, fan_in, heading):
    """The Markdown section on who uses the page from outside (evidence
    only), what was not counted, and what nothing outside uses."""
    scope = facts.paths
    uses = {}
    used = set()
    left_out = Counter()
    left_files = set()
    for ref in facts.inbound:
        if ref.source_path in scope or ref.source_path in facts.test_sources:
            continue
        if is_use(ref.resolution, ref.target_kind, facts.import_resolved(ref.target_path)):
            names = uses.get(ref.source_path)
            if names is None:
                names = uses[ref.source_path] = Counter()
            names[ref.target_name] += ref.refs
            used.add(ref.target_id)
        else:
            left_out[ref.resolution] += ref.refs
            left_files.add(ref.source_path)

    languages = set()
    for f in facts.files:
        if not facts.import_resolved(f.path):
            language = getattr(f, "language", None)
            languages.add("" if language is None else language)
    unresolved = sorted(languages)

    lines = [heading, ""]
    if not unresolved:
        lines.append(_INTRO_RESOLVED)
    else:
        lines.append(_INTRO_UNRESOLVED_HEAD + ", ".join(unresolved) + _INTRO_UNRESOLVED_TAIL)

    ranked = sorted(uses.items(), key=lambda item: (-sum(item[1].values()), item[0]))
    for path, names in ranked[:_CONSUMER_ROWS]:
        shown = _named(["`" + name + "`" for name, _ in names.most_common()], _CONSUMER_NAMES)
        lines.append("- `" + path + "` uses " + shown + " (" + str(sum(names.values())) + " refs)")
    if len(ranked) > _CONSUMER_ROWS:
        lines.append("- _...and " + str(len(ranked) - _CONSUMER_ROWS) + " more files_")
    if not ranked:
        reach = "by a unique name." if unresolved else "through an `import` or `local` edge."
        lines.append(_ZERO_CONSUMERS + reach)

    if len(left_out) > 0:
        mix = ", ".join(
            str(count) + " `" + resolution + "`"
            for resolution, count in sorted(left_out.items(), key=lambda item: item[0])
        )
        n_files = len(left_files)
        files = str(n_files) + " other file" + ("s" if n_files > 1 else "")
        lines.append("Not counted: " + mix + " references from " + files + _NOT_COUNTED_TAIL)

    unused = _unused_outside(facts, used, fan_in)
    if unused:
        named = ["`" + s.name + "` (" + s.kind + ", `" + s.path + ":L" + str(s.start_line) + "`)" for s in unused]
        more = len(unused) - _UNUSED_NAMES
        line = _UNUSED_HEAD + ", ".join(named[:_UNUSED_NAMES])
        if more > 0:
            line += " and " + str(more) + " more"
        lines.append(line + _UNUSED_TAIL)

    return "\n".join(lines) + "\n"


def _unused_outside(facts, used, fan_in):
    """Public top-level types and callables that no production file outside
    the page uses: types first, then best first, then by path."""
    members = _members(facts)
    kept = []
    for s in facts.symbols:
        if not (s.kind in _TYPE_KINDS or s.kind in _CALLABLE_KINDS):
            continue
        if s.id in used:
            continue
        if not s.is_export:
            continue
        if s.name.startswith("_"):
            continue
        if s.id in members:
            continue
        kept.append(s)
    return sorted(kept, key=lambda s: (s.kind not in _TYPE_KINDS, rank_key(s, fan_in), s.path))


# ---------------------------------------------------------------------------
# Neighbours and name-match counts


def neighbours(facts, limit):
    """The declarations in other production files that the page uses most,
    as (declaration, count) pairs, at most ``limit`` of them."""
    scope = facts.paths
    refs = Counter()
    targets = {}
    for ref in facts.outbound:
        target = ref.target
        if target.path in scope:
            continue
        if is_test_path(target.path):
            continue
        if ref.resolution not in EVIDENCE_RESOLUTIONS and target.kind in NAME_MATCH_KINDS:
            continue
        refs[target.id] += ref.refs
        targets[target.id] = target
    entries = sorted(refs.items(), key=lambda item: (-item[1], targets[item[0]].fqn))
    return [(targets[symbol_id], count) for symbol_id, count in entries[: max(0, limit)]]


def name_match_counts(facts):
    """Summed "unique" references to attributes and constants, per
    (source path, target path) pair, from both reference lists."""
    counts = Counter()
    for ref in facts.inbound:
        if ref.resolution == "unique" and ref.target_kind in NAME_MATCH_KINDS:
            counts[(ref.source_path, ref.target_path)] += ref.refs
    for out_ref in facts.outbound:
        if out_ref.resolution == "unique" and out_ref.target.kind in NAME_MATCH_KINDS:
            counts[(out_ref.source_path, out_ref.target.path)] += out_ref.refs
    return dict(counts)
