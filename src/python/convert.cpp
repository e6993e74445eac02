#include "convert.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <string>
#include <tuple>

namespace scope::py {

namespace {

// Reads one attribute of many records, where it can without the attribute
// protocol, always with the value attribute access would give:
// - a slot: the type looks attributes up the standard way and the name is a
//   member descriptor of a class the record's type derives from (so the
//   record has that slot at that offset), as for slotted dataclasses;
// - the instance dict: the type looks attributes up the standard way, keeps
//   a dict at a fixed offset, and has no data descriptor of that name (which
//   would come first), as for SimpleNamespace;
// - otherwise, and whenever the fast read finds nothing, PyObject_GetAttr.
// The plan is made per type and remade when the type or its version changes.
class AttributeReader {
 public:
  explicit AttributeReader(PyObject* name) : name_(name) {}

  // A new reference, or null with the exception that attribute access raises.
  PyObject* read(PyObject* record) {
    PyTypeObject* type = Py_TYPE(record);
    if (type != type_ || type_version(type) != version_) learn(type);
    if (way_ != Way::protocol) {
      PyObject* found = *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(record) + offset_);
      if (way_ == Way::slot && found != nullptr) return Py_NewRef(found);
      if (way_ == Way::dict && found != nullptr && PyDict_Check(found)) {
        // Held while it is searched: a key's __eq__ may give the record another dict.
        PyRef dict = PyRef::borrow(found);
        PyObject* value = PyDict_GetItemWithError(dict.get(), name_);  // borrowed from the dict held
        if (value != nullptr) return Py_NewRef(value);
        if (PyErr_Occurred()) return nullptr;
      }
    }
    return PyObject_GetAttr(record, name_);
  }

 private:
  enum class Way { protocol, slot, dict };

  void learn(PyTypeObject* type) {
    type_ = type;
    way_ = Way::protocol;
    PyObject* descriptor = lookup_in_type(type, name_);  // borrowed; also sets the version tag
    version_ = type_version(type);
    if (type->tp_getattro != PyObject_GenericGetAttr || version_ == 0) return;
    if (descriptor != nullptr && Py_IS_TYPE(descriptor, &PyMemberDescr_Type)) {
      offset_ = slot_offset(descriptor, type);
      if (offset_ >= 0) way_ = Way::slot;
      return;
    }
    if (descriptor != nullptr && Py_TYPE(descriptor)->tp_descr_set != nullptr) return;  // a data descriptor
    if (type->tp_dictoffset <= 0 || PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT)) return;
    way_ = Way::dict;
    offset_ = type->tp_dictoffset;
  }

  PyObject* name_;  // borrowed from the module state
  PyTypeObject* type_ = nullptr;
  unsigned int version_ = 0;
  Way way_ = Way::protocol;
  Py_ssize_t offset_ = 0;
};

std::int64_t integer_of(PyObject* value, Where where) {
  if (PyLong_CheckExact(value)) {
    int overflow = 0;
    long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow == 0) return number;
  }
  return as_int64(value, where);
}

bool truth_of(PyObject* value) {
  if (value == Py_True) return true;
  if (value == Py_False || value == Py_None) return false;
  return truth(value);
}

// A column being read: the cells of one field, committed when all rows were read.
struct Pending {
  unsigned field;
  const Field& declared;
  AttributeReader reader;
  const char* label;  // "ScopeSymbol.kind", for messages (see label_of)
  IntColumn ints;
  StrColumn strs;
  std::vector<PyRef> objects;
  bool failed = false;  // a deferring walk met an error reading it: `unread` says how
  Unread unread;
};

void read_row(NativeFacts& native, Pending& column, PyObject* owner, const char* argument) {
  PyRef value = PyRef::steal(column.reader.read(owner));
  if (!value) {
    if (column.declared.cell != Cell::optional_text || !PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyError{};
    PyErr_Clear();  // an absent optional field reads as None
    value = PyRef::borrow(Py_None);
  }
  const Where where{argument, column.label};
  switch (column.declared.cell) {
    case Cell::integer:
      column.ints.push(integer_of(value.get(), where));
      break;
    case Cell::id: {
      const auto [slot, fresh] = native.view.ids.insert(static_cast<std::uint64_t>(integer_of(value.get(), where)));
      if (fresh) {
        if (index(slot) >= native.id_objects.size()) native.id_objects.resize(native.view.ids.size());
        ++native.ids_without_object;
      }
      // The first plain int met for a slot is kept, the host's own object.
      if (native.ids_without_object > 0 && PyLong_CheckExact(value.get()) && index(slot) < native.id_objects.size() &&
          !native.id_objects[index(slot)]) {
        native.id_objects[index(slot)] = value;
        --native.ids_without_object;
      }
      column.strs.push(slot);
      break;
    }
    case Cell::truth:
      column.ints.push(truth_of(value.get()) ? 1 : 0);
      break;
    case Cell::text:
      column.strs.push(intern(native, value.get(), where));
      break;
    case Cell::optional_text:
      column.strs.push(value.get() == Py_None ? StrId::none : intern(native, value.get(), where));
      break;
    case Cell::record:
      column.objects.push_back(std::move(value));
      break;
  }
}

// A field's name in messages, "ScopeSymbol.kind" or
// "OutboundReference.target.id", made once for every walk.
const char* label_of(TableId id, unsigned field) {
  static const auto labels = [] {
    std::array<std::array<std::string, kMaxFields>, kTableCount> made;
    for (int table = 0; table < kTableCount; ++table) {
      const Schema& schema = schema_of(static_cast<TableId>(table));
      for (unsigned at = 0; at < schema.count; ++at) {
        const Field& declared = schema.fields[at];
        made[table][at] =
            std::string(schema.record) + "." + (declared.of_target ? "target." : "") + std::string(declared.attr);
      }
    }
    return made;
  }();
  return labels[id][field].c_str();
}

// Fetches, as a hint, where a record keeps its attributes apart from itself:
// its instance dict at the offset its type gives, or the values of its
// managed dict.
void prefetch_attributes(PyObject* record) {
  PyTypeObject* type = Py_TYPE(record);
  if (type->tp_dictoffset > 0 && !PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT)) {
    __builtin_prefetch(*reinterpret_cast<PyObject**>(reinterpret_cast<char*>(record) + type->tp_dictoffset));
  } else {
    prefetch_managed_values(record);
  }
}

// The sizes of the cache of interned str objects by address (see intern()).
constexpr std::size_t kSeenMost = std::size_t{1} << 16, kSeenKept = 1024;

// From how many records on the conversion fetches what they keep apart:
// fewer stay in the cache anyway.
constexpr Py_ssize_t kFetchApartRows = 4096;

// How many records ahead the conversion fetches a record's memory.
constexpr Py_ssize_t kAhead = 8;

// The exception being raised, taken with its traceback as it stands now,
// and raised again as it was, with that traceback (not with the frames it
// went through since), as often as a call needs it.
void take_raised(PyRef& error, PyRef& traceback) {
#if PY_VERSION_HEX >= 0x030C0000
  error = PyRef::steal(PyErr_GetRaisedException());
#else
  PyObject *type, *value, *trace;
  PyErr_Fetch(&type, &value, &trace);
  PyErr_NormalizeException(&type, &value, &trace);
  if (trace != nullptr) PyException_SetTraceback(value, trace);
  Py_XDECREF(type);
  Py_XDECREF(trace);
  error = PyRef::steal(value);
#endif
  traceback = PyRef::steal(PyException_GetTraceback(error.get()));
}

[[noreturn]] void raise_again(const Unread& unread) {
  PyException_SetTraceback(unread.error.get(), unread.traceback ? unread.traceback.get() : Py_None);
#if PY_VERSION_HEX >= 0x030C0000
  PyErr_SetRaisedException(Py_NewRef(unread.error.get()));
#else
  PyErr_Restore(Py_NewRef(Py_TYPE(unread.error.get())), Py_NewRef(unread.error.get()),
                Py_XNewRef(unread.traceback.get()));
#endif
  throw PyError{};
}

// How a walk meets an error reading a column.
enum class OnError {
  raise,  // it propagates at once: the view is left as it was
  // The column is dropped and the walk goes on with the others (see Unread).
  // A BaseException that is no Exception (KeyboardInterrupt, SystemExit)
  // still propagates at once.
  defer,
};

// Reads the fields of `wanted` for every row, in one walk over the records.
// A target field is read from the row's target record, read earlier in the
// same walk (the schema puts `target` before its fields) or by an earlier
// walk. A deferring walk files the fields it dropped in the native facts'
// `unread` of the table.
void read_columns(const ModuleState& state, NativeFacts& native, TableId id, Table& table, PyObject* records,
                  Mask wanted, const char* argument, OnError on_error) {
  const Schema& schema = table.schema();
  std::vector<Pending> columns;
  Pending* target = nullptr;      // the column of the target records, when this walk reads it
  bool targets_kept = false;      // read by an earlier walk, as the facts' targets
  columns.reserve(schema.count);  // never reallocated: `target` points into it
  for (unsigned field = 0; field < schema.count; ++field) {
    const Field& declared = schema.fields[field];
    if (declared.cell == Cell::record && table.has(bit(field))) targets_kept = true;
    if (!(wanted & bit(field))) continue;
    columns.push_back(
        {field, declared, AttributeReader(state.attrs[id][field]), label_of(id, field), {}, {}, {}, false, {}});
    if (declared.cell == Cell::record) target = &columns.back();
  }
  const Py_ssize_t rows = PyTuple_GET_SIZE(records);
  for (Pending& column : columns) {
    if (column.declared.cell == Cell::integer || column.declared.cell == Cell::truth)
      column.ints.reserve(rows);
    else if (column.declared.cell == Cell::record)
      column.objects.reserve(rows);
    else
      column.strs.reserve(rows);
  }
  const bool fetch_apart = rows >= kFetchApartRows;
  for (Py_ssize_t row = 0; row < rows; ++row) {
    // The records lie scattered in memory: fetch one a few rows ahead, and
    // what it keeps apart (fetched earlier) half as many rows ahead.
    if (row + kAhead < rows) __builtin_prefetch(PyTuple_GET_ITEM(records, row + kAhead));
    if (fetch_apart && row + kAhead / 2 < rows) prefetch_attributes(PyTuple_GET_ITEM(records, row + kAhead / 2));
    PyObject* record = PyTuple_GET_ITEM(records, row);  // borrowed from the facts' own tuple
    for (Pending& column : columns) {
      if (column.failed) continue;
      PyObject* owner = record;
      if (column.declared.of_target) {
        if (target != nullptr ? target->failed : !targets_kept) {
          column.failed = true;  // no target to read it from (a strict walk always has them)
          continue;
        }
        owner = target != nullptr ? target->objects.back().get() : native.targets[static_cast<std::size_t>(row)].get();
      }
      auto drop = [&] {
        if (on_error == OnError::raise || !PyErr_ExceptionMatches(PyExc_Exception)) return false;
        column.failed = true;
        column.unread.row = nth<Row>(static_cast<std::size_t>(row));
        column.unread.of_target = column.declared.of_target;
        return true;
      };
      try {
        read_row(native, column, owner, argument);
      } catch (const MadeError&) {
        if (!drop()) throw;
        PyErr_Clear();
      } catch (const PyError&) {
        if (!drop()) throw;
        take_raised(column.unread.error, column.unread.traceback);
      }
    }
  }
  // A conversion run from inside host code may have finished first; its
  // columns are the same, so keep whichever came first.
  FactsView& view = native.view;
  for (Pending& column : columns) {
    if (column.failed) {
      UnreadFields& unread = native.unread[id];
      unread.fields |= bit(column.field);
      unread.unread[column.field] = std::move(column.unread);
    }
    if (column.failed || table.has(bit(column.field))) continue;
    const auto count = static_cast<std::size_t>(rows);
    switch (column.declared.cell) {
      case Cell::integer:
      case Cell::truth:
        table.commit(column.field, count, std::move(column.ints));
        break;
      case Cell::record:
        native.targets = std::move(column.objects);
        table.commit(column.field, count, StrColumn{});  // the objects are the native facts' targets
        break;
      default:
        table.commit(column.field, count, std::move(column.strs));
    }
    if (column.declared.term == Term::kind) view.note_kinds(table, column.field);
    if (column.declared.term == Term::resolution) view.note_resolutions(table, column.field);
  }
}

// Marks every str member of a set field with `which`: membership is by
// equality with a path string, so other members never match.
void mark_paths(NativeFacts& native, PyObject* members, std::uint8_t which) {
  std::vector<StrId> marked;
  PyRef iterator = check(PyObject_GetIter(members));
  while (PyRef item = PyRef::steal(PyIter_Next(iterator.get())))
    if (PyUnicode_Check(item.get())) marked.push_back(intern(native, item.get(), Where{"facts"}));
  if (PyErr_Occurred()) throw PyError{};
  for (StrId path : marked) native.view.set_path_bit(path, which);
  native.view.path_bits_loaded |= which;
}

// The str keys of one of the facts' maps with their values, read by `value_of`.
template <class Value, class ValueOf>
std::vector<Value> by_path(NativeFacts& native, PyObject* mapping, Value none, const char* what, ValueOf value_of) {
  std::vector<std::pair<StrId, Value>> entries;
  for (const auto& [key, value] : mapping_items(mapping, Where{"facts", what})) {
    if (!PyUnicode_Check(key.get())) continue;  // never equal to a path
    StrId path = intern(native, key.get(), Where{"facts", what});
    entries.emplace_back(path, value_of(value.get()));
  }
  std::vector<Value> values(native.view.pool.size(), none);
  for (const auto& [path, value] : entries) values[index(path)] = value;
  return values;
}

// Lists the facts among those whose declarations were converted, once.
void enlist(const ModuleState& state, FactsObject* facts) {
  NativeFacts& native = native_of(facts);
  if (native.live || native.view.symbols.loaded() == 0) return;
  native.live = *state.facts_with_records;
  native.live->push_back(facts);
}

}  // namespace

PyObject* NativeFacts::new_id_object(Slot slot) {
  if (index(slot) >= id_objects.size()) id_objects.resize(view.ids.size());
  if (!id_objects[index(slot)]) {
    id_objects[index(slot)] = new_int(view.id_of(slot));
    --ids_without_object;  // every slot was counted when the reading of ids numbered it
  }
  return id_objects[index(slot)].get();
}

StrId intern(StringPool& pool, std::vector<PyRef>& strings, PyObject* text, Where where) {
  if (!PyUnicode_Check(text)) wrong_type(where, "str", text);
  // The hash of the text: a subclass's own __hash__ is not the text's.
  Py_hash_t hash = PyUnicode_CheckExact(text) ? PyObject_Hash(text) : PyUnicode_Type.tp_hash(text);
  if (hash == -1) throw PyError{};
  PyRef scratch;
  std::string_view bytes = utf8_of(text, scratch, where);
  auto [id, fresh] = pool.intern(bytes, static_cast<std::uint64_t>(hash));
  if (fresh) strings.push_back(PyRef::borrow(text));
  return id;
}

StrId intern(NativeFacts& native, PyObject* text, Where where) {
  // Strings the records share are found by address, in a cache as large as
  // twice the distinct strings met, up to 2^16 entries (1 MiB) while a table
  // is read, and up to kSeenKept entries after.
  const std::size_t size = std::min<std::size_t>(kSeenMost, std::bit_ceil(2 * native.strings.size() + 16));
  if (native.seen.size() < size) native.seen.assign(size, {nullptr, StrId::none});
  auto& cached = native.seen[(reinterpret_cast<std::uintptr_t>(text) >> 4) & (native.seen.size() - 1)];
  if (cached.first == text) return cached.second;
  const StrId id = intern(native.view.pool, native.strings, text, where);
  if (native.string(id).get() == text) cached = {text, id};
  return id;
}

void load_columns(const ModuleState& state, NativeFacts& native, TableId id, PyObject* records, Mask wanted,
                  const char* argument) {
  Table& table = table_of(native.view, id);
  Mask missing = wanted & ~table.loaded();
  if (missing == 0) return;
  const Mask via_target = target_fields(table.schema());
  // The target records first: the target's fields are read from them.
  if (missing & via_target) missing |= record_fields(table.schema()) & ~table.loaded();
  read_columns(state, native, id, table, records, missing & ~via_target, argument, OnError::raise);
  if (missing & via_target)
    read_columns(state, native, id, table, records, missing & via_target & ~table.loaded(), argument, OnError::raise);
}

bool walk_table(const ModuleState& state, FactsObject* facts, TableId table, Mask wanted) {
  NativeFacts& native = native_of(facts);
  Table& columns = table_of(native.view, table);
  if ((wanted & ~columns.loaded()) == 0) return true;
  // The first call that needs a column of the table reads every field the
  // module reads of it, in one walk over the records: a record is visited
  // once per facts, not once per call that needs a field not read yet. A
  // field that could not be read waits, unread, for a call that needs it.
  const Mask walk = viewed_fields(columns.schema()) & ~columns.loaded() & ~native.unread[table].fields;
  if (walk & wanted) read_columns(state, native, table, columns, facts->fields[table], walk, "facts", OnError::defer);
  enlist(state, facts);
  // A large cache is dropped (the next reading fills it again); a small one stays.
  if (native.seen.size() > kSeenKept) std::vector<std::pair<PyObject*, StrId>>().swap(native.seen);
  return (wanted & ~columns.loaded()) == 0;
}

void load_table(const ModuleState& state, FactsObject* facts, TableId table, Mask wanted) {
  if (walk_table(state, facts, table, wanted)) return;
  NativeFacts& native = native_of(facts);
  Table& columns = table_of(native.view, table);
  const UnreadFields& unread = native.unread[table];
  const Schema& schema = columns.schema();
  Mask missing = wanted & ~columns.loaded();
  // The error a reading of just the missing fields would meet first: the
  // records' own fields row by row, then the target's; the target records
  // come first when a field of the target is missing.
  if (missing & target_fields(schema)) missing |= record_fields(schema) & ~columns.loaded();
  const Unread* first = nullptr;
  for (unsigned field = 0; field < schema.count; ++field) {
    const Unread& candidate = unread.unread[field];
    if (!(missing & unread.fields & bit(field)) || candidate.row == Row::none) continue;
    if (first == nullptr || std::tie(candidate.of_target, candidate.row) < std::tie(first->of_target, first->row))
      first = &candidate;
  }
  if (first != nullptr && first->error) raise_again(*first);
  // The module's own error is made again, naming this call: the fields are
  // read anew (and kept, should they read well this time).
  load_columns(state, native, table, facts->fields[table], wanted, "facts");
  enlist(state, facts);
}

void load_path_bits(const ModuleState& state, FactsObject* facts, std::uint8_t which) {
  NativeFacts& native = native_of(facts);
  FactsView& view = native.view;
  const std::uint8_t missing = which & ~view.path_bits_loaded;
  if (missing & path_bit::in_page) {
    load_table(state, facts, kFilesTable, bit(file_f::path));
    if (!(view.path_bits_loaded & path_bit::in_page)) {
      for (Row row : view.files.all()) view.set_path_bit(view.files.str(file_f::path, row), path_bit::in_page);
      view.path_bits_loaded |= path_bit::in_page;
    }
  }
  if (missing & path_bit::import_resolved)
    mark_paths(native, facts->fields[kImportResolvedPaths], path_bit::import_resolved);
  if (missing & path_bit::test_source) mark_paths(native, facts->fields[kTestSources], path_bit::test_source);
}

void load_line_counts(FactsObject* facts) {
  NativeFacts& native = native_of(facts);
  if (native.view.line_counts_loaded) return;
  auto counts =
      by_path<std::int64_t>(native, facts->fields[kLineCounts], FactsView::kNoLines, "line_counts",
                            [](PyObject* value) { return integer_of(value, Where{"facts", "line_counts value"}); });
  if (native.view.line_counts_loaded) return;
  native.view.line_counts = std::move(counts);
  native.view.line_counts_loaded = true;
}

void load_summaries(FactsObject* facts) {
  NativeFacts& native = native_of(facts);
  if (native.view.summaries_loaded) return;
  auto summaries = by_path<StrId>(native, facts->fields[kSummaries], StrId::none, "summaries", [&](PyObject* value) {
    return intern(native, value, Where{"facts", "summaries value"});
  });
  if (native.view.summaries_loaded) return;
  native.view.summaries = std::move(summaries);
  native.view.summaries_loaded = true;
}

}  // namespace scope::py
