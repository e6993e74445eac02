// The module's functions as a host calls them: each one's name, its
// parameters (with the default shown for an optional one) and what it does.
// The binding makes its method table, signatures and docstrings from this
// list and gives each function a body.
#pragma once

#include <array>
#include <cstddef>

namespace scope {

struct Parameter {
  const char* name;
  const char* shown_default = nullptr;  // an optional parameter, with this default
};

struct Function {
  const char* name;
  std::array<Parameter, 5> params;
  const char* doc;
};

inline constexpr Function kFunctions[] = {
    {"load_scope_facts",
     {{{"db"}, {"paths"}, {"read_lines"}}},
     "Loads one page's facts: queries the index (scope_files, inbound_references, import_resolved_languages, then "
     "scope_symbols and outbound_references), reads each indexed file once with `read_lines` (None means "
     "unreadable), asks `is_test_path` once per distinct inbound source, and stores the result of "
     "`importing_tests`. Errors of any of these propagate unchanged."},
    {"is_use",
     {{{"resolution"}, {"target_kind"}, {"import_resolved"}}},
     "Whether a reference is evidence that its source uses its target: an \"import\" or \"local\" one always; a "
     "\"unique\" one only where imports are not resolved and the target is no attribute or constant "
     "(NAME_MATCH_KINDS)."},
    {"_members",
     {{{"facts"}}},
     "The set of ids of the declarations that lie inside a type declared in the same file (bounds inclusive; a "
     "type never contains itself)."},
    {"production_fan_in",
     {{{"facts"}}},
     "Counts the production uses of the page's declarations: FanIn(outside, inside, entry). Tests never count; "
     "evidence counts, and so does a trusted resolution except to an attribute or a constant; uses from the "
     "page's own files go to `inside`. `entry` holds the public, exported, top-level callables and types that no "
     "production code references, outside test files."},
    {"rank_key",
     {{{"symbol"}, {"fan_in"}}},
     "The sort key of a declaration, lower first: (not API, kind group, private, -outside uses x weight, "
     "-min(size, 40), -inside uses x weight, start line). A constant weighs 1, others 2."},
    {"ranked_by_file",
     {{{"facts"}, {"fan_in"}}},
     "Each file's declarations best first (stable by rank_key): a dict from path to list, paths in order of "
     "their first declaration."},
    {"file_seeds",
     {{{"facts"}, {"fan_in"}}},
     "One citable (start, end) range per file: its best declaration that starts after line 0, else its whole "
     "text when it was read and is not empty. Declaration seeds come first."},
    {"select_with_quota",
     {{{"ranked"}, {"fan_in"}, {"total"}, {"floor"}, {"max_share"}}},
     "Up to `total` declarations of `ranked` (path -> best-first sequence): `floor` per file first, the rest by "
     "rank with no file above ceil(total * max_share) while another has some left, interleaved so that every "
     "file's best comes before any file's second."},
    {"pick_spread",
     {{{"scored"}, {"limit"}, {"per_file"}}},
     "The first `limit` names of the best-first (name, path) pairs, at most `per_file` per path."},
    {"_short_path", {{{"path"}}}, "The last two \"/\"-separated segments of `path`."},
    {"_cell", {{{"text"}}}, "`text` for one Markdown table cell: \"|\" escaped, line feeds made spaces."},
    {"_named",
     {{{"names"}, {"limit", "3"}}},
     "The first `limit` names joined by \", \", then \" +N\" for the N names left out."},
    {"file_users",
     {{{"facts"}}},
     "For each page file that other production files use through evidence: a Counter of those users' summed "
     "refs. Tests and a file's references to itself never count."},
    {"_most_used",
     {{{"declarations"}, {"fan_in"}}},
     "One file's used declarations, most used first, as \"`name` L<line> (<count>)\" items: uses from outside "
     "the page, or, when there are none, uses from the page's own files (\"in-page\")."},
    {"render_file_cards",
     {{{"facts"}, {"fan_in"}, {"heading"}, {"missing", "()"}}},
     "The Markdown table with one card per file of the page, then one row per `missing` path."},
    {"render_consumers",
     {{{"facts"}, {"fan_in"}, {"heading"}}},
     "The Markdown section of the page's consumers: the production files outside the page that use it through "
     "evidence (at most 12 rows), the references not counted because they only match a name, and the public "
     "top-level types and callables that nothing outside uses."},
    {"_unused_outside",
     {{{"facts"}, {"used"}, {"fan_in"}}},
     "The public, exported, top-level types and callables whose id is not in `used`: types first, then best "
     "first by rank_key, then by path."},
    {"neighbours",
     {{{"facts"}, {"limit"}}},
     "The declarations outside the page that its files use most: a list of (target record, count) pairs, "
     "highest count first, then fqn, then first counted; at most `limit`. Targets in the page or in test files "
     "are skipped, and a name match to an attribute or a constant does not count."},
    {"name_match_counts",
     {{{"facts"}}},
     "Counts of \"unique\" references to attributes and constants, keyed by (source path, target path) in "
     "first-counted order: inbound references first, then outbound; every file counts."},
};
inline constexpr std::size_t kFunctionCount = sizeof kFunctions / sizeof kFunctions[0];

}  // namespace scope
