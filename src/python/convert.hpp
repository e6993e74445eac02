// Conversion of the host's records and containers into the native view.
// Columns are read as the schema declares them; each is read once per
// ScopeFacts and kept. A ScopeFacts' record tables are read whole: the first
// call that needs a column of a table reads every column of it in one walk.
// A field that cannot be read there (a missing attribute, a property that
// raises, a value of the wrong type or beyond 64 bits) fails only the calls
// that need it, with the error attribute access gave; any other conversion
// error propagates and leaves the view as it was.
#pragma once

#include "native.hpp"

namespace scope::py {

// The id of a str in `native`'s pool (interning it when new). The hash is
// the str's own, so no text is hashed twice.
StrId intern(NativeFacts& native, PyObject* text, Where where);
// The same into a pool of its own, `strings` holding each id's str object.
StrId intern(StringPool& pool, std::vector<PyRef>& strings, PyObject* text, Where where);

// Reads the `wanted` fields of `table` that are not loaded yet from the
// records of the tuple `records` (the host's objects for `argument`).
void load_columns(const ModuleState& state, NativeFacts& native, TableId table, PyObject* records, Mask wanted,
                  const char* argument);

// The loads of one ScopeFacts: columns of its four tables (every column of
// the table, the first time, then `wanted`, or the error of a field of
// `wanted` that could not be read), the bits of its path sets, its line
// counts and summaries.
void load_table(const ModuleState& state, FactsObject* facts, TableId table, Mask wanted);
// Reads the table as load_table does, in one walk when it was not read yet,
// without raising: whether every field of `wanted` could be read.
bool walk_table(const ModuleState& state, FactsObject* facts, TableId table, Mask wanted);
void load_path_bits(const ModuleState& state, FactsObject* facts, std::uint8_t which);
void load_line_counts(FactsObject* facts);
void load_summaries(FactsObject* facts);

}  // namespace scope::py
