// The host's four record types as this module reads them. Each type is
// declared once, here: its fields, the attribute each is read from and how
// its value is kept. The binding converts the host's records by these
// tables; the algorithms read the columns by the same field numbers.
#pragma once

#include <cstdint>
#include <string_view>

namespace scope {

// How a field's value is kept in the native view.
enum class Cell : std::uint8_t {
  integer,        // an int, kept exactly (64 bits)
  id,             // an int symbol id, kept as its slot in the view's numbering of ids
  text,           // a str, interned
  optional_text,  // a str, or None or no attribute at all (StrId::none)
  truth,          // any object, kept as its truth value
  record,         // an object whose own fields are read (the outbound target)
};

// What a text field names, when its distinct values are asked of the
// module's sets: a kind (NAME_MATCH_KINDS, ...) or a resolution.
enum class Term : std::uint8_t { none, kind, resolution };

struct Field {
  std::string_view attr;  // the attribute of the host's record
  Cell cell;
  bool of_target = false;  // read from the record's `target` instead of the record
  Term term = Term::none;
  bool viewed = true;  // kept in the view; false: the loader alone reads it, from the record
};

struct Schema {
  std::string_view record;  // the host's type, for messages: "ScopeSymbol"
  const Field* fields;
  unsigned count;
};

// No record type has more fields than this.
inline constexpr unsigned kMaxFields = 8;

// A set of fields of one table, as bits.
using Mask = std::uint32_t;
inline constexpr Mask bit(unsigned field) { return Mask{1} << field; }
template <class... Fields>
constexpr Mask bits(Fields... fields) {
  return (Mask{0} | ... | bit(fields));
}

namespace file_f {
enum : unsigned { id, path, language, count };
}
inline constexpr Field kFileFields[] = {
    {"id", Cell::integer, false, Term::none, false},
    {"path", Cell::text},
    {"language", Cell::optional_text},
};

namespace sym_f {
enum : unsigned { id, path, name, kind, start_line, end_line, is_export, count };
}
inline constexpr Field kSymbolFields[] = {
    {"id", Cell::id},
    {"path", Cell::text},
    {"name", Cell::text},
    {"kind", Cell::text, false, Term::kind},
    {"start_line", Cell::integer},
    {"end_line", Cell::integer},
    {"is_export", Cell::truth},
};

namespace in_f {
enum : unsigned { source_path, target_id, target_path, target_name, target_kind, resolution, refs, count };
}
inline constexpr Field kInboundFields[] = {
    {"source_path", Cell::text},
    {"target_id", Cell::id},
    {"target_path", Cell::text},
    {"target_name", Cell::text},
    {"target_kind", Cell::text, false, Term::kind},
    {"resolution", Cell::text, false, Term::resolution},
    {"refs", Cell::integer},
};

namespace out_f {
// `target` is the referenced declaration; the target_* cells are its fields.
enum : unsigned { source_path, resolution, refs, target, target_id, target_path, target_kind, target_fqn, count };
}  // namespace out_f
inline constexpr Field kOutboundFields[] = {
    {"source_path", Cell::text},
    {"resolution", Cell::text, false, Term::resolution},
    {"refs", Cell::integer},
    {"target", Cell::record},
    {"id", Cell::id, true},
    {"path", Cell::text, true},
    {"kind", Cell::text, true, Term::kind},
    {"fqn", Cell::text, true},
};

// The fields of a schema that `test` says yes to.
constexpr Mask fields_where(const Schema& schema, bool (*test)(const Field&)) {
  Mask fields = 0;
  for (unsigned field = 0; field < schema.count; ++field)
    if (test(schema.fields[field])) fields |= Mask{1} << field;
  return fields;
}
// Those the view keeps; those read from the target; the target records.
constexpr Mask viewed_fields(const Schema& schema) {
  return fields_where(schema, [](const Field& field) { return field.viewed; });
}
constexpr Mask target_fields(const Schema& schema) {
  return fields_where(schema, [](const Field& field) { return field.of_target; });
}
constexpr Mask record_fields(const Schema& schema) {
  return fields_where(schema, [](const Field& field) { return field.cell == Cell::record; });
}

inline constexpr Schema kFileSchema{"ScopeFile", kFileFields, file_f::count};
inline constexpr Schema kSymbolSchema{"ScopeSymbol", kSymbolFields, sym_f::count};
inline constexpr Schema kInboundSchema{"InboundReference", kInboundFields, in_f::count};
inline constexpr Schema kOutboundSchema{"OutboundReference", kOutboundFields, out_f::count};

static_assert(sizeof kFileFields / sizeof(Field) == file_f::count);
static_assert(sizeof kSymbolFields / sizeof(Field) == sym_f::count);
static_assert(sizeof kInboundFields / sizeof(Field) == in_f::count);
static_assert(sizeof kOutboundFields / sizeof(Field) == out_f::count);
static_assert(file_f::count <= kMaxFields && sym_f::count <= kMaxFields && in_f::count <= kMaxFields &&
              out_f::count <= kMaxFields);

}  // namespace scope
