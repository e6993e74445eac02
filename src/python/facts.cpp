// ScopeFacts and the conversion of the host's records into the native view.
#include "facts.hpp"

#include <structmember.h>

#include <cstring>
#include <span>
#include <string>

namespace scope::py {

namespace {

const char* const kFieldNames[kFactsFieldCount] = {
    "files",        "symbols",     "inbound",   "outbound",     "import_resolved_paths",
    "test_sources", "line_counts", "summaries", "test_imports",
};

// ---------------------------------------------------------------------------
// Reading one attribute of a record.

enum class Cell { integer, text, optional_text, truth, object };

struct FieldInfo {
  const char* attr;
  Cell cell;
  bool via_target;  // read from the record's `target` instead of the record
};

const FieldInfo kFileFields[] = {
    {"id", Cell::integer, false},
    {"path", Cell::text, false},
    {"language", Cell::optional_text, false},
};
const FieldInfo kSymbolFields[] = {
    {"id", Cell::integer, false},       {"path", Cell::text, false},       {"name", Cell::text, false},
    {"fqn", Cell::text, false},         {"kind", Cell::text, false},       {"start_line", Cell::integer, false},
    {"end_line", Cell::integer, false}, {"is_export", Cell::truth, false},
};
const FieldInfo kInboundFields[] = {
    {"source_path", Cell::text, false}, {"target_id", Cell::integer, false}, {"target_path", Cell::text, false},
    {"target_name", Cell::text, false}, {"target_kind", Cell::text, false},  {"resolution", Cell::text, false},
    {"refs", Cell::integer, false},
};
const FieldInfo kOutboundFields[] = {
    {"source_path", Cell::text, false}, {"resolution", Cell::text, false}, {"refs", Cell::integer, false},
    {"target", Cell::object, false},    {"id", Cell::integer, true},       {"path", Cell::text, true},
    {"kind", Cell::text, true},         {"fqn", Cell::text, true},
};

// Attribute names are interned once and kept for the life of the process.
PyObject* attr_name(const char* name) {
  PyObject* interned = PyUnicode_InternFromString(name);
  if (interned == nullptr) throw PyError{};
  return interned;  // the interpreter's interned table keeps it alive as well
}

struct NameCache {
  PyObject* names[8] = {};
  PyObject* get(const FieldInfo* infos, unsigned field) {
    if (names[field] == nullptr) names[field] = attr_name(infos[field].attr);
    return names[field];
  }
};
NameCache file_names, symbol_names, inbound_names, outbound_names;

// Records often share their string objects (one path object for every
// reference from a file). A small direct-mapped cache by object identity
// skips hashing their text again; each slot owns its object, so an address
// cannot be reused by another string while it is cached.
class InternCache {
 public:
  StrId intern(NativeFacts& native, PyObject* text, Where where) {
    auto& slot = slots_[(reinterpret_cast<std::uintptr_t>(text) >> 4) % kSlots];
    if (slot.first.get() == text) return slot.second;
    StrId id = py::intern(native.view.pool, native.strings, text, where);
    slot = {PyRef::borrow(text), id};
    return id;
  }

 private:
  static constexpr std::size_t kSlots = 1024;
  std::vector<std::pair<PyRef, StrId>> slots_ = std::vector<std::pair<PyRef, StrId>>(kSlots);
};

std::int64_t cell_value(NativeFacts& native, InternCache& cache, PyObject* value, Cell cell, Where where) {
  switch (cell) {
    case Cell::integer:
      return as_int64(value, where);
    case Cell::text:
      return cache.intern(native, value, where);
    case Cell::optional_text:
      if (value == Py_None) return kNoStr;
      return cache.intern(native, value, where);
    case Cell::truth:
      return truth(value) ? 1 : 0;
    case Cell::object:
      return 0;
  }
  return 0;
}

// Reads one attribute of many records. For the host's records (frozen,
// slotted dataclasses) the attribute is a member descriptor of the type, and
// the value is read from its slot directly. That is what attribute access
// does too, as long as the type looks attributes up the standard way and is
// a subtype of the class that owns the descriptor (whose instances alone
// have the slot at that offset). The type and its version tag are checked
// on every record, so any other type, a changed type, an unset slot or a
// custom attribute lookup goes through PyObject_GetAttr as usual.
class AttributeReader {
 public:
  explicit AttributeReader(PyObject* name) : name_(name) {}

  // A new reference, or NULL with the exception that attribute access raises.
  PyObject* read(PyObject* record) {
    PyTypeObject* type = Py_TYPE(record);
    if (type != type_ || type->tp_version_tag != version_) learn(type);
    if (offset_ >= 0) {
      PyObject* value = *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(record) + offset_);
      if (value != nullptr) return Py_NewRef(value);
    }
    return PyObject_GetAttr(record, name_);
  }

 private:
  void learn(PyTypeObject* type) {
    type_ = type;
    offset_ = -1;
    PyObject* descriptor = _PyType_Lookup(type, name_);  // borrowed; also sets the version tag
    version_ = type->tp_version_tag;
    if (type->tp_getattro != PyObject_GenericGetAttr || !PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG)) return;
    if (descriptor == nullptr || !Py_IS_TYPE(descriptor, &PyMemberDescr_Type)) return;
    auto* member_descriptor = reinterpret_cast<PyMemberDescrObject*>(descriptor);
    // A descriptor taken from another class (`path = Other.__dict__["id"]`)
    // describes the layout of that class only.
    if (!PyType_IsSubtype(type, PyDescr_TYPE(member_descriptor))) return;
    const PyMemberDef* member = member_descriptor->d_member;
    if ((member->type == T_OBJECT_EX || member->type == T_OBJECT) && (member->flags & PY_AUDIT_READ) == 0)
      offset_ = member->offset;
  }

  PyObject* name_;  // borrowed from the interned names
  PyTypeObject* type_ = nullptr;
  unsigned int version_ = 0;
  Py_ssize_t offset_ = -1;
};

// Converts the `wanted` columns of `table` that are not converted yet.
// The columns are built aside and committed only when every row was read, so
// a record that raises leaves the view as it was.
void load_columns(NativeFacts& native, Table& table, PyObject* rows, const FieldInfo* infos, NameCache& names,
                  std::uint32_t wanted, const char* label, const char* argument) {
  std::uint32_t missing = wanted & ~table.loaded;
  if (missing == 0) return;
  Py_ssize_t count = PyTuple_GET_SIZE(rows);
  std::vector<unsigned> fields;
  for (unsigned field = 0; field < table.cols.size(); ++field)
    if (missing & bit(field)) fields.push_back(field);
  std::vector<std::vector<std::int64_t>> columns(fields.size());
  for (auto& column : columns) column.reserve(static_cast<std::size_t>(count));
  std::vector<PyRef> targets;
  InternCache cache;
  std::vector<AttributeReader> readers;
  for (unsigned field : fields) readers.emplace_back(names.get(infos, field));
  std::vector<std::string> labels;  // for error messages: "ScopeSymbol.kind"
  for (unsigned field : fields)
    labels.push_back(std::string(label) + "." + (infos[field].via_target ? "target." : "") + infos[field].attr);
  for (Py_ssize_t row = 0; row < count; ++row) {
    PyObject* record = PyTuple_GET_ITEM(rows, row);  // borrowed from the facts' own tuple
    for (std::size_t k = 0; k < fields.size(); ++k) {
      const FieldInfo& info = infos[fields[k]];
      PyObject* owner = info.via_target ? native.targets[static_cast<std::size_t>(row)].get() : record;
      PyRef value = PyRef::steal(readers[k].read(owner));
      if (!value) {
        if (info.cell != Cell::optional_text || !PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyError{};
        PyErr_Clear();  // an absent optional field reads as None
        value = PyRef::borrow(Py_None);
      }
      if (info.cell == Cell::object) {
        targets.push_back(value);
        columns[k].push_back(0);
        continue;
      }
      columns[k].push_back(cell_value(native, cache, value.get(), info.cell, Where{argument, labels[k].c_str()}));
    }
  }
  // A conversion run from inside a host callback may have finished first;
  // its columns are the same, so keep whichever came first.
  table.rows = static_cast<std::size_t>(count);
  for (std::size_t k = 0; k < fields.size(); ++k) {
    if (table.loaded & bit(fields[k])) continue;
    if (infos[fields[k]].cell == Cell::object) native.targets = std::move(targets);
    table.cols[fields[k]] = std::move(columns[k]);
    table.loaded |= bit(fields[k]);
  }
}

void note_column(FactsView& view, const Table& table, unsigned field, bool kinds) {
  for (std::int64_t cell : table.cols[field]) {
    if (kinds)
      view.note_kind(static_cast<StrId>(cell));
    else
      view.note_resolution(static_cast<StrId>(cell));
  }
}

// ---------------------------------------------------------------------------
// The ScopeFacts type.

bool is_iterable(PyObject* object) { return Py_TYPE(object)->tp_iter != nullptr || PySequence_Check(object); }

// A read-only copy of a mapping, made as dict(source) makes it: from a
// dict's own items, or from keys() and source[key].
PyRef copy_map(PyObject* source, const char* argument) {
  Where where{argument};
  PyRef copy = check(PyDict_New());
  if (PyDict_Check(source)) {
    check(PyDict_Merge(copy.get(), source, 1));
  } else {
    if (!type_has(source, "keys")) wrong_type(where, "a mapping", source);
    PyRef keys_view = check(PyObject_CallMethod(source, "keys", nullptr));
    PyRef keys = snapshot(keys_view.get(), where, "a mapping whose keys() is iterable");
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(keys.get()); ++i) {
      PyObject* key = PyTuple_GET_ITEM(keys.get(), i);  // borrowed from keys
      PyRef value = check(PyObject_GetItem(source, key));
      check(PyDict_SetItem(copy.get(), key, value.get()));
    }
  }
  return check(PyDictProxy_New(copy.get()));
}

PyObject* facts_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
  return entry("ScopeFacts", [&]() -> PyRef {
    static const char* keywords[] = {
        "files",        "symbols",     "inbound",   "outbound",     "import_resolved_paths",
        "test_sources", "line_counts", "summaries", "test_imports", nullptr};
    PyObject* given[kFactsFieldCount] = {};
    parse_args(args, kwargs, "OOOOOOOO|O:ScopeFacts", keywords, &given[0], &given[1], &given[2], &given[3], &given[4],
               &given[5], &given[6], &given[7], &given[8]);
    PyRef converted[kFactsFieldCount];
    for (int i = kFiles; i <= kOutbound; ++i) converted[i] = snapshot(given[i], Where{kFieldNames[i]}, "a sequence");
    for (int i = kImportResolvedPaths; i <= kTestSources; ++i) {
      if (!is_iterable(given[i])) wrong_type(Where{kFieldNames[i]}, "a set", given[i]);
      converted[i] = check(PyFrozenSet_New(given[i]));
    }
    for (int i = kLineCounts; i <= kSummaries; ++i) converted[i] = copy_map(given[i], kFieldNames[i]);
    if (given[kTestImports] != nullptr) {
      converted[kTestImports] = copy_map(given[kTestImports], "test_imports");
    } else {
      PyRef empty = check(PyDict_New());
      converted[kTestImports] = check(PyDictProxy_New(empty.get()));
    }
    PyRef self = check(type->tp_alloc(type, 0));
    auto* facts = reinterpret_cast<FactsObject*>(self.get());
    for (int i = 0; i < kFactsFieldCount; ++i) facts->fields[i] = converted[i].release();
    facts->native = nullptr;
    return self;
  });
}

// Record object -> its place in a facts' view. Entries are added when a
// facts' declarations are first converted and removed before the facts lets
// go of its records, so no key outlives its object.
std::unordered_map<PyObject*, KnownRecord>& record_index() {
  static auto* index = new std::unordered_map<PyObject*, KnownRecord>();
  return *index;
}

void forget_records(FactsObject* facts) {
  if (facts->native == nullptr || !facts->native->records_known || facts->fields[kSymbols] == nullptr) return;
  auto& index = record_index();
  PyObject* symbols = facts->fields[kSymbols];
  for (Py_ssize_t row = 0; row < PyTuple_GET_SIZE(symbols); ++row) {
    auto found = index.find(PyTuple_GET_ITEM(symbols, row));
    if (found != index.end() && found->second.native == facts->native) index.erase(found);
  }
}

int facts_clear(PyObject* self) {
  auto* facts = reinterpret_cast<FactsObject*>(self);
  forget_records(facts);
  for (auto& slot : facts->fields) Py_CLEAR(slot);
  delete std::exchange(facts->native, nullptr);
  return 0;
}

int facts_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  auto* facts = reinterpret_cast<FactsObject*>(self);
  for (PyObject* slot : facts->fields) Py_VISIT(slot);
  if (facts->native != nullptr)
    for (const PyRef& target : facts->native->targets) Py_VISIT(target.get());
  return 0;
}

void facts_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  facts_clear(self);
  type->tp_free(self);
  Py_DECREF(type);  // instances of a heap type own a reference to it
}

PyObject* facts_get_field(PyObject* self, void* closure) {
  PyObject* value = reinterpret_cast<FactsObject*>(self)->fields[reinterpret_cast<std::intptr_t>(closure)];
  if (value == nullptr) {
    PyErr_SetString(PyExc_AttributeError, "ScopeFacts was cleared");
    return nullptr;
  }
  return Py_NewRef(value);
}

// The field value as given to the constructor: maps as plain dicts.
PyRef plain_field(FactsObject* facts, int which) {
  PyObject* value = facts->fields[which];
  if (value == nullptr) raise(PyExc_AttributeError, "ScopeFacts was cleared");
  if (which >= kLineCounts) return check(PyObject_CallMethod(value, "copy", nullptr));
  return PyRef::borrow(value);
}

PyObject* facts_get_paths(PyObject* self, void*) {
  return entry("ScopeFacts.paths", [&]() -> PyRef {
    PyObject* files = reinterpret_cast<FactsObject*>(self)->fields[kFiles];
    if (files == nullptr) raise(PyExc_AttributeError, "ScopeFacts was cleared");
    PyRef paths = check(PyFrozenSet_New(nullptr));
    PyObject* name = file_names.get(kFileFields, file_f::path);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files); ++i) {
      PyRef path = check(PyObject_GetAttr(PyTuple_GET_ITEM(files, i), name));
      check(PySet_Add(paths.get(), path.get()));
    }
    return paths;
  });
}

PyObject* facts_import_resolved(PyObject* self, PyObject* args, PyObject* kwargs) {
  return entry("import_resolved", [&]() -> PyRef {
    static const char* const keywords[] = {"path", nullptr};
    PyObject* path = nullptr;
    parse_args(args, kwargs, "O:import_resolved", keywords, &path);
    PyObject* resolved = reinterpret_cast<FactsObject*>(self)->fields[kImportResolvedPaths];
    return new_bool(resolved != nullptr && check(PySet_Contains(resolved, path)));
  });
}

PyObject* facts_reduce(PyObject* self, PyObject*) {
  return entry("ScopeFacts.__reduce__", [&]() -> PyRef {
    auto* facts = reinterpret_cast<FactsObject*>(self);
    PyRef values = check(PyTuple_New(kFactsFieldCount));
    for (int i = 0; i < kFactsFieldCount; ++i) PyTuple_SET_ITEM(values.get(), i, plain_field(facts, i).release());
    return check(Py_BuildValue("(ON)", reinterpret_cast<PyObject*>(Py_TYPE(self)), values.release()));
  });
}

PyObject* facts_repr(PyObject* self) {
  int busy = Py_ReprEnter(self);
  if (busy != 0) return busy > 0 ? PyUnicode_FromString("ScopeFacts(...)") : nullptr;
  PyObject* result = entry("ScopeFacts.__repr__", [&]() -> PyRef {
    auto* facts = reinterpret_cast<FactsObject*>(self);
    PyRef text = check(PyUnicode_FromString("ScopeFacts("));
    for (int i = 0; i < kFactsFieldCount; ++i) {
      PyRef value = plain_field(facts, i);
      PyRef part = check(PyUnicode_FromFormat("%s%s=%R", i ? ", " : "", kFieldNames[i], value.get()));
      text = check(PyUnicode_Concat(text.get(), part.get()));
    }
    PyRef close = check(PyUnicode_FromString(")"));
    return check(PyUnicode_Concat(text.get(), close.get()));
  });
  Py_ReprLeave(self);
  return result;
}

PyObject* facts_richcompare(PyObject* self, PyObject* other, int op) {
  if ((op != Py_EQ && op != Py_NE) || !facts_check(other)) Py_RETURN_NOTIMPLEMENTED;
  auto* left = reinterpret_cast<FactsObject*>(self);
  auto* right = reinterpret_cast<FactsObject*>(other);
  bool equal = true;
  for (int i = 0; i < kFactsFieldCount && equal; ++i) {
    if (left->fields[i] == nullptr || right->fields[i] == nullptr) {
      equal = left->fields[i] == right->fields[i];
      continue;
    }
    int same = PyObject_RichCompareBool(left->fields[i], right->fields[i], Py_EQ);
    if (same < 0) return nullptr;
    equal = same != 0;
  }
  return PyBool_FromLong(op == Py_EQ ? equal : !equal);
}

Py_hash_t facts_hash(PyObject* self) {
  // Same rule as a frozen record: the hash of its fields. The maps are not
  // hashable, so this raises TypeError like hashing such a record would.
  auto* facts = reinterpret_cast<FactsObject*>(self);
  PyObject* values = PyTuple_New(kFactsFieldCount);
  if (values == nullptr) return -1;
  for (int i = 0; i < kFactsFieldCount; ++i) {
    PyObject* value = facts->fields[i] ? facts->fields[i] : Py_None;
    PyTuple_SET_ITEM(values, i, Py_NewRef(value));
  }
  Py_hash_t hash = PyObject_Hash(values);
  Py_DECREF(values);
  return hash;
}

int facts_setattro(PyObject* self, PyObject* name, PyObject* value) {
  (void)self;
  if (!PyUnicode_Check(name)) {
    PyErr_SetString(PyExc_TypeError, "attribute name must be a string");
    return -1;
  }
  PyErr_Format(PyExc_AttributeError, "cannot %s field '%U': ScopeFacts is immutable",
               value == nullptr ? "delete" : "assign to", name);
  return -1;
}

PyGetSetDef facts_getset[] = {
    {"files", facts_get_field, nullptr, PyDoc_STR("The page's indexed files (tuple of ScopeFile)."),
     reinterpret_cast<void*>(kFiles)},
    {"symbols", facts_get_field, nullptr, PyDoc_STR("The declarations of those files (tuple of ScopeSymbol)."),
     reinterpret_cast<void*>(kSymbols)},
    {"inbound", facts_get_field, nullptr,
     PyDoc_STR("References reaching the page's declarations (tuple of InboundReference)."),
     reinterpret_cast<void*>(kInbound)},
    {"outbound", facts_get_field, nullptr,
     PyDoc_STR("References made by the page's files (tuple of OutboundReference)."),
     reinterpret_cast<void*>(kOutbound)},
    {"import_resolved_paths", facts_get_field, nullptr,
     PyDoc_STR("Page paths whose language has resolved imports (frozenset)."),
     reinterpret_cast<void*>(kImportResolvedPaths)},
    {"test_sources", facts_get_field, nullptr, PyDoc_STR("Source paths of inbound references that are tests."),
     reinterpret_cast<void*>(kTestSources)},
    {"line_counts", facts_get_field, nullptr, PyDoc_STR("Path to number of lines, for readable files (read-only)."),
     reinterpret_cast<void*>(kLineCounts)},
    {"summaries", facts_get_field, nullptr, PyDoc_STR("Path to the file's own summary, for readable files."),
     reinterpret_cast<void*>(kSummaries)},
    {"test_imports", facts_get_field, nullptr, PyDoc_STR("Page path to the test files importing it."),
     reinterpret_cast<void*>(kTestImports)},
    {"paths", facts_get_paths, nullptr, PyDoc_STR("Frozenset of the paths of `files`, derived on each access."),
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef facts_methods[] = {
    {"import_resolved", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(facts_import_resolved)),
     METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("import_resolved($self, /, path)\n--\n\n"
               "Whether `path` is in `import_resolved_paths` (the index resolves imports for its language).")},
    {"__reduce__", facts_reduce, METH_NOARGS, PyDoc_STR("Pickle support: rebuilds from the nine fields.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

namespace {
PyTypeObject* facts_type = nullptr;  // strong reference held for the life of the process
}

bool facts_check(PyObject* object) { return facts_type != nullptr && Py_IS_TYPE(object, facts_type); }

FactsObject* as_facts(PyObject* object, const char* argument) {
  if (!facts_check(object)) wrong_type(Where{argument}, "ScopeFacts", object);
  auto* facts = reinterpret_cast<FactsObject*>(object);
  if (facts->fields[kFiles] == nullptr) raise(PyExc_ValueError, "ScopeFacts was cleared");
  return facts;
}

NativeFacts& native_of(FactsObject* facts) {
  if (facts->native == nullptr) facts->native = new NativeFacts();
  return *facts->native;
}

bool init_facts_type(PyObject* module) {
  static const char doc[] =
      "ScopeFacts(files, symbols, inbound, outbound, import_resolved_paths, test_sources, line_counts, "
      "summaries, test_imports={})\n--\n\n"
      "Immutable record of one page's files and what the index knows of them.\n\n"
      "Sequences are stored as tuples, sets as frozensets and maps as read-only copies. "
      "The first function that needs a field of the records converts it into a native view, which the "
      "record keeps: later calls read no attribute of the records again.";
  static PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>(doc)},
      {Py_tp_new, reinterpret_cast<void*>(facts_new)},
      {Py_tp_dealloc, reinterpret_cast<void*>(facts_dealloc)},
      {Py_tp_traverse, reinterpret_cast<void*>(facts_traverse)},
      {Py_tp_clear, reinterpret_cast<void*>(facts_clear)},
      {Py_tp_repr, reinterpret_cast<void*>(facts_repr)},
      {Py_tp_richcompare, reinterpret_cast<void*>(facts_richcompare)},
      {Py_tp_hash, reinterpret_cast<void*>(facts_hash)},
      {Py_tp_setattro, reinterpret_cast<void*>(facts_setattro)},
      {Py_tp_getset, facts_getset},
      {Py_tp_methods, facts_methods},
      {0, nullptr},
  };
  static PyType_Spec type_spec = {"scope.ScopeFacts", sizeof(FactsObject), 0,
                                  Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE, slots};
  PyObject* type = PyType_FromSpec(&type_spec);
  if (type == nullptr) return false;
  facts_type = reinterpret_cast<PyTypeObject*>(type);
  return PyModule_AddObjectRef(module, "ScopeFacts", type) == 0;
}

// ---------------------------------------------------------------------------
// Strings.

std::string_view utf8_of(PyObject* text, PyRef& scratch, Where where) {
  if (!PyUnicode_Check(text)) wrong_type(where, "str", text);
  Py_ssize_t size = 0;
  const char* bytes = PyUnicode_AsUTF8AndSize(text, &size);
  if (bytes != nullptr) return {bytes, static_cast<std::size_t>(size)};
  if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw PyError{};
  // Lone surrogates have no UTF-8 form; keep them as their three-byte
  // encoding so that they come back unchanged and still sort by code point.
  PyErr_Clear();
  scratch = check(PyUnicode_AsEncodedString(text, "utf-8", "surrogatepass"));
  return {PyBytes_AS_STRING(scratch.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(scratch.get()))};
}

PyRef str_from_utf8(std::string_view text) {
  return check(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
}

StrId intern(StringPool& pool, std::vector<PyRef>& strings, PyObject* text, Where where) {
  PyRef scratch;
  std::string_view bytes = utf8_of(text, scratch, where);
  StrId id = pool.intern(bytes);
  if (id == strings.size()) strings.push_back(PyRef::borrow(text));
  return id;
}

// ---------------------------------------------------------------------------
// Loading the view.

void need_files(FactsObject* facts, std::uint32_t fields) {
  NativeFacts& native = native_of(facts);
  load_columns(native, native.view.files, facts->fields[kFiles], kFileFields, file_names, fields, "ScopeFile", "facts");
}

void need_symbols(FactsObject* facts, std::uint32_t fields) {
  NativeFacts& native = native_of(facts);
  load_symbol_records(native, facts->fields[kSymbols], fields, "facts");
  if (!native.records_known) {
    auto& index = record_index();
    PyObject* symbols = facts->fields[kSymbols];
    for (Py_ssize_t row = 0; row < PyTuple_GET_SIZE(symbols); ++row)
      index[PyTuple_GET_ITEM(symbols, row)] = {facts, &native, static_cast<std::size_t>(row)};
    native.records_known = true;
  }
}

std::span<const std::int64_t> symbol_ids(FactsObject* facts) {
  need_symbols(facts, bit(sym_f::id));
  return native_of(facts).view.symbols.cols[sym_f::id];
}

KnownRecord known_record(PyObject* record) {
  auto& index = record_index();
  auto found = index.find(record);
  return found == index.end() ? KnownRecord{nullptr, nullptr, 0} : found->second;
}

void load_symbol_records(NativeFacts& native, PyObject* records, std::uint32_t fields, const char* argument) {
  bool had_kind = native.view.symbols.has(bit(sym_f::kind));
  load_columns(native, native.view.symbols, records, kSymbolFields, symbol_names, fields, "ScopeSymbol", argument);
  if (!had_kind && native.view.symbols.has(bit(sym_f::kind)))
    note_column(native.view, native.view.symbols, sym_f::kind, true);
}

void need_inbound(FactsObject* facts, std::uint32_t fields) {
  NativeFacts& native = native_of(facts);
  Table& table = native.view.inbound;
  bool had_kind = table.has(bit(in_f::target_kind));
  bool had_resolution = table.has(bit(in_f::resolution));
  load_columns(native, table, facts->fields[kInbound], kInboundFields, inbound_names, fields, "InboundReference",
               "facts");
  if (!had_kind && table.has(bit(in_f::target_kind))) note_column(native.view, table, in_f::target_kind, true);
  if (!had_resolution && table.has(bit(in_f::resolution))) note_column(native.view, table, in_f::resolution, false);
}

void need_outbound(FactsObject* facts, std::uint32_t fields) {
  NativeFacts& native = native_of(facts);
  Table& table = native.view.outbound;
  const std::uint32_t via_target =
      bit(out_f::target_id) | bit(out_f::target_path) | bit(out_f::target_kind) | bit(out_f::target_fqn);
  if (fields & via_target) fields |= bit(out_f::target);
  bool had_kind = table.has(bit(out_f::target_kind));
  bool had_resolution = table.has(bit(out_f::resolution));
  // The targets first: the target_* columns are read from them.
  load_columns(native, table, facts->fields[kOutbound], kOutboundFields, outbound_names,
               fields & (bit(out_f::target) | ~via_target), "OutboundReference", "facts");
  load_columns(native, table, facts->fields[kOutbound], kOutboundFields, outbound_names, fields, "OutboundReference",
               "facts");
  if (!had_kind && table.has(bit(out_f::target_kind))) note_column(native.view, table, out_f::target_kind, true);
  if (!had_resolution && table.has(bit(out_f::resolution))) note_column(native.view, table, out_f::resolution, false);
}

namespace {

// Marks every str member of a set field with `which`.
void mark_paths(NativeFacts& native, PyObject* members, std::uint8_t which) {
  std::vector<StrId> marked;
  PyRef iterator = check(PyObject_GetIter(members));
  while (PyRef item = PyRef::steal(PyIter_Next(iterator.get()))) {
    // Membership is by equality with a path string; other members never match.
    if (!PyUnicode_Check(item.get())) continue;
    marked.push_back(intern(native.view.pool, native.strings, item.get(), Where{"facts"}));
  }
  if (PyErr_Occurred()) throw PyError{};
  for (StrId path : marked) native.view.set_path_bit(path, which);
  native.view.path_bits_loaded |= which;
}

}  // namespace

void need_path_bits(FactsObject* facts, std::uint8_t which) {
  NativeFacts& native = native_of(facts);
  FactsView& view = native.view;
  std::uint8_t missing = which & ~view.path_bits_loaded;
  if (missing & path_bit::in_page) {
    need_files(facts, bit(file_f::path));
    if (!(view.path_bits_loaded & path_bit::in_page)) {
      for (std::size_t row = 0; row < view.files.rows; ++row)
        view.set_path_bit(view.files.str(file_f::path, row), path_bit::in_page);
      view.path_bits_loaded |= path_bit::in_page;
    }
  }
  if (missing & path_bit::import_resolved)
    mark_paths(native, facts->fields[kImportResolvedPaths], path_bit::import_resolved);
  if (missing & path_bit::test_source) mark_paths(native, facts->fields[kTestSources], path_bit::test_source);
}

void need_line_counts(FactsObject* facts) {
  NativeFacts& native = native_of(facts);
  if (native.view.line_counts_loaded) return;
  std::unordered_map<StrId, std::int64_t> counts;
  for (const auto& [key, value] : mapping_items(facts->fields[kLineCounts], Where{"facts", "line_counts"})) {
    if (!PyUnicode_Check(key.get())) continue;  // never equal to a path
    StrId path = intern(native.view.pool, native.strings, key.get(), Where{"facts", "line_counts key"});
    counts[path] = as_int64(value.get(), Where{"facts", "line_counts value"});
  }
  if (native.view.line_counts_loaded) return;
  native.view.line_counts = std::move(counts);
  native.view.line_counts_loaded = true;
}

void need_summaries(FactsObject* facts) {
  NativeFacts& native = native_of(facts);
  if (native.view.summaries_loaded) return;
  std::unordered_map<StrId, StrId> summaries;
  for (const auto& [key, value] : mapping_items(facts->fields[kSummaries], Where{"facts", "summaries"})) {
    if (!PyUnicode_Check(key.get())) continue;
    StrId path = intern(native.view.pool, native.strings, key.get(), Where{"facts", "summaries key"});
    summaries[path] = intern(native.view.pool, native.strings, value.get(), Where{"facts", "summaries value"});
  }
  if (native.view.summaries_loaded) return;
  native.view.summaries = std::move(summaries);
  native.view.summaries_loaded = true;
}

// ---------------------------------------------------------------------------
// Vocabulary and fan-in.

Vocab vocab_of(const StringPool& pool, const std::vector<PyRef>& strings, std::vector<StrId> kinds,
               std::vector<StrId> resolutions) {
  // The id lists are copies and each string is held while the host's sets
  // are asked: a set's __contains__ may convert more of the same facts.
  Vocab vocab;
  vocab.bits.assign(pool.size(), 0);
  if (!kinds.empty()) {
    PyRef name_match = module_attr("NAME_MATCH_KINDS");
    PyRef types = module_attr("_TYPE_KINDS");
    PyRef callables = module_attr("_CALLABLE_KINDS");
    for (StrId kind : kinds) {
      PyRef held = strings[kind];
      PyObject* text = held.get();
      if (check(PySequence_Contains(name_match.get(), text))) vocab.set(kind, vocab_bit::name_match);
      if (check(PySequence_Contains(types.get(), text))) vocab.set(kind, vocab_bit::type);
      if (check(PySequence_Contains(callables.get(), text))) vocab.set(kind, vocab_bit::callable);
      vocab.set_literals(pool, kind);
    }
  }
  if (!resolutions.empty()) {
    PyRef evidence = module_attr("EVIDENCE_RESOLUTIONS");
    PyRef trusted = module_attr("_TRUSTED");
    for (StrId resolution : resolutions) {
      PyRef held = strings[resolution];
      PyObject* text = held.get();
      if (check(PySequence_Contains(evidence.get(), text))) vocab.set(resolution, vocab_bit::evidence);
      if (check(PySequence_Contains(trusted.get(), text))) vocab.set(resolution, vocab_bit::trusted);
      vocab.set_literals(pool, resolution);
    }
  }
  return vocab;
}

Vocab vocab_for(NativeFacts& native) {
  return vocab_of(native.view.pool, native.strings, native.view.kind_ids, native.view.resolution_ids);
}

Vocab vocab_for(FactsObject* facts) { return vocab_for(native_of(facts)); }

namespace {

// How a key or member of a host container stands to the int symbol ids.
enum class IdMatch { id, none, ask };

// `id` when `object` is an int (or a float) equal to a 64-bit id; `none` when
// it can equal no id (a larger int, a fraction, a str); `ask` for any other
// object, which only Python's own comparison can tell.
IdMatch id_of(PyObject* object, std::int64_t& id) {
  if (PyLong_CheckExact(object) || PyBool_Check(object)) {
    int overflow = 0;
    long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) return IdMatch::none;
    id = value;
    return IdMatch::id;
  }
  if (PyFloat_CheckExact(object)) {
    double value = PyFloat_AS_DOUBLE(object);
    if (!(value >= -0x1p63 && value < 0x1p63) || value != static_cast<double>(static_cast<std::int64_t>(value)))
      return IdMatch::none;
    id = static_cast<std::int64_t>(value);
    return IdMatch::id;
  }
  if (PyUnicode_CheckExact(object) || PyBytes_CheckExact(object) || object == Py_None) return IdMatch::none;
  return IdMatch::ask;
}

// The value of `mapping` for `key`, as `mapping.get(key)` gives it (a dict's
// missing-key hook does not run); NULL when it has none.
PyRef get_value(PyObject* mapping, PyObject* key) {
  if (PyDict_Check(mapping)) {
    PyObject* value = PyDict_GetItemWithError(mapping, key);  // borrowed
    if (value == nullptr && PyErr_Occurred()) throw PyError{};
    return PyRef::borrow(value);
  }
  PyRef absent = check(PyObject_CallNoArgs(reinterpret_cast<PyObject*>(&PyBaseObject_Type)));
  PyRef value = check(PyObject_CallMethod(mapping, "get", "OO", key, absent.get()));
  return value.get() == absent.get() ? PyRef() : value;
}

// The counts of a FanIn's `outside` or `inside` for the ids in `needed`.
void read_counts(PyObject* mapping, std::span<const std::int64_t> needed,
                 std::unordered_map<std::int64_t, std::int64_t>& into, Where where, Where count) {
  bool ask = false;
  std::int64_t id = 0;
  for (const auto& [key, value] : mapping_items(mapping, where)) {
    std::int64_t refs = as_int64(value.get(), count);
    switch (id_of(key.get(), id)) {
      case IdMatch::id:
        into[id] = refs;
        break;
      case IdMatch::none:
        break;
      case IdMatch::ask:
        ask = true;
    }
  }
  if (!ask) return;
  for (std::int64_t wanted : needed) {
    if (into.count(wanted)) continue;
    PyRef value = get_value(mapping, new_int(wanted).get());
    if (value) into[wanted] = as_int64(value.get(), count);
  }
}

}  // namespace

std::unordered_set<std::int64_t> ids_in(PyObject* container, std::span<const std::int64_t> needed, Where where) {
  if (Py_TYPE(container)->tp_iter == nullptr && !PySequence_Check(container))
    wrong_type(where, "a collection of symbol ids", container);
  std::unordered_set<std::int64_t> ids;
  std::vector<PyRef> others;  // members that only Python can compare with an id
  std::int64_t id = 0;
  PyRef iterator = check(PyObject_GetIter(container));
  while (PyRef item = PyRef::steal(PyIter_Next(iterator.get()))) {
    IdMatch match = id_of(item.get(), id);
    if (match == IdMatch::id) ids.insert(id);
    if (match == IdMatch::ask) others.push_back(std::move(item));
  }
  if (PyErr_Occurred()) throw PyError{};
  if (others.empty()) return ids;
  // A set or a dict is asked as `in` asks it; any other collection was
  // iterated once already, so its members are compared as `in` compares.
  const bool keyed = PyAnySet_Check(container) || PyDict_Check(container);
  for (std::int64_t wanted : needed) {
    if (ids.count(wanted)) continue;
    PyRef key = new_int(wanted);
    bool found = false;
    if (keyed) {
      found = check(PySequence_Contains(container, key.get())) != 0;
    } else {
      for (std::size_t i = 0; i < others.size() && !found; ++i)
        found = check(PyObject_RichCompareBool(others[i].get(), key.get(), Py_EQ)) != 0;
    }
    if (found) ids.insert(wanted);
  }
  return ids;
}

PyRef records_at(PyObject* records, const std::vector<std::size_t>& rows) {
  PyRef list = check(PyList_New(static_cast<Py_ssize_t>(rows.size())));
  for (std::size_t i = 0; i < rows.size(); ++i)
    PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i),
                    Py_NewRef(PyTuple_GET_ITEM(records, static_cast<Py_ssize_t>(rows[i]))));
  return list;
}

FanInView fan_in_view(PyObject* fan_in, std::span<const std::int64_t> needed, bool with_entry) {
  FanInView view;
  PyRef outside = check(PyObject_GetAttrString(fan_in, "outside"));
  read_counts(outside.get(), needed, view.outside, Where{"fan_in", "outside"}, Where{"fan_in", "outside value"});
  PyRef inside = check(PyObject_GetAttrString(fan_in, "inside"));
  read_counts(inside.get(), needed, view.inside, Where{"fan_in", "inside"}, Where{"fan_in", "inside value"});
  if (!with_entry) return view;
  PyRef entry = check(PyObject_GetAttrString(fan_in, "entry"));
  view.entry = ids_in(entry.get(), needed, Where{"fan_in", "entry"});
  return view;
}

// ---------------------------------------------------------------------------
// Test hook: the converted columns of one table, decoded back to Python.

PyObject* native_columns(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_native_columns", [&]() -> PyRef {
    static const char* keywords[] = {"facts", "table", "fields", nullptr};
    PyObject* object;
    const char* table_name;
    PyObject* names;
    parse_args(args, kwargs, "OsO:_native_columns", keywords, &object, &table_name, &names);
    FactsObject* facts = as_facts(object);
    const FieldInfo* infos;
    unsigned count;
    std::string table(table_name);
    if (table == "files") {
      infos = kFileFields, count = file_f::count;
    } else if (table == "symbols") {
      infos = kSymbolFields, count = sym_f::count;
    } else if (table == "inbound") {
      infos = kInboundFields, count = in_f::count;
    } else if (table == "outbound") {
      infos = kOutboundFields, count = out_f::count;
    } else {
      raise(PyExc_ValueError, "table must be files, symbols, inbound or outbound");
    }
    std::vector<unsigned> fields;
    std::uint32_t mask = 0;
    PyRef sequence = check(PySequence_Fast(names, "fields must be a sequence of names"));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(sequence.get()); ++i) {
      const char* name = PyUnicode_AsUTF8(PySequence_Fast_GET_ITEM(sequence.get(), i));
      if (name == nullptr) throw PyError{};
      unsigned field = 0;
      while (field < count && std::strcmp(infos[field].attr, name) != 0) ++field;
      if (field == count || infos[field].cell == Cell::object) raise(PyExc_ValueError, "unknown field");
      fields.push_back(field);
      mask |= bit(field);
    }
    if (table == "files") need_files(facts, mask);
    if (table == "symbols") need_symbols(facts, mask);
    if (table == "inbound") need_inbound(facts, mask);
    if (table == "outbound") need_outbound(facts, mask);
    NativeFacts& native = native_of(facts);
    const Table& source = table == "files"     ? native.view.files
                          : table == "symbols" ? native.view.symbols
                          : table == "inbound" ? native.view.inbound
                                               : native.view.outbound;
    PyRef result = check(PyTuple_New(static_cast<Py_ssize_t>(fields.size())));
    for (std::size_t k = 0; k < fields.size(); ++k) {
      PyRef column = check(PyList_New(static_cast<Py_ssize_t>(source.rows)));
      for (std::size_t row = 0; row < source.rows; ++row) {
        std::int64_t cell = source.num(fields[k], row);
        PyRef value;
        switch (infos[fields[k]].cell) {
          case Cell::integer:
            value = new_int(cell);
            break;
          case Cell::truth:
            value = new_bool(cell != 0);
            break;
          default:
            value = cell == kNoStr ? PyRef::borrow(Py_None)
                                   : str_from_utf8(native.view.pool.text(static_cast<StrId>(cell)));
        }
        PyList_SET_ITEM(column.get(), static_cast<Py_ssize_t>(row), value.release());
      }
      PyTuple_SET_ITEM(result.get(), static_cast<Py_ssize_t>(k), column.release());
    }
    return result;
  });
}

}  // namespace scope::py
