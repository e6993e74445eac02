// The native view of a page's facts: the host's records as columns, facts
// about paths, the vocabulary of kinds and resolutions, and the data derived
// from them that several algorithms share.
//
// The binding fills the columns from the host's records, only those an
// algorithm declares it reads (see needs.hpp), and derives the shared data
// once; the algorithms in this directory read the view and never see a
// Python object.
#pragma once

#include <algorithm>
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

class Table;
// Whether the running call of this thread declared `field` of `table`
// (needs.hpp: Allowed). Calls on other threads never change the answer.
bool permitted(const Table& table, unsigned field);

// A column of cells that takes the narrow type while every value fits in
// it and the wide one from the first value that does not.
template <class Narrow, class Wide>
class Column {
 public:
  // Read access with the column's storage fixed: one predictable branch a cell.
  struct Reader {
    const Narrow* narrow;
    const Wide* wide;
    Wide operator[](std::size_t row) const { return wide != nullptr ? wide[row] : Wide{narrow[row]}; }
  };

  void reserve(std::size_t rows) { narrow_.reserve(rows); }
  void push(Wide value) {
    if (wide_.empty() && value == static_cast<Wide>(static_cast<Narrow>(value))) {
      narrow_.push_back(static_cast<Narrow>(value));
    } else {
      push_wide(value);
    }
  }
  Wide operator[](std::size_t row) const { return reader()[row]; }
  Reader reader() const { return {narrow_.data(), wide_.empty() ? nullptr : wide_.data()}; }
  std::size_t size() const { return wide_.empty() ? narrow_.size() : wide_.size(); }
  std::size_t bytes() const { return narrow_.capacity() * sizeof(Narrow) + wide_.capacity() * sizeof(Wide); }

 private:
  void push_wide(Wide value) {
    if (wide_.empty()) {
      wide_.reserve(std::max(narrow_.capacity(), narrow_.size() + 1));
      wide_.assign(narrow_.begin(), narrow_.end());
      narrow_ = {};
    }
    wide_.push_back(value);
  }
  std::vector<Narrow> narrow_;
  std::vector<Wide> wide_;
};

// Integers and truth values: line numbers and refs mostly fit 16 bits.
using IntColumn = Column<std::int16_t, std::int64_t>;

// Text and id cells: strings as StrIds and symbol ids as slots, kept as
// their numbers. Both number what one page holds, and stay below 2^16 on
// most pages.
class StrColumn : public Column<std::uint16_t, std::uint32_t> {
 public:
  void push(StrId id) { Column::push(static_cast<std::uint32_t>(id)); }
  void push(Slot slot) { Column::push(static_cast<std::uint32_t>(slot)); }
};

// Read access to a text or id column, its cells as StrIds or as slots.
template <class Id>
struct IdReader {
  StrColumn::Reader cells;
  Id operator[](std::size_t row) const { return static_cast<Id>(cells[row]); }
};

// One record type as columns, by field number. A column is readable once
// committed, and (in checked builds) when the running call of this thread
// declared it. A committed column never changes: any number of calls may
// read it while others commit more columns.
class Table {
 public:
  explicit Table(const Schema& schema) : schema_(&schema), ints_(schema.count), strs_(schema.count) {}

  const Schema& schema() const { return *schema_; }
  std::size_t rows() const { return rows_; }
  RowRange all() const { return RowRange{rows_}; }
  Mask loaded() const { return loaded_; }
  bool has(Mask fields) const { return (loaded_ & fields) == fields; }

  IntColumn::Reader ints(unsigned field) const {
    SCOPE_CHECK(readable(field));
    return ints_[field].reader();
  }
  IdReader<StrId> strs(unsigned field) const {
    SCOPE_CHECK(readable(field));
    return {strs_[field].reader()};
  }
  // The slots of an id column: kept as a text column keeps its StrIds.
  IdReader<Slot> slots(unsigned field) const {
    SCOPE_CHECK(readable(field));
    return {strs_[field].reader()};
  }
  // Integer and truth cells; the slot of an id cell; the StrId of a text cell.
  std::int64_t num(unsigned field, Row row) const { return ints(field)[index(row)]; }
  bool flag(unsigned field, Row row) const { return num(field, row) != 0; }
  Slot slot(unsigned field, Row row) const { return slots(field)[index(row)]; }
  StrId str(unsigned field, Row row) const { return strs(field)[index(row)]; }

  // Filling: whole columns at once, once every row was read.
  void commit(unsigned field, std::size_t rows, IntColumn column);
  void commit(unsigned field, std::size_t rows, StrColumn column);
  std::size_t bytes() const;

 private:
  bool readable(unsigned field) const { return (loaded_ & bit(field)) != 0 && permitted(*this, field); }
  void mark(unsigned field, std::size_t rows);

  const Schema* schema_;
  std::size_t rows_ = 0;
  Mask loaded_ = 0;
  std::vector<IntColumn> ints_;  // integer and truth cells
  std::vector<StrColumn> strs_;  // text and id cells
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
  constant = 32,   // exactly kConstantKind
  unique = 64,     // exactly kUniqueResolution
  legacy = 128,    // exactly kLegacyResolution
};
}

// Bits by StrId, read in a hot loop without going through their vector.
template <class Bits>
struct BitsReader {
  const Bits* bits;
  std::size_t size;
  // The bits of `id` (none past the end: the preparation sizes the vectors
  // to cover every id, so this test always passes and costs no misprediction).
  Bits get(StrId id) const { return index(id) < size ? bits[index(id)] : Bits{0}; }
  bool has(StrId id, Bits which) const { return (get(id) & which) != 0; }
};

struct Vocab {
  std::vector<std::uint16_t> bits;
  bool has(StrId id, std::uint16_t which) const { return index(id) < bits.size() && (bits[index(id)] & which) != 0; }
  BitsReader<std::uint16_t> reader() const { return {bits.data(), bits.size()}; }
  void set(StrId id, std::uint16_t which);
  // Sets the bits that depend on the text alone (constant, unique, legacy).
  void set_literals(const StringPool& pool, StrId id);
  friend bool operator==(const Vocab&, const Vocab&) = default;
  // Whether every string `older` knows has the same bits here: what was
  // derived with `older` from columns loaded then still holds.
  bool extends(const Vocab& older) const {
    return bits.size() >= older.bits.size() && std::equal(older.bits.begin(), older.bits.end(), bits.begin());
  }
};

// Data derived from the columns alone, or from the columns and the
// vocabulary, that several algorithms read. derive() (needs.hpp) fills it.
namespace derived {
enum : std::uint8_t {
  by_path = 1,          // the declarations grouped by path
  members = 2,          // which declarations lie inside a type of their file (vocabulary)
  inbound_terms = 4,    // what each inbound reference is, in in_term bits (vocabulary)
  inbound_uses = 8,     // and whether it is a use, its in_term::use and to_itself bits
  outbound_terms = 16,  // what each outbound reference is, in out_term bits (vocabulary)
};
constexpr std::uint8_t kOfVocabulary = members | inbound_terms | inbound_uses | outbound_terms;
}  // namespace derived

// What an inbound reference is, as its source, resolution, target kind and
// target path make it under the module's sets: computed once a vocabulary
// and read by every function that walks the inbound references.
namespace in_term {
enum : std::uint8_t {
  from_test = 1,    // the source is a test file
  from_page = 2,    // the source is one of the page's files
  counted = 4,      // counts toward the fan-in
  marks = 8,        // marks its target as referenced (not a legacy resolution)
  use = 16,         // evidence that the source uses the target (is_use)
  name_match = 32,  // is_name_match
  to_itself = 64,   // the source is the target's own file
};
}
namespace out_term {
enum : std::uint8_t {
  to_page = 1,     // the target lies in one of the page's files
  use = 2,         // is_outbound_use
  name_match = 4,  // is_name_match
};
}

struct Derived {
  std::uint8_t ready = 0;
  Vocab vocab;                                              // the vocabulary of what depends on one
  Groups<StrId, Row> symbols_by_path;                       // symbol rows by path
  std::vector<bool> member;                                 // by symbol row
  std::vector<std::uint8_t> inbound_terms, outbound_terms;  // by row
};

struct FactsView {
  StringPool pool;
  // Every symbol id of the view (declarations' and reference targets'),
  // numbered densely: id cells hold these numbers, their slots. Declarations
  // with equal ids, and the references to that id, share a slot.
  DenseIndex<Slot, true> ids;  // narrow: an index numbers its ids in runs
  std::int64_t id_of(Slot slot) const { return static_cast<std::int64_t>(ids.key(slot)); }
  Table files{kFileSchema};
  Table symbols{kSymbolSchema};
  Table inbound{kInboundSchema};
  Table outbound{kOutboundSchema};

  // path_bit flags by StrId; which of them are filled is in `path_bits_loaded`.
  std::vector<std::uint8_t> path_bits;
  std::uint8_t path_bits_loaded = 0;
  bool path_has(StrId path, std::uint8_t which) const {
    return index(path) < path_bits.size() && (path_bits[index(path)] & which) != 0;
  }
  void set_path_bit(StrId path, std::uint8_t which);
  BitsReader<std::uint8_t> path_reader() const { return {path_bits.data(), path_bits.size()}; }

  // Line counts and summaries by path StrId (kNoLines / StrId::none: none).
  static constexpr std::int64_t kNoLines = INT64_MIN;
  bool line_counts_loaded = false, summaries_loaded = false;
  std::vector<std::int64_t> line_counts;
  std::vector<StrId> summaries;
  std::int64_t line_count(StrId path) const {
    return index(path) < line_counts.size() ? line_counts[index(path)] : kNoLines;
  }
  StrId summary(StrId path) const { return index(path) < summaries.size() ? summaries[index(path)] : StrId::none; }

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
