// ScopeFacts: the immutable record of one page, which keeps its native view.
#include <algorithm>

#include "native.hpp"

namespace scope::py {

const char* const kFactsFieldNames[kFactsFieldCount] = {
    "files",        "symbols",     "inbound",   "outbound",     "import_resolved_paths",
    "test_sources", "line_counts", "summaries", "test_imports",
};

namespace {

FactsObject* facts_of(PyObject* self) { return reinterpret_cast<FactsObject*>(self); }

// A read-only copy of a mapping, made as dict(source) makes it: from a
// dict's own items, or from keys() and source[key].
PyRef copy_map(const ModuleState& state, PyObject* source, const char* argument) {
  Where where{argument};
  PyRef copy = check(PyDict_New());
  if (PyDict_Check(source)) {
    check(PyDict_Merge(copy.get(), source, 1));
  } else {
    if (!type_has(source, state.names[kKeys])) wrong_type(where, "a mapping", source);
    PyRef keys_view = check(PyObject_CallMethodNoArgs(source, state.names[kKeys]));
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
    const ModuleState* live = live_state_of_type(type);
    if (live == nullptr) raise(PyExc_RuntimeError, "the scope module was unloaded");
    const ModuleState& state = *live;
    PyObject* given[kFactsFieldCount] = {};
    // The vectorcall form of the arguments, bound as every function binds them.
    const Py_ssize_t nargs = PyTuple_GET_SIZE(args);
    std::vector<PyObject*> stack(PySequence_Fast_ITEMS(args), PySequence_Fast_ITEMS(args) + nargs);
    PyRef names = check(PyTuple_New(kwargs ? PyDict_GET_SIZE(kwargs) : 0));
    if (kwargs != nullptr) {
      PyObject *key, *value;
      Py_ssize_t position = 0, at = 0;
      while (PyDict_Next(kwargs, &position, &key, &value)) {  // borrowed
        PyTuple_SET_ITEM(names.get(), at++, Py_NewRef(key));
        stack.push_back(value);
      }
    }
    bind_arguments(kFactsFieldNames, kTestImports, stack.data(), nargs,
                   PyTuple_GET_SIZE(names.get()) ? names.get() : nullptr, given);
    PyRef converted[kFactsFieldCount];
    for (int i = kFiles; i <= kOutbound; ++i)
      converted[i] = snapshot(given[i], Where{kFactsFieldNames[i]}, "a sequence");
    for (int i = kImportResolvedPaths; i <= kTestSources; ++i) {
      if (Py_TYPE(given[i])->tp_iter == nullptr && !PySequence_Check(given[i]))
        wrong_type(Where{kFactsFieldNames[i]}, "a set", given[i]);
      converted[i] = check(PyFrozenSet_New(given[i]));
    }
    for (int i = kLineCounts; i <= kSummaries; ++i) converted[i] = copy_map(state, given[i], kFactsFieldNames[i]);
    if (given[kTestImports] != nullptr) {
      converted[kTestImports] = copy_map(state, given[kTestImports], "test_imports");
    } else {
      PyRef empty = check(PyDict_New());
      converted[kTestImports] = check(PyDictProxy_New(empty.get()));
    }
    PyRef self = check(type->tp_alloc(type, 0));
    FactsObject* facts = facts_of(self.get());
    for (int i = 0; i < kFactsFieldCount; ++i) facts->fields[i] = converted[i].release();
    facts->native = nullptr;
    return self;
  });
}

int facts_clear(PyObject* self) {
  FactsObject* facts = facts_of(self);
  if (facts->native != nullptr && facts->native->live) {
    LiveFacts& live = *facts->native->live;
    live.erase(std::remove(live.begin(), live.end(), facts), live.end());
  }
  for (auto& slot : facts->fields) Py_CLEAR(slot);
  delete std::exchange(facts->native, nullptr);
  return 0;
}

int facts_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  FactsObject* facts = facts_of(self);
  for (PyObject* slot : facts->fields) Py_VISIT(slot);
  // Every object the view holds that can refer back to these facts: str
  // subclasses, target records, entry sets (its ids are plain ints, which
  // refer to nothing), the host's errors kept for fields that could not be
  // read. tp_clear drops the view whole.
  if (NativeFacts* native = facts->native) {
    for (const PyRef& text : native->strings)
      if (!PyUnicode_CheckExact(text.get())) Py_VISIT(text.get());  // a plain str refers to nothing
    for (const PyRef& target : native->targets) Py_VISIT(target.get());
    for (const FanInCache& cached : native->fan_ins) Py_VISIT(cached.entry.get());
    for (const PyRef& set : native->kept_vocab.sets) Py_VISIT(set.get());
    for (const UnreadFields& table : native->unread)
      for (const Unread& unread : table.unread) {
        Py_VISIT(unread.error.get());
        Py_VISIT(unread.traceback.get());
      }
  }
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
  PyObject* value = facts_of(self)->fields[reinterpret_cast<std::intptr_t>(closure)];
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
    PyObject* files = facts_of(self)->fields[kFiles];
    if (files == nullptr) raise(PyExc_AttributeError, "ScopeFacts was cleared");
    const ModuleState* state = live_state_of_type(Py_TYPE(self));
    if (state == nullptr) raise(PyExc_RuntimeError, "the scope module was unloaded");
    PyObject* path_name = state->attrs[kFilesTable][file_f::path];
    PyRef paths = check(PyFrozenSet_New(nullptr));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files); ++i) {
      PyRef path = check(PyObject_GetAttr(PyTuple_GET_ITEM(files, i), path_name));
      check(PySet_Add(paths.get(), path.get()));
    }
    return paths;
  });
}

PyObject* facts_import_resolved(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
  return entry("import_resolved", [&]() -> PyRef {
    static const char* const params[] = {"path"};
    PyObject* path = nullptr;
    bind_arguments(params, 1, args, nargs, kwnames, &path);
    PyObject* resolved = facts_of(self)->fields[kImportResolvedPaths];
    return new_bool(resolved != nullptr && check(PySet_Contains(resolved, path)));
  });
}

PyObject* facts_reduce(PyObject* self, PyObject*) {
  return entry("ScopeFacts.__reduce__", [&]() -> PyRef {
    PyRef values = check(PyTuple_New(kFactsFieldCount));
    for (int i = 0; i < kFactsFieldCount; ++i)
      PyTuple_SET_ITEM(values.get(), i, plain_field(facts_of(self), i).release());
    return check(Py_BuildValue("(ON)", reinterpret_cast<PyObject*>(Py_TYPE(self)), values.release()));
  });
}

PyObject* facts_repr(PyObject* self) {
  int busy = Py_ReprEnter(self);
  if (busy != 0) return busy > 0 ? PyUnicode_FromString("ScopeFacts(...)") : nullptr;
  PyObject* result = entry("ScopeFacts.__repr__", [&]() -> PyRef {
    PyRef text = check(PyUnicode_FromString("ScopeFacts("));
    for (int i = 0; i < kFactsFieldCount; ++i) {
      PyRef value = plain_field(facts_of(self), i);
      PyRef part = check(PyUnicode_FromFormat("%s%s=%R", i ? ", " : "", kFactsFieldNames[i], value.get()));
      text = check(PyUnicode_Concat(text.get(), part.get()));
    }
    PyRef close = check(PyUnicode_FromString(")"));
    return check(PyUnicode_Concat(text.get(), close.get()));
  });
  Py_ReprLeave(self);
  return result;
}

PyObject* facts_richcompare(PyObject* self, PyObject* other, int op) {
  if ((op != Py_EQ && op != Py_NE) || Py_TYPE(other) != Py_TYPE(self)) Py_RETURN_NOTIMPLEMENTED;
  FactsObject* left = facts_of(self);
  FactsObject* right = facts_of(other);
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
  FactsObject* facts = facts_of(self);
  PyObject* values = PyTuple_New(kFactsFieldCount);
  if (values == nullptr) return -1;
  for (int i = 0; i < kFactsFieldCount; ++i)
    PyTuple_SET_ITEM(values, i, Py_NewRef(facts->fields[i] ? facts->fields[i] : Py_None));
  Py_hash_t hash = PyObject_Hash(values);
  Py_DECREF(values);
  return hash;
}

int facts_setattro(PyObject*, PyObject* name, PyObject* value) {
  if (!PyUnicode_Check(name)) {
    PyErr_SetString(PyExc_TypeError, "attribute name must be a string");
    return -1;
  }
  PyErr_Format(PyExc_AttributeError, "cannot %s field '%U': ScopeFacts is immutable",
               value == nullptr ? "delete" : "assign to", name);
  return -1;
}

#define SCOPE_FIELD(index, doc) \
  {kFactsFieldNames[index], facts_get_field, nullptr, PyDoc_STR(doc), reinterpret_cast<void*>(index)}
PyGetSetDef facts_getset[] = {
    SCOPE_FIELD(kFiles, "The page's indexed files (tuple of ScopeFile)."),
    SCOPE_FIELD(kSymbols, "The declarations of those files (tuple of ScopeSymbol)."),
    SCOPE_FIELD(kInbound, "References reaching the page's declarations (tuple of InboundReference)."),
    SCOPE_FIELD(kOutbound, "References made by the page's files (tuple of OutboundReference)."),
    SCOPE_FIELD(kImportResolvedPaths, "Page paths whose language has resolved imports (frozenset)."),
    SCOPE_FIELD(kTestSources, "Source paths of inbound references that are tests (frozenset)."),
    SCOPE_FIELD(kLineCounts, "Path to number of lines, for readable files (read-only)."),
    SCOPE_FIELD(kSummaries, "Path to the file's own summary, for readable files (read-only)."),
    SCOPE_FIELD(kTestImports, "Page path to the test files importing it (read-only)."),
    {"paths", facts_get_paths, nullptr, PyDoc_STR("Frozenset of the paths of `files`, derived on each access."),
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};
#undef SCOPE_FIELD

PyMethodDef facts_methods[] = {
    {"import_resolved", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(facts_import_resolved)),
     METH_FASTCALL | METH_KEYWORDS,
     PyDoc_STR("import_resolved($self, /, path)\n--\n\n"
               "Whether `path` is in `import_resolved_paths` (the index resolves imports for its language).")},
    {"__reduce__", facts_reduce, METH_NOARGS, PyDoc_STR("Pickle support: rebuilds from the nine fields.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

FactsObject* as_facts(const ModuleState& state, PyObject* object, const char* argument) {
  if (Py_TYPE(object) != reinterpret_cast<PyTypeObject*>(state.facts_type))
    wrong_type(Where{argument}, "ScopeFacts", object);
  FactsObject* facts = facts_of(object);
  if (facts->fields[kFiles] == nullptr) raise(PyExc_ValueError, "ScopeFacts was cleared");
  return facts;
}

NativeFacts& native_of(FactsObject* facts) {
  if (facts->native == nullptr) facts->native = new NativeFacts();
  return *facts->native;
}

bool add_facts_type(PyObject* module, ModuleState& state) {
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
  state.facts_type = PyType_FromModuleAndSpec(module, &type_spec, nullptr);
  if (state.facts_type == nullptr) return false;
  return PyModule_AddObjectRef(module, "ScopeFacts", state.facts_type) == 0;
}

}  // namespace scope::py
