// The extension module `scope`: multi-phase initialisation, the module
// state, the names taken from the host's sibling modules, the constants
// (made from the core's values), FanIn and ScopeFacts.
#include <string>

#include "../core/rules.hpp"
#include "entries.hpp"
#include "native.hpp"

namespace scope::py {

namespace {

struct Import {
  const char* module;
  const char* name;
  const char* bound_as;
};

// Names taken from the host's sibling modules. CALLABLE_KINDS is bound only
// under its internal name.
const Import kImports[] = {
    {"tarnwick.models.edge", "TRUSTED_RESOLUTIONS", "TRUSTED_RESOLUTIONS"},
    {"tarnwick.models.symbol", "CALLABLE_KINDS", "_CALLABLE_KINDS"},
    {"tarnwick.storage.database", "Database", "Database"},
    {"tarnwick.storage.grounding_queries", "NAME_MATCH_KINDS", "NAME_MATCH_KINDS"},
    {"tarnwick.storage.grounding_queries", "InboundReference", "InboundReference"},
    {"tarnwick.storage.grounding_queries", "OutboundReference", "OutboundReference"},
    {"tarnwick.storage.grounding_queries", "ScopeFile", "ScopeFile"},
    {"tarnwick.storage.grounding_queries", "ScopeSymbol", "ScopeSymbol"},
    {"tarnwick.storage.grounding_queries", "import_resolved_languages", "import_resolved_languages"},
    {"tarnwick.storage.grounding_queries", "inbound_references", "inbound_references"},
    {"tarnwick.storage.grounding_queries", "outbound_references", "outbound_references"},
    {"tarnwick.storage.grounding_queries", "scope_files", "scope_files"},
    {"tarnwick.storage.grounding_queries", "scope_symbols", "scope_symbols"},
    {"tarnwick.utils.path_filter", "is_test_path", "is_test_path"},
    {"tarnwick.workers.wiki.file_summary", "file_summary", "file_summary"},
    {"tarnwick.workers.wiki.scope_tests", "importing_tests", "importing_tests"},
    {"tarnwick.workers.wiki.scope_tests", "tests_reaching", "tests_reaching"},
};

#define SCOPE_NAME_TEXT(id, text) text,
const char* const kNameTexts[kNameCount] = {SCOPE_NAMES(SCOPE_NAME_TEXT)};
#undef SCOPE_NAME_TEXT

const Schema* const kSchemas[kTableCount] = {&kFileSchema, &kSymbolSchema, &kInboundSchema, &kOutboundSchema};

void add(PyObject* module, const char* name, PyRef value) { check(PyModule_AddObjectRef(module, name, value.get())); }

template <std::size_t N>
PyRef frozenset_of(const std::array<std::string_view, N>& members) {
  PyRef set = check(PyFrozenSet_New(nullptr));
  for (std::string_view member : members) check(PySet_Add(set.get(), str_from_utf8(member).get()));
  return set;
}

// FanIn.api: whether the declaration is the page's API, asking the FanIn's
// maps as `outside.get(symbol_id, 0) > 0 or symbol_id in entry` would. A
// FanIn itself (not a subclass, which may redefine its fields) is read as
// the tuple it is.
PyObject* fan_in_api(PyObject* self, PyTypeObject* defining_class, PyObject* const* args, Py_ssize_t nargs,
                     PyObject* kwnames) {
  return entry("api", [&]() -> PyRef {
    static const char* const params[] = {"symbol_id"};
    PyObject* id = nullptr;
    bind_arguments(params, 1, args, nargs, kwnames, &id);
    const bool plain = Py_TYPE(self) == defining_class;
    auto field = [&](int index, const char* name) {
      return plain ? PyRef::borrow(PyTuple_GET_ITEM(self, index)) : check(PyObject_GetAttrString(self, name));
    };
    auto has_outside_uses = [&] {
      PyRef count = get_value(field(0, "outside").get(), id);
      if (!count) return false;
      if (PyLong_CheckExact(count.get())) {  // an int answers without host code
        int overflow = 0;
        const long long value = PyLong_AsLongLongAndOverflow(count.get(), &overflow);
        return overflow > 0 || (overflow == 0 && value > 0);
      }
      PyRef zero = new_int(0);
      return check(PyObject_RichCompareBool(count.get(), zero.get(), Py_GT)) != 0;
    };
    auto in_entry = [&] { return contains(field(2, "entry").get(), id, Where{"self", "entry"}); };
    return new_bool(is_api(has_outside_uses, in_entry));
  });
}

PyMethodDef fan_in_api_def = {
    "api", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(fan_in_api)),
    METH_METHOD | METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("api($self, /, symbol_id)\n--\n\n"
              "Whether the declaration is the page's API: some counted use from outside the page (an entry of 0 "
              "is none), or an entry point.")};

// FanIn is a named tuple like the host's own, made by the standard library's
// factory; its `api` is the module's rule.
PyRef make_fan_in() {
  PyRef collections = check(PyImport_ImportModule("collections"));
  PyRef types = check(PyImport_ImportModule("types"));
  PyRef empty = check(PyDict_New());
  PyRef no_uses = check(PyObject_CallMethod(types.get(), "MappingProxyType", "O", empty.get()));
  PyRef no_entry = check(PyFrozenSet_New(nullptr));
  PyRef kwargs = check(Py_BuildValue("{s(OO)ss}", "defaults", no_uses.get(), no_entry.get(), "module", "scope"));
  PyRef args = check(Py_BuildValue("(s(sss))", "FanIn", "outside", "inside", "entry"));
  PyRef factory = check(PyObject_GetAttrString(collections.get(), "namedtuple"));
  PyRef fan_in = check(PyObject_Call(factory.get(), args.get(), kwargs.get()));
  PyRef doc = check(PyUnicode_FromString(
      "Production uses of a page's declarations by symbol id: `outside` from files outside the page, `inside` "
      "from the page's own files (by default none), and `entry`, the ids of the page's entry points (by default "
      "none)."));
  check(PyObject_SetAttrString(fan_in.get(), "__doc__", doc.get()));
  PyRef api = check(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(fan_in.get()), &fan_in_api_def));
  check(PyObject_SetAttrString(fan_in.get(), "api", api.get()));
  return fan_in;
}

void populate(PyObject* module, ModuleState& state) {
  for (int i = 0; i < kNameCount; ++i) state.names[i] = check(PyUnicode_InternFromString(kNameTexts[i])).release();
  for (int table = 0; table < kTableCount; ++table)
    for (unsigned field = 0; field < kSchemas[table]->count; ++field)
      state.attrs[table][field] =
          check(PyUnicode_InternFromString(std::string(kSchemas[table]->fields[field].attr).c_str())).release();

  for (const Import& import : kImports) {
    PyRef source = check(PyImport_ImportModule(import.module));
    add(module, import.bound_as, check(PyObject_GetAttrString(source.get(), import.name)));
  }
  add(module, "EVIDENCE_RESOLUTIONS", frozenset_of(kEvidenceResolutionNames));
  PyRef trusted = check(PyObject_GetAttrString(module, "TRUSTED_RESOLUTIONS"));
  add(module, "_TRUSTED", check(PyFrozenSet_New(trusted.get())));
  add(module, "_TYPE_KINDS", frozenset_of(kTypeKindNames));
  add(module, "_CARD_NAMES", new_int(kCardNames));
  add(module, "_CONSUMER_ROWS", new_int(kConsumerRows));
  add(module, "_CONSUMER_NAMES", new_int(kConsumerNames));
  add(module, "_UNUSED_NAMES", new_int(kUnusedNames));
  add(module, "_SIZE_CAP", new_int(kSizeCap));
  add(module, "__version__", check(PyUnicode_FromString(SCOPE_VERSION)));  // from pyproject.toml, through CMake

  state.fan_in_type = make_fan_in().release();
  add(module, "FanIn", PyRef::borrow(state.fan_in_type));
  PyRef collections = check(PyImport_ImportModule("collections"));
  state.counter_type = check(PyObject_GetAttrString(collections.get(), "Counter")).release();
  if (!add_facts_type(module, state)) throw PyError{};
  check(PyModule_AddFunctions(module, entry_methods()));
}

int exec_module(PyObject* module) {
  ModuleState& state = state_of_module(module);
  state.facts_with_records = new std::shared_ptr<LiveFacts>(std::make_shared<LiveFacts>());
  state.dict_stamps.open();
  PyObject* done = entry("scope", [&]() -> PyRef {
    populate(module, state);
    return PyRef::borrow(Py_None);
  });
  if (done == nullptr) return -1;
  Py_DECREF(done);
  return 0;
}

int traverse_module(PyObject* module, visitproc visit, void* arg) {
  ModuleState& state = state_of_module(module);
  Py_VISIT(state.facts_type);
  Py_VISIT(state.fan_in_type);
  Py_VISIT(state.counter_type);
  return 0;
}

int clear_module(PyObject* module) {
  ModuleState& state = state_of_module(module);
  Py_CLEAR(state.facts_type);
  Py_CLEAR(state.fan_in_type);
  Py_CLEAR(state.counter_type);
  for (PyObject*& name : state.names) Py_CLEAR(name);
  for (auto& row : state.attrs)
    for (PyObject*& name : row) Py_CLEAR(name);
  return 0;
}

void free_module(void* module) {
  clear_module(static_cast<PyObject*>(module));
  ModuleState& state = state_of_module(static_cast<PyObject*>(module));
  delete std::exchange(state.facts_with_records, nullptr);
  state.dict_stamps.close();
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "scope",
    PyDoc_STR("Grounding of one wiki page: what the index knows of the page's files, turned into file cards, "
              "declaration rankings, citable line ranges, consumers and neighbours."),
    sizeof(ModuleState),
    nullptr,
    module_slots,
    traverse_module,
    clear_module,
    free_module,
};

}  // namespace

ModuleState& state_of_module(PyObject* module) { return *static_cast<ModuleState*>(PyModule_GetState(module)); }
ModuleState* live_state_of_type(PyTypeObject* type) {
  auto* state = static_cast<ModuleState*>(PyType_GetModuleState(type));
  if (state == nullptr) PyErr_Clear();  // the type no longer knows its module
  return state != nullptr && state->facts_type != nullptr ? state : nullptr;
}
const Schema& schema_of(TableId table) { return *kSchemas[table]; }

Where module_set(Name name) {
  static const char* const kSetTexts[] = {"scope.NAME_MATCH_KINDS", "scope._TYPE_KINDS", "scope._CALLABLE_KINDS",
                                          "scope.EVIDENCE_RESOLUTIONS", "scope._TRUSTED"};
  return Where{nullptr, kSetTexts[name - kNameMatchKinds]};
}

}  // namespace scope::py

PyMODINIT_FUNC PyInit_scope(void) { return PyModuleDef_Init(&scope::py::module_def); }
