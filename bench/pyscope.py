"""Plain Python implementation of the ``scope`` grounding functions, function for function: the baseline of the
benchmarks and the oracle of the randomized tests. Every step follows the rules literally (iteration orders, stable
sorts, insertion-ordered maps), so any difference between the two is a bug on one side. ``ScopeFacts`` and the loader
are not repeated here: any object with the nine fields, ``paths`` and ``import_resolved(path)`` will do. The sibling
functions and the module's sets are looked up when called, so tests may replace them on this module.
"""

import math
from collections import Counter, namedtuple
from types import MappingProxyType

from tarnwick.models.edge import TRUSTED_RESOLUTIONS
from tarnwick.models.symbol import CALLABLE_KINDS as _CALLABLE_KINDS
from tarnwick.storage.grounding_queries import NAME_MATCH_KINDS
from tarnwick.utils.path_filter import is_test_path
from tarnwick.workers.wiki.scope_tests import tests_reaching

EVIDENCE_RESOLUTIONS = frozenset({"import", "local"})
_TRUSTED = frozenset(TRUSTED_RESOLUTIONS)
_TYPE_KINDS = frozenset({"enum", "class", "interface", "type", "struct"})
_CARD_NAMES, _CONSUMER_ROWS, _CONSUMER_NAMES, _UNUSED_NAMES, _SIZE_CAP = 3, 12, 4, 8, 40


class FanIn(namedtuple("FanIn", ["outside", "inside", "entry"], defaults=(MappingProxyType({}), frozenset()))):
    """Production uses by symbol id: from outside the page, from inside it, and the entry points."""

    __slots__ = ()

    def api(self, symbol_id):
        return _api(self, symbol_id)


def _api(fan_in, symbol_id):
    """Used from outside (a count above 0) or an entry point; inside uses never make API. Any object with the
    three fields of FanIn will do."""
    return fan_in.outside.get(symbol_id, 0) > 0 or symbol_id in fan_in.entry


# Use evidence, fan-in, type members


def is_use(resolution, target_kind, import_resolved):
    """ "import" and "local" are evidence; "unique" only where imports are not
    resolved and the target is no attribute or constant."""
    if resolution in EVIDENCE_RESOLUTIONS:
        return True
    return resolution == "unique" and not import_resolved and target_kind not in NAME_MATCH_KINDS


def production_fan_in(facts):
    """Counted uses from outside and inside the page, and the entry points."""
    outside, inside, referenced, scope = Counter(), Counter(), set(), facts.paths
    for ref in facts.inbound:
        if ref.source_path in facts.test_sources:
            continue
        if ref.resolution != "legacy":
            referenced.add(ref.target_id)
        if ref.resolution in EVIDENCE_RESOLUTIONS or (
            ref.resolution in _TRUSTED and ref.target_kind not in NAME_MATCH_KINDS
        ):
            (inside if ref.source_path in scope else outside)[ref.target_id] += ref.refs
    members = _members(facts)
    entry = [s.id for s in facts.symbols if _public(s, members) and s.id not in referenced and not is_test_path(s.path)]
    return FanIn(dict(outside), dict(inside), frozenset(entry))


def _public(s, members):
    """An exported type or callable whose name is not private and that lies in no type."""
    typed = s.kind in _CALLABLE_KINDS or s.kind in _TYPE_KINDS
    return typed and s.is_export and not s.name.startswith("_") and s.id not in members


def _members(facts):
    """Ids of declarations inside a type of their own file (inclusive; never itself)."""
    types = _by_path(t for t in facts.symbols if t.kind in _TYPE_KINDS)
    return {
        s.id
        for s in facts.symbols
        for t in types.get(s.path, ())
        if t.id != s.id and t.start_line <= s.start_line and t.end_line >= s.end_line
    }


# Ranking and selection


def rank_key(symbol, fan_in):
    """Lower first: API, types and callables, public, outside uses (a constant
    weighs half), capped size, inside uses, source order."""
    weight = 1 if symbol.kind == "constant" else 2
    return (
        not _api(fan_in, symbol.id),
        0 if symbol.kind in _CALLABLE_KINDS or symbol.kind in _TYPE_KINDS else 1,
        symbol.name.startswith("_"),
        -fan_in.outside.get(symbol.id, 0) * weight,
        -min(symbol.end_line - symbol.start_line, _SIZE_CAP),
        -fan_in.inside.get(symbol.id, 0) * weight,
        symbol.start_line,
    )


def _by_path(symbols):
    by_file = {}
    for s in symbols:
        by_file.setdefault(s.path, []).append(s)
    return by_file


def ranked_by_file(facts, fan_in):
    """Each file's declarations best first, files in order of their first declaration."""
    return {path: sorted(group, key=lambda s: rank_key(s, fan_in)) for path, group in _by_path(facts.symbols).items()}


def file_seeds(facts, fan_in):
    """Per file: its best declaration starting at line 1 or later, else its whole text when it has lines."""
    seeds = {}
    for path, declarations in ranked_by_file(facts, fan_in).items():
        best = next((s for s in declarations if s.start_line > 0), None)
        if best is not None:
            seeds[path] = (best.start_line, max(best.start_line, best.end_line))
    for f in facts.files:
        if f.path not in seeds and facts.line_counts.get(f.path, 0) > 0:
            seeds[f.path] = (1, facts.line_counts[f.path])
    return seeds


def select_with_quota(ranked, fan_in, total, floor, max_share):
    """Up to ``total`` declarations: a floor per file, then the rest by rank
    with a per-file cap, interleaved so that every file's best comes first."""
    files = [path for path in ranked if len(ranked[path]) > 0]
    if not files or total <= 0:
        return []
    floor_each = max(1, min(floor, total // len(files)))
    taken, budget = {}, total
    for path in sorted(files, key=lambda path: rank_key(ranked[path][0], fan_in)):
        taken[path] = min(floor_each, len(ranked[path]), budget)
        budget -= taken[path]
    rest = [(path, index) for path in files for index in range(taken[path], len(ranked[path]))]
    rest = sorted(rest, key=lambda pair: (rank_key(ranked[pair[0]][pair[1]], fan_in), pair[0]))
    for limit in (max(floor_each, math.ceil(total * max_share)), total):  # a capped pass, then an uncapped one
        for path, index in rest:
            if budget > 0 and taken[path] == index and taken[path] < limit:
                taken[path] += 1
                budget -= 1
    picked = [(index, ranked[path][index], path) for path in files for index in range(taken[path])]
    return [s for _, s, _ in sorted(picked, key=lambda t: (t[0], rank_key(t[1], fan_in), t[2]))]


def pick_spread(scored, limit, per_file):
    """The first ``limit`` names of best-first (name, path) pairs, at most ``per_file`` per path; no pair is taken
    from ``scored`` once the result is full."""
    result, counts = [], Counter()
    for name, path in scored if limit > 0 else ():
        if counts[path] < per_file:
            result.append(name)
            counts[path] += 1
            if len(result) >= limit:
                break
    return result


# Markdown text helpers


def _short_path(path):
    return "/".join(path.split("/")[-2:])


def _cell(text):
    return text.replace("|", "\\|").replace("\n", " ")


def _named(names, limit=_CARD_NAMES):
    shown = ", ".join(names[:limit])
    return shown + " +" + str(len(names) - limit) if len(names) > limit else shown


# File users and file cards


def file_users(facts):
    """Per page file: a Counter of the other production files that use it through evidence."""
    users = {}
    for ref in facts.inbound:
        if ref.source_path == ref.target_path or ref.source_path in facts.test_sources:
            continue
        if is_use(ref.resolution, ref.target_kind, facts.import_resolved(ref.target_path)):
            users.setdefault(ref.target_path, Counter())[ref.source_path] += ref.refs
    return users


def _most_used(declarations, fan_in):
    """Outside uses, most first, when any; else in-page uses."""
    for source, label in ((fan_in.outside, ""), (fan_in.inside, "in-page ")):
        used = sorted((s for s in declarations if source.get(s.id, 0) > 0), key=lambda s: -source.get(s.id, 0))
        if used:
            return [f"`{s.name}` L{s.start_line} ({label}{source.get(s.id, 0)})" for s in used]
    return []


CARDS_HEAD = (
    "Every file of this page, from the index. Lines and the summary come from the file; the most used declarations "
    "are ranked by the references production code outside the page makes to them (line, references; `in-page` when "
    "only the page's own files use them); users are the other production files that reference the file through "
    "evidence-backed edges.\n\n| File | Lines | Declarations | Summary | Most used | Used by | Tests |\n"
    "|---|---|---|---|---|---|---|"
)


def render_file_cards(facts, fan_in, heading, missing=()):
    """One table row per page file, then one per path that the index does not hold."""
    by_file, users, tests = _by_path(facts.symbols), file_users(facts), tests_reaching(facts)[1]
    lines = [heading, "", CARDS_HEAD]
    for f in facts.files:
        declarations, count, reaching = by_file.get(f.path, []), facts.line_counts.get(f.path), tests.get(f.path)
        cells = [
            f"`{f.path}`",
            "?" if count is None else str(count),
            str(len(declarations)),
            _cell(facts.summaries.get(f.path, "")),
            _cell(_named(_most_used(declarations, fan_in))),
            _cell(_named([_short_path(p) for p, _ in users.get(f.path, Counter()).most_common()])),
            _cell(_named(list(reaching) if reaching is not None else [])),
        ]
        lines.append("| " + " | ".join(cells) + " |")
    lines += [f"| `{path}` | ? | 0 | not in the index | | | |" for path in missing]
    return "\n".join(lines) + "\n"


# Consumers section

RESOLVED_INTRO = (
    "Production files outside this page that use its code, counted from `import` and `local` edges only "
    "(evidence); `unique` and `ambiguous` edges match a name and are not counted."
)
UNRESOLVED_INTRO = (
    "The index does not resolve imports for {}, so the files below reference this page's code by a `unique` name "
    "(the only production declaration of that name): likely uses, not proven ones. Attribute and constant names "
    "are not counted."
)
NO_CONSUMERS = "0 production consumers: no production file outside this page reaches its code "
NOT_COUNTED = (
    "Not counted: {} references from {}"
    " that match a name only (an attribute or a call that shares a name with a declaration here)."
)
UNUSED = (
    "Used by no production file outside this page: {}"
    " (code used inside the page, entry points, and code reached dynamically or by name can still be live)."
)


def render_consumers(facts, fan_in, heading):
    """Who uses the page from outside (evidence only), what was not counted, what nothing outside uses."""
    uses, used, left_out, left_files, scope = {}, set(), Counter(), set(), facts.paths
    for ref in facts.inbound:
        if ref.source_path in scope or ref.source_path in facts.test_sources:
            continue
        if is_use(ref.resolution, ref.target_kind, facts.import_resolved(ref.target_path)):
            uses.setdefault(ref.source_path, Counter())[ref.target_name] += ref.refs
            used.add(ref.target_id)
        else:
            left_out[ref.resolution] += ref.refs
            left_files.add(ref.source_path)
    unresolved = sorted({getattr(f, "language", None) or "" for f in facts.files if not facts.import_resolved(f.path)})
    lines = [heading, "", UNRESOLVED_INTRO.format(", ".join(unresolved)) if unresolved else RESOLVED_INTRO]
    ranked = sorted(uses.items(), key=lambda item: (-sum(item[1].values()), item[0]))
    for path, names in ranked[:_CONSUMER_ROWS]:
        shown = _named([f"`{name}`" for name, _ in names.most_common()], _CONSUMER_NAMES)
        lines.append(f"- `{path}` uses {shown} ({sum(names.values())} refs)")
    if len(ranked) > _CONSUMER_ROWS:
        lines.append(f"- _...and {len(ranked) - _CONSUMER_ROWS} more files_")
    if not ranked:
        lines.append(NO_CONSUMERS + ("by a unique name." if unresolved else "through an `import` or `local` edge."))
    if left_out:
        mix = ", ".join(f"{count} `{resolution}`" for resolution, count in sorted(left_out.items()))
        lines.append(NOT_COUNTED.format(mix, f"{len(left_files)} other file" + "s" * (len(left_files) > 1)))
    unused = _unused_outside(facts, used, fan_in)
    if unused:
        named = ", ".join(f"`{s.name}` ({s.kind}, `{s.path}:L{s.start_line}`)" for s in unused[:_UNUSED_NAMES])
        more = len(unused) - _UNUSED_NAMES
        lines.append(UNUSED.format(named + (f" and {more} more" if more > 0 else "")))
    return "\n".join(lines) + "\n"


def _unused_outside(facts, used, fan_in):
    """Public, exported, top-level types and callables not in ``used``: types first, then best first, then path."""
    used, members = set(used), _members(facts)
    kept = [s for s in facts.symbols if _public(s, members) and s.id not in used]
    return sorted(kept, key=lambda s: (s.kind not in _TYPE_KINDS, rank_key(s, fan_in), s.path))


# Neighbours and name-match counts


def neighbours(facts, limit):
    """The declarations in other production files that the page uses most, as (target, count) pairs."""
    refs, targets, scope = Counter(), {}, facts.paths
    for ref in facts.outbound:
        target = ref.target
        if target.path in scope or is_test_path(target.path):
            continue
        if ref.resolution not in EVIDENCE_RESOLUTIONS and target.kind in NAME_MATCH_KINDS:
            continue
        refs[target.id] += ref.refs
        targets[target.id] = target
    entries = sorted(refs.items(), key=lambda item: (-item[1], targets[item[0]].fqn))
    return [(targets[symbol_id], count) for symbol_id, count in entries[: max(0, limit)]]


def name_match_counts(facts):
    """Summed "unique" references to attributes and constants per (source, target) path, inbound then outbound."""
    counts = Counter()
    for ref in facts.inbound:
        if ref.resolution == "unique" and ref.target_kind in NAME_MATCH_KINDS:
            counts[(ref.source_path, ref.target_path)] += ref.refs
    for ref in facts.outbound:
        if ref.resolution == "unique" and ref.target.kind in NAME_MATCH_KINDS:
            counts[(ref.source_path, ref.target.path)] += ref.refs
    return dict(counts)
