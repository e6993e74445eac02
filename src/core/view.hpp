// Native view of a page's facts: interned strings and integer columns.
//
// The binding layer fills these tables from the host's records, one column
// at a time and only when an algorithm needs it; the algorithms in this
// directory read them and never see a Python object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace scope {

// Index of an interned string. Strings are stored as UTF-8 (lone surrogates
// encoded as three bytes, so byte order is code point order) and compared by
// id for equality and by bytes for order.
using StrId = std::uint32_t;
inline constexpr StrId kNoStr = 0xffffffffu;

class StringPool {
 public:
  StrId intern(std::string_view text);
  // kNoStr when the text was never interned.
  StrId find(std::string_view text) const;
  std::string_view text(StrId id) const { return strings_[id]; }
  std::size_t size() const { return strings_.size(); }

 private:
  // A deque never moves its elements, so the views in index_ stay valid.
  std::deque<std::string> strings_;
  std::unordered_map<std::string_view, StrId> index_;
};

// Field numbers of the four record types. Every cell is stored as int64:
// integers as they are, strings as their StrId, truth values as 0 or 1.
namespace file_f {
enum : unsigned { id, path, language, count };
}
namespace sym_f {
enum : unsigned { id, path, name, fqn, kind, start_line, end_line, is_export, count };
}
namespace in_f {
enum : unsigned { source_path, target_id, target_path, target_name, target_kind, resolution, refs, count };
}
namespace out_f {
// `target` is the referenced declaration; the target_* cells are its fields.
enum : unsigned { source_path, resolution, refs, target, target_id, target_path, target_kind, target_fqn, count };
}  // namespace out_f

inline constexpr std::uint32_t bit(unsigned field) { return std::uint32_t{1} << field; }

// One record type as columns. A column is usable once its bit is in `loaded`.
struct Table {
  explicit Table(unsigned fields = 0) : cols(fields) {}

  std::size_t rows = 0;
  std::uint32_t loaded = 0;
  std::vector<std::vector<std::int64_t>> cols;

  bool has(std::uint32_t mask) const { return (loaded & mask) == mask; }
  std::int64_t num(unsigned field, std::size_t row) const { return cols[field][row]; }
  StrId str(unsigned field, std::size_t row) const { return static_cast<StrId>(cols[field][row]); }
  bool flag(unsigned field, std::size_t row) const { return cols[field][row] != 0; }
};

// Per-path facts, kept as bits in a vector indexed by StrId.
namespace path_bit {
enum : std::uint8_t { in_page = 1, import_resolved = 2, test_source = 4 };
}

struct FactsView {
  StringPool pool;
  Table files{file_f::count};
  Table symbols{sym_f::count};
  Table inbound{in_f::count};
  Table outbound{out_f::count};

  // path_bit flags; which of them are filled is in `path_bits_loaded`.
  std::vector<std::uint8_t> path_bits;
  std::uint8_t path_bits_loaded = 0;

  bool line_counts_loaded = false;
  std::unordered_map<StrId, std::int64_t> line_counts;
  bool summaries_loaded = false;
  std::unordered_map<StrId, StrId> summaries;

  // Distinct kind and resolution strings seen in any loaded column, in first
  // seen order: the per-call vocabulary is computed for these only.
  std::vector<StrId> kind_ids;
  std::vector<StrId> resolution_ids;

  bool path_has(StrId path, std::uint8_t which) const {
    return path < path_bits.size() && (path_bits[path] & which) != 0;
  }
  void set_path_bit(StrId path, std::uint8_t which);
  void note_kind(StrId id);
  void note_resolution(StrId id);

 private:
  std::vector<bool> kinds_seen_, resolutions_seen_;  // by StrId
};

// Membership of kind and resolution strings in the module's sets, computed
// for one call (the host may rebind the sets between calls).
namespace vocab_bit {
enum : std::uint16_t {
  evidence = 1,    // EVIDENCE_RESOLUTIONS
  trusted = 2,     // _TRUSTED
  name_match = 4,  // NAME_MATCH_KINDS
  type = 8,        // _TYPE_KINDS
  callable = 16,   // _CALLABLE_KINDS
  constant = 32,   // exactly "constant"
  unique = 64,     // exactly "unique"
  legacy = 128,    // exactly "legacy"
};
}

struct Vocab {
  std::vector<std::uint16_t> bits;
  bool has(StrId id, std::uint16_t which) const { return id < bits.size() && (bits[id] & which) != 0; }
  void set(StrId id, std::uint16_t which);
  // Sets the bits that depend on the text alone ("constant", "unique", "legacy").
  void set_literals(const StringPool& pool, StrId id);
};

}  // namespace scope
