// The rules of the module, each written once: the module's constants, the
// kind and resolution strings they name, what counts as evidence of use
// (inbound and outbound), a name match, what makes a declaration the page's
// API or a public top-level type or callable, which references count toward
// the fan-in and which make a file's user, and the rank key. The native view and
// the functions that take single host objects (is_use, FanIn.api, rank_key)
// apply the same definitions; the tests that a rule makes are passed in as
// callables, so each is asked only when the rule needs its answer.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace scope {

// How many names one cell of a file card shows (the default limit of `_named`).
inline constexpr std::int64_t kCardNames = 3;
// The consumers section: at most this many rows, names per row, unused names.
inline constexpr std::int64_t kConsumerRows = 12;
inline constexpr std::int64_t kConsumerNames = 4;
inline constexpr std::int64_t kUnusedNames = 8;
// Body sizes beyond this many lines rank alike.
inline constexpr std::int64_t kSizeCap = 40;

// The module's own sets (EVIDENCE_RESOLUTIONS, _TYPE_KINDS), and the kind and
// resolution strings the rules name exactly.
inline constexpr std::array<std::string_view, 2> kEvidenceResolutionNames = {"import", "local"};
inline constexpr std::array<std::string_view, 5> kTypeKindNames = {"enum", "class", "interface", "type", "struct"};
inline constexpr std::string_view kConstantKind = "constant";    // weighs half in the rank key
inline constexpr std::string_view kUniqueResolution = "unique";  // a match of the short name alone
inline constexpr std::string_view kLegacyResolution = "legacy";  // never marks its target as referenced

// Sums of `refs` are exact: a sum that leaves the 64-bit range is an error,
// never a wrapped value.
inline std::int64_t checked_add(std::int64_t a, std::int64_t b) {
  std::int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) throw std::overflow_error("a sum of refs does not fit in 64 bits");
  return sum;
}

// Whether a reference is evidence that its source uses its target. "import"
// and "local" are; a "unique" name match is accepted only where the index
// does not resolve imports for the target's language, and never for an
// attribute or a constant, whose short names collide. Tested in this order,
// stopping at the first that decides.
template <class Evidence, class Unique, class Resolved, class NameMatch>
bool is_use(Evidence evidence, Unique unique, Resolved import_resolved, NameMatch name_match) {
  if (evidence()) return true;
  return unique() && !import_resolved() && !name_match();
}

// Whether a reference only matches a name: a unique resolution to a kind
// whose short names collide (NAME_MATCH_KINDS: attributes, constants).
inline bool is_name_match(bool unique, bool name_match_kind) { return unique && name_match_kind; }

// Whether an outbound reference is evidence that the page uses its target:
// evidence, or any resolution to a kind whose names do not collide.
inline bool is_outbound_use(bool evidence, bool name_match_kind) { return evidence || !name_match_kind; }

// Whether an inbound reference makes its source a user of the target's file:
// a use, from production code, from another file.
inline bool counts_as_file_user(bool use, bool from_test, bool to_itself) { return use && !from_test && !to_itself; }

// Whether a declaration is a public top-level type or callable: a type or
// callable kind, exported, a name without a leading "_", and not inside a
// type of its own file.
inline bool is_private_name(std::string_view name) { return name.starts_with('_'); }
inline bool is_public_top_level(bool type_or_callable, bool exported, std::string_view name, bool member) {
  return type_or_callable && exported && !is_private_name(name) && !member;
}

// Whether a declaration is the page's API: some counted use from outside the
// page (a count above 0), or an entry point. The entry points are asked only
// when there is no outside use.
template <class HasOutsideUses, class InEntry>
bool is_api(HasOutsideUses has_outside_uses, InEntry in_entry) {
  return has_outside_uses() || in_entry();
}

// Whether a production reference counts toward the fan-in: evidence, or a
// trusted resolution to anything but an attribute or a constant.
inline bool counts_toward_fan_in(bool evidence, bool trusted, bool name_match_kind) {
  return evidence || (trusted && !name_match_kind);
}

// Lower sorts first: the page's API, then types and callables, public names,
// more uses from outside (a constant weighs half), longer bodies (capped),
// more uses from inside, earlier lines. The use and size elements are 128-bit
// so that every key is exact whatever 64-bit values the records hold.
struct RankKey {
  bool not_api;
  std::int64_t kind_group;
  bool is_private;
  __int128 outside;
  __int128 size;
  __int128 inside;
  std::int64_t start_line;

  friend auto operator<=>(const RankKey&, const RankKey&) = default;
};

// What the key of one declaration is made from.
struct KeyInput {
  bool api;
  bool type_or_callable;  // kind is in _TYPE_KINDS or _CALLABLE_KINDS
  bool constant;          // kind is exactly "constant"
  bool is_private;        // name starts with "_"
  std::int64_t outside;   // uses from outside the page
  std::int64_t inside;    // uses from the page's own files
  std::int64_t start_line;
  std::int64_t end_line;
};

inline RankKey rank_key(const KeyInput& in) {
  const __int128 weight = in.constant ? 1 : 2;
  const __int128 size = __int128{in.end_line} - in.start_line;
  return RankKey{
      !in.api,
      in.type_or_callable ? 0 : 1,
      in.is_private,
      -(weight * in.outside),
      -std::min<__int128>(size, kSizeCap),
      -(weight * in.inside),
      in.start_line,
  };
}

}  // namespace scope
