// Use evidence: which references show that their source uses their target.
#pragma once

#include "view.hpp"

namespace scope {

// "import" and "local" are evidence. A "unique" name match is accepted only
// where the index does not resolve imports for the target's language, and
// never for an attribute or a constant, whose short names collide.
inline bool is_use(const Vocab& vocab, StrId resolution, StrId target_kind, bool import_resolved) {
  if (vocab.has(resolution, vocab_bit::evidence)) return true;
  return vocab.has(resolution, vocab_bit::unique) && !import_resolved && !vocab.has(target_kind, vocab_bit::name_match);
}

}  // namespace scope

#include <cstdint>
#include <unordered_set>
#include <vector>

#include "counter.hpp"

namespace scope {

// Which declarations lie inside a type of their own file (bounds inclusive,
// a type never containing itself), by symbols row. Needs symbols id, path,
// kind, start_line and end_line. O(n log n) per file.
std::vector<bool> members(const FactsView& view, const Vocab& vocab);

// The counting half of the production fan-in.
struct FanInCounts {
  OrderedCounter<std::int64_t> outside;         // counted uses from outside the page
  OrderedCounter<std::int64_t> inside;          // counted uses from the page's own files
  std::unordered_set<std::int64_t> referenced;  // named by production code (not "legacy")
};

// Needs inbound source_path, resolution, target_id, target_kind, refs and the
// in_page and test_source bits.
FanInCounts count_fan_in(const FactsView& view, const Vocab& vocab);

// Rows of the declarations that pass every entry-point test but the path
// filter, in symbols order: public, exported, top-level callables and types
// that no production code references. Needs symbols id, path, name, kind,
// is_export, start_line, end_line.
std::vector<std::size_t> entry_candidates(const FactsView& view, const Vocab& vocab,
                                          const std::unordered_set<std::int64_t>& referenced);

}  // namespace scope
