// load_scope_facts: the one function that talks to the index and the checkout.
//
// It only orders calls into the host: five queries, one read of each file,
// and the sibling functions, each looked up on the module when called.
#include <algorithm>
#include <string>
#include <vector>

#include "bindings.hpp"
#include "facts.hpp"

namespace scope::py {

namespace {

PyRef call(const char* function, std::initializer_list<PyObject*> arguments) {
  PyRef callable = module_attr(function);
  PyRef tuple = check(PyTuple_New(static_cast<Py_ssize_t>(arguments.size())));
  Py_ssize_t i = 0;
  for (PyObject* argument : arguments) PyTuple_SET_ITEM(tuple.get(), i++, Py_NewRef(argument));
  return check(PyObject_Call(callable.get(), tuple.get(), nullptr));
}

// `record.language`, with an absent attribute read as None.
PyRef language_of(PyObject* file) {
  PyRef language = PyRef::steal(PyObject_GetAttrString(file, "language"));
  if (language) return language;
  if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyError{};
  PyErr_Clear();
  return PyRef::borrow(Py_None);
}

// The distinct non-empty languages of the files, sorted by code point.
PyRef language_list(PyObject* files) {
  std::vector<std::pair<std::string, PyRef>> languages;
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files); ++i) {
    PyRef language = language_of(PyTuple_GET_ITEM(files, i));
    if (language.get() == Py_None) continue;
    PyRef scratch;
    std::string_view text = utf8_of(language.get(), scratch, Where{"db", "ScopeFile.language from scope_files()"});
    if (!text.empty()) languages.emplace_back(std::string(text), language);
  }
  std::stable_sort(languages.begin(), languages.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  languages.erase(
      std::unique(languages.begin(), languages.end(), [](const auto& a, const auto& b) { return a.first == b.first; }),
      languages.end());
  PyRef list = check(PyList_New(static_cast<Py_ssize_t>(languages.size())));
  for (std::size_t i = 0; i < languages.size(); ++i)
    PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), languages[i].second.release());
  return list;
}

PyObject* load_scope_facts(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("load_scope_facts", [&]() -> PyRef {
    static const char* const keywords[] = {"db", "paths", "read_lines", nullptr};
    PyObject* db;
    PyObject* paths;
    PyObject* read_lines;
    parse_args(args, kwargs, "OOO:load_scope_facts", keywords, &db, &paths, &read_lines);
    if (!PyCallable_Check(read_lines)) wrong_type(Where{"read_lines"}, "callable", read_lines);

    PyRef returned_files = call("scope_files", {db, paths});
    PyRef files = snapshot(returned_files.get(), Where{"db", "the result of scope_files()"}, "a sequence");
    PyRef ids = check(PyList_New(PyTuple_GET_SIZE(files.get())));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files.get()); ++i)
      PyList_SET_ITEM(ids.get(), i, check(PyObject_GetAttrString(PyTuple_GET_ITEM(files.get(), i), "id")).release());

    PyRef inbound = snapshot(call("inbound_references", {db, ids.get()}).get(),
                             Where{"db", "the result of inbound_references()"}, "a sequence");
    PyRef languages = language_list(files.get());
    PyRef resolved = call("import_resolved_languages", {db, languages.get()});

    // One read per file; the line count and the summary come from it.
    PyRef line_counts = check(PyDict_New());
    PyRef summaries = check(PyDict_New());
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files.get()); ++i) {
      PyRef path = check(PyObject_GetAttrString(PyTuple_GET_ITEM(files.get(), i), "path"));
      PyRef lines = check(PyObject_CallOneArg(read_lines, path.get()));
      if (lines.get() == Py_None) continue;  // unreadable: no line count, no summary
      if (!PySequence_Check(lines.get()) && !PyMapping_Check(lines.get()))
        wrong_type(Where{"read_lines", "its result"}, "a list of lines or None", lines.get());
      Py_ssize_t count = PyObject_Size(lines.get());
      if (count < 0) throw PyError{};
      check(PyDict_SetItem(line_counts.get(), path.get(), new_int(count).get()));
      PyRef summary = call("file_summary", {lines.get()});
      check(PyDict_SetItem(summaries.get(), path.get(), summary.get()));
    }

    PyRef symbols = snapshot(call("scope_symbols", {db, ids.get()}).get(), Where{"db", "the result of scope_symbols()"},
                             "a sequence");
    PyRef outbound = snapshot(call("outbound_references", {db, ids.get()}).get(),
                              Where{"db", "the result of outbound_references()"}, "a sequence");

    PyRef resolved_paths = check(PyFrozenSet_New(nullptr));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files.get()); ++i) {
      PyObject* file = PyTuple_GET_ITEM(files.get(), i);  // borrowed from files
      PyRef language = language_of(file);
      if (check(PySequence_Contains(resolved.get(), language.get()))) {
        PyRef path = check(PyObject_GetAttrString(file, "path"));
        check(PySet_Add(resolved_paths.get(), path.get()));
      }
    }

    // is_test_path once per distinct source path, in order of first sight.
    PyRef seen = check(PyDict_New());
    PyRef test_sources = check(PyFrozenSet_New(nullptr));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(inbound.get()); ++i) {
      PyRef source = check(PyObject_GetAttrString(PyTuple_GET_ITEM(inbound.get(), i), "source_path"));
      if (check(PyDict_Contains(seen.get(), source.get()))) continue;
      check(PyDict_SetItem(seen.get(), source.get(), Py_None));
      if (truth(call("is_test_path", {source.get()}).get())) check(PySet_Add(test_sources.get(), source.get()));
    }

    PyRef test_imports = call("importing_tests", {db, returned_files.get()});

    PyRef fields = check(Py_BuildValue("(OOOOOOOOO)", files.get(), symbols.get(), inbound.get(), outbound.get(),
                                       resolved_paths.get(), test_sources.get(), line_counts.get(), summaries.get(),
                                       test_imports.get()));
    PyObject* facts_type = PyObject_GetAttrString(module_object(), "ScopeFacts");
    PyRef type = check(facts_type);
    return check(PyObject_Call(type.get(), fields.get(), nullptr));
  });
}

}  // namespace

PyMethodDef loader_methods[] = {
    {"load_scope_facts", keywords_function(load_scope_facts), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("load_scope_facts(db, paths, read_lines)\n--\n\n"
               "Loads one page's facts: queries the index (scope_files, inbound_references, "
               "import_resolved_languages, then scope_symbols and outbound_references), reads each indexed file "
               "once with `read_lines` (None means unreadable), asks `is_test_path` once per distinct inbound "
               "source, and stores the result of `importing_tests`. Errors of any of these propagate unchanged.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
