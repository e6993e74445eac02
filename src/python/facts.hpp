// ScopeFacts: the module's immutable record of one page, and its native view.
#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "../core/counter.hpp"
#include "../core/view.hpp"
#include "pyref.hpp"

namespace scope::py {

// Field order of ScopeFacts.
enum FactsField : int {
  kFiles,
  kSymbols,
  kInbound,
  kOutbound,
  kImportResolvedPaths,
  kTestSources,
  kLineCounts,
  kSummaries,
  kTestImports,
  kFactsFieldCount
};

// The native view of one ScopeFacts plus the Python objects that results hand
// back: the str object of every interned string and the outbound targets.
struct NativeFacts {
  FactsView view;
  std::vector<PyRef> strings;  // indexed by StrId
  std::vector<PyRef> targets;  // outbound `target` objects, by row
  bool records_known = false;  // its declaration records are in the record index
};

// Where a declaration record of some ScopeFacts sits in that facts' native
// view, so that a list of the facts' own records (as ranked_by_file hands
// them out) is read from the view instead of attribute by attribute.
struct FactsObject;
struct KnownRecord {
  FactsObject* facts;  // borrowed: hold a reference while the view is in use
  NativeFacts* native;
  std::size_t row;
};
// The view and row of a record, or {nullptr, 0} when no live ScopeFacts
// holds it.
KnownRecord known_record(PyObject* record);

struct FactsObject {
  PyObject_HEAD
  PyObject* fields[kFactsFieldCount];  // owned; maps are read-only proxies
  NativeFacts* native;                 // owned; created on first use
};

bool facts_check(PyObject* object);
// `object` as ScopeFacts, or TypeError naming function and argument.
FactsObject* as_facts(PyObject* object, const char* argument = "facts");
NativeFacts& native_of(FactsObject* facts);
bool init_facts_type(PyObject* module);

// The field tuples (borrowed).
inline PyObject* field(FactsObject* facts, FactsField which) { return facts->fields[which]; }

// --- Loading the native view ------------------------------------------------
// Each `need_*` converts the listed columns that are not converted yet and
// keeps them; a later call converts nothing. Errors raised while reading a
// record (a missing attribute, a property that raises, a value of the wrong
// type or beyond 64 bits) propagate as PyError.
void need_files(FactsObject* facts, std::uint32_t fields);
void need_symbols(FactsObject* facts, std::uint32_t fields);
void need_inbound(FactsObject* facts, std::uint32_t fields);
void need_outbound(FactsObject* facts, std::uint32_t fields);
// path_bit::in_page, import_resolved and/or test_source.
void need_path_bits(FactsObject* facts, std::uint8_t which);
void need_line_counts(FactsObject* facts);
// The ids of the facts' declarations (converting them if needed): the ids a
// call asks a fan-in about.
std::span<const std::int64_t> symbol_ids(FactsObject* facts);
void need_summaries(FactsObject* facts);

// Membership of every kind and resolution string of the view in the module's
// sets, looked up now.
Vocab vocab_for(FactsObject* facts);
Vocab vocab_for(NativeFacts& native);

// Declarations that come from no ScopeFacts (a list the host passes as
// `argument`): reads the `fields` (sym_f bits) of every record of `records`
// (a tuple) into `native.view.symbols`, interning into `native`'s pool.
// Kinds are noted, so vocab_for(native) covers them.
void load_symbol_records(NativeFacts& native, PyObject* records, std::uint32_t fields, const char* argument);

// Interning of strings read from Python objects.
StrId intern(StringPool& pool, std::vector<PyRef>& strings, PyObject* text, Where where);
// UTF-8 bytes (surrogates pass through) of a str; the view lives as long as `text`
// or `scratch`.
std::string_view utf8_of(PyObject* text, PyRef& scratch, Where where);
PyRef str_from_utf8(std::string_view text);

// Vocabulary bits for a set of kind and resolution ids of any pool.
Vocab vocab_of(const StringPool& pool, const std::vector<PyRef>& strings, std::vector<StrId> kinds,
               std::vector<StrId> resolutions);

// A new list of the items of the tuple `records` at `rows`: the host's own
// objects, not copies.
PyRef records_at(PyObject* records, const std::vector<std::size_t>& rows);

// Symbol ids in the host's containers. A record's id is an int; a key or a
// member of a host container matches it when Python says they are equal, as
// `container.get(id)` or `id in container` would. Int (and float) keys are
// read at once; when a container holds any other key (a Decimal, say), each
// id in `needed` is asked of it in turn.
std::unordered_set<std::int64_t> ids_in(PyObject* container, std::span<const std::int64_t> needed, Where where);

// A FanIn-like object (`outside`, `inside`, `entry`) as native maps, for the
// symbol ids in `needed`; `entry` is read only when `with_entry` is set.
// Counts must be ints.
FanInView fan_in_view(PyObject* fan_in, std::span<const std::int64_t> needed, bool with_entry = true);

// For tests: the converted columns of one table, as Python values.
PyObject* native_columns(PyObject* self, PyObject* args, PyObject* kwargs);

}  // namespace scope::py
