// The native view of a page's facts: the host's records as columns, facts
// about paths, the vocabulary of kinds and resolutions, and the data derived
// from them that several algorithms share.
//
// The binding fills the columns from the host's records, only those an
// algorithm declares it reads (see needs.hpp), and derives the shared data
// once; the algorithms in this directory read the view and never see a
// Python object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "flat.hpp"
#include "schema.hpp"

// Checked builds (Debug, sanitizers) verify every column access against
// what the running algorithm declared it reads.
#ifdef SCOPE_CHECKED
#define SCOPE_CHECK(condition) ((condition) ? (void)0 : ::scope::check_failed(#condition, __FILE__, __LINE__))
#else
#define SCOPE_CHECK(condition) ((void)0)
#endif

namespace scope {

[[noreturn]] void check_failed(const char* condition, const char* file, int line);

// A column of integers: 32 bits a cell while every value fits, 64 after.
class IntColumn {
 public:
  void reserve(std::size_t rows) { narrow_.reserve(rows); }
  void push(std::int64_t value) {
    if (wide_.empty() && value == static_cast<std::int32_t>(value)) {
      narrow_.push_back(static_cast<std::int32_t>(value));
    } else {
      push_wide(value);
    }
  }
  std::int64_t operator[](std::size_t row) const { return wide_.empty() ? narrow_[row] : wide_[row]; }
  std::size_t size() const { return wide_.empty() ? narrow_.size() : wide_.size(); }
  std::size_t bytes() const { return narrow_.capacity() * 4 + wide_.capacity() * 8; }

 private:
  void push_wide(std::int64_t value);
  std::vector<std::int32_t> narrow_;
  std::vector<std::int64_t> wide_;
};

// One record type as columns: integers and truth values in IntColumns,
// strings as StrIds. A column is readable once committed.
class Table {
 public:
  explicit Table(const Schema& schema) : schema_(&schema), ints_(schema.count), strs_(schema.count) {}

  const Schema& schema() const { return *schema_; }
  std::size_t rows() const { return rows_; }
  Mask loaded() const { return loaded_; }
  bool has(Mask fields) const { return (loaded_ & fields) == fields; }

  std::int64_t num(unsigned field, std::size_t row) const {
    SCOPE_CHECK(readable(field));
    return ints_[field][row];
  }
  bool flag(unsigned field, std::size_t row) const { return num(field, row) != 0; }
  StrId str(unsigned field, std::size_t row) const {
    SCOPE_CHECK(readable(field));
    return strs_[field][row];
  }
  const std::vector<StrId>& strs(unsigned field) const {
    SCOPE_CHECK(readable(field));
    return strs_[field];
  }

  // Filling: whole columns at once, once every row was read.
  void commit(unsigned field, std::size_t rows, IntColumn column);
  void commit(unsigned field, std::size_t rows, std::vector<StrId> column);
  std::size_t bytes() const;

  // Checked builds: the fields the running algorithm may read.
  void allow(Mask fields) const { allowed_ = fields; }
  Mask allowed() const { return allowed_; }

 private:
  bool readable(unsigned field) const { return (loaded_ & allowed_ & bit(field)) != 0; }
  void mark(unsigned field, std::size_t rows);

  const Schema* schema_;
  std::size_t rows_ = 0;
  Mask loaded_ = 0;
  mutable Mask allowed_ = ~Mask{0};
  std::vector<IntColumn> ints_;
  std::vector<std::vector<StrId>> strs_;
};

// Facts about paths, as bits by StrId.
namespace path_bit {
enum : std::uint8_t { in_page = 1, import_resolved = 2, test_source = 4 };
}

// Membership of kind and resolution strings in the module's sets, computed
// for one call (the host may rebind the sets between calls), as bits by StrId.
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
  friend bool operator==(const Vocab&, const Vocab&) = default;
};

// Data derived from the columns alone, or from the columns and the
// vocabulary, that several algorithms read. derive() (needs.hpp) fills it.
namespace derived {
enum : std::uint8_t {
  symbol_slots = 1,    // slot of each declaration's id
  inbound_slots = 2,   // slot of each inbound reference's target id
  outbound_slots = 4,  // slot of each outbound reference's target id
  by_path = 8,         // the declarations grouped by path
  members = 16,        // which declarations lie inside a type of their file (vocabulary)
};
}

struct Derived {
  std::uint8_t ready = 0;
  // Numbers every symbol id the view holds densely: a number is a slot.
  // Declarations with equal ids, and references to that id, share a slot.
  DenseIndex ids;
  std::vector<std::uint32_t> symbol_slot, inbound_slot, outbound_slot;  // by row
  Groups symbols_by_path;                                               // keys are path StrIds
  std::vector<bool> member;                                             // by symbol row
  Vocab members_vocab;                                                  // the vocabulary `member` was computed with
};

struct FactsView {
  StringPool pool;
  Table files{kFileSchema};
  Table symbols{kSymbolSchema};
  Table inbound{kInboundSchema};
  Table outbound{kOutboundSchema};

  // path_bit flags by StrId; which of them are filled is in `path_bits_loaded`.
  std::vector<std::uint8_t> path_bits;
  std::uint8_t path_bits_loaded = 0;
  bool path_has(StrId path, std::uint8_t which) const {
    return path < path_bits.size() && (path_bits[path] & which) != 0;
  }
  void set_path_bit(StrId path, std::uint8_t which);

  // Line counts and summaries by path StrId (kNoLines / kNoStr: none).
  static constexpr std::int64_t kNoLines = INT64_MIN;
  bool line_counts_loaded = false, summaries_loaded = false;
  std::vector<std::int64_t> line_counts;
  std::vector<StrId> summaries;
  std::int64_t line_count(StrId path) const { return path < line_counts.size() ? line_counts[path] : kNoLines; }
  StrId summary(StrId path) const { return path < summaries.size() ? summaries[path] : kNoStr; }

  // Distinct kind and resolution strings of every loaded column, in first
  // seen order: the per-call vocabulary is computed for these only.
  std::vector<StrId> kind_ids, resolution_ids;
  void note_kinds(const Table& table, unsigned field);
  void note_resolutions(const Table& table, unsigned field);

  Derived derived;
  std::size_t bytes() const;

 private:
  std::vector<bool> kinds_seen_, resolutions_seen_;  // by StrId
};

}  // namespace scope
