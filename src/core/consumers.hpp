// The consumers section: who uses the page from outside, from evidence only,
// and which public top-level types and callables nothing outside uses.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "counter.hpp"
#include "view.hpp"

namespace scope {

inline constexpr std::size_t kConsumerRows = 12;
inline constexpr std::int64_t kConsumerNames = 4;
inline constexpr std::size_t kUnusedNames = 8;

struct ConsumerCounts {
  // Per consumer file (outside the page, not a test), in first-counted order:
  // the summed refs of its counted references by target name.
  std::vector<std::pair<StrId, OrderedCounter<StrId>>> uses;
  // Ids of the page declarations that some counted reference reaches.
  std::unordered_set<std::int64_t> used;
  // References from production files outside the page that are no evidence:
  // summed refs by resolution, and the files they come from.
  std::unordered_map<StrId, std::int64_t> left_out;
  std::unordered_set<StrId> left_files;
};

// Needs inbound source_path, target_id, target_path, target_name,
// target_kind, resolution, refs and the in_page, import_resolved and
// test_source bits.
ConsumerCounts count_consumers(const FactsView& view, const Vocab& vocab);

// The distinct languages of the page's files whose imports the index does
// not resolve, ascending. A file without a language (None or no attribute)
// contributes the empty string, the same as an empty language: the sentence
// then names an empty item rather than dropping the file silently. Needs
// files path and language and the import_resolved bits.
std::vector<std::string_view> unresolved_languages(const FactsView& view);

// Rows of the public, exported, top-level types and callables whose id is
// not in `used`: types first, then best first by rank key, then path.
// Needs symbols id, path, kind, name, is_export, start_line, end_line.
std::vector<std::size_t> unused_outside(const FactsView& view, const Vocab& vocab,
                                        const std::unordered_set<std::int64_t>& used, const FanInView& fan_in);

// The whole section as Markdown (UTF-8), ending in one line feed. Needs what
// the three functions above need, plus symbols name and kind for the unused line.
std::string render_consumers(const FactsView& view, const Vocab& vocab, const FanInView& fan_in,
                             std::string_view heading);

}  // namespace scope
