// The extension module `scope`: imports from the host's sibling modules,
// the module constants, FanIn, ScopeFacts and the function tables.
#include "bindings.hpp"
#include "facts.hpp"
#include "pyref.hpp"

namespace scope::py {

namespace {

PyObject* the_module = nullptr;  // borrowed: a single-phase module lives until exit
PyRef fan_in_class;              // the FanIn made at load, for results
PyRef counter_class;             // collections.Counter

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

// FanIn is a named tuple like the host's own, so it is made by the standard
// library's factory; `api` reads `outside` and `entry` only.
const char kFanInSource[] = R"(
import collections, types

def _make_fan_in():
    FanIn = collections.namedtuple(
        "FanIn", ("outside", "inside", "entry"),
        defaults=(types.MappingProxyType({}), frozenset()), module="scope")

    def api(self, symbol_id):
        """Whether the declaration is the page's API: some counted use from
        outside the page (an entry of 0 is none), or an entry point."""
        return self.outside.get(symbol_id, 0) > 0 or symbol_id in self.entry

    api.__qualname__ = "FanIn.api"
    api.__module__ = "scope"
    FanIn.api = api
    FanIn.__doc__ = (
        "Production uses of a page's declarations by symbol id: `outside` from "
        "files outside the page, `inside` from the page's own files, and "
        "`entry`, the ids of the page's entry points.")
    return FanIn

FanIn = _make_fan_in()
)";

PyRef frozenset_of(std::initializer_list<const char*> members) {
  PyRef set = check(PyFrozenSet_New(nullptr));
  for (const char* member : members) {
    PyRef text = check(PyUnicode_FromString(member));
    check(PySet_Add(set.get(), text.get()));
  }
  return set;
}

void add(PyObject* module, const char* name, PyRef value) { check(PyModule_AddObjectRef(module, name, value.get())); }

void populate(PyObject* module) {
  for (const Import& import : kImports) {
    PyRef source = check(PyImport_ImportModule(import.module));
    add(module, import.bound_as, check(PyObject_GetAttrString(source.get(), import.name)));
  }
  add(module, "__version__", check(PyUnicode_FromString(SCOPE_VERSION)));  // from pyproject.toml, through CMake
  add(module, "EVIDENCE_RESOLUTIONS", frozenset_of({"import", "local"}));
  PyRef trusted = check(PyObject_GetAttrString(module, "TRUSTED_RESOLUTIONS"));
  add(module, "_TRUSTED", check(PyFrozenSet_New(trusted.get())));
  add(module, "_TYPE_KINDS", frozenset_of({"enum", "class", "interface", "type", "struct"}));
  add(module, "_CARD_NAMES", new_int(3));
  add(module, "_CONSUMER_ROWS", new_int(12));
  add(module, "_CONSUMER_NAMES", new_int(4));
  add(module, "_UNUSED_NAMES", new_int(8));
  add(module, "_SIZE_CAP", new_int(40));

  PyRef globals = check(PyDict_New());
  check(PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins()));  // borrowed
  check(PyDict_SetItemString(globals.get(), "__name__", check(PyModule_GetNameObject(module)).get()));
  check(PyRun_String(kFanInSource, Py_file_input, globals.get(), globals.get()));  // the result is None
  PyObject* fan_in = PyDict_GetItemString(globals.get(), "FanIn");                 // borrowed from globals
  if (fan_in == nullptr) raise(PyExc_SystemError, "FanIn was not defined");
  fan_in_class = PyRef::borrow(fan_in);
  add(module, "FanIn", fan_in_class);
  PyRef collections = check(PyImport_ImportModule("collections"));
  counter_class = check(PyObject_GetAttrString(collections.get(), "Counter"));
  if (!init_facts_type(module)) throw PyError{};
  for (PyMethodDef* table : binding_tables()) check(PyModule_AddFunctions(module, table));
}

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "scope",
    PyDoc_STR("Grounding of one wiki page: what the index knows of the page's files, turned into file cards, "
              "declaration rankings, citable line ranges, consumers and neighbours."),
    -1,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyObject* module_object() { return the_module; }
PyObject* fan_in_type() { return fan_in_class.get(); }
PyObject* counter_type() { return counter_class.get(); }

PyRef module_attr(const char* name) { return check(PyObject_GetAttrString(the_module, name)); }

}  // namespace scope::py

PyMODINIT_FUNC PyInit_scope(void) {
  using namespace scope::py;
  PyObject* module = PyModule_Create(&module_def);
  if (module == nullptr) return nullptr;
  the_module = module;
  PyObject* result = guarded([&]() -> PyRef {
    populate(module);
    return PyRef::borrow(module);
  });
  Py_DECREF(module);
  if (result == nullptr) the_module = nullptr;
  return result;
}
