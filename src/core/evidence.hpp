// Use evidence: which references show that their source uses their target.
#pragma once

#include "view.hpp"

namespace scope {

// "import" and "local" are evidence. A "unique" name match is accepted only
// where the index does not resolve imports for the target's language, and
// never for an attribute or a constant, whose short names collide.
inline bool is_use(const Vocab& vocab, StrId resolution, StrId target_kind, bool import_resolved) {
  if (vocab.has(resolution, vocab_bit::evidence)) return true;
  return vocab.has(resolution, vocab_bit::unique) && !import_resolved &&
         !vocab.has(target_kind, vocab_bit::name_match);
}

}  // namespace scope
