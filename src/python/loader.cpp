// load_scope_facts: the one function that talks to the index and the
// checkout. It only orders calls into the host: five queries, one read of
// each file, and the sibling functions, each looked up on the module when
// it is called.
#include <algorithm>
#include <string>

#include "entries.hpp"

namespace scope::py {

namespace {

PyRef call_host(const Call& c, Name function, std::initializer_list<PyObject*> arguments) {
  PyRef callable = c.module_attr(function);
  PyRef tuple = check(PyTuple_New(static_cast<Py_ssize_t>(arguments.size())));
  Py_ssize_t i = 0;
  for (PyObject* argument : arguments) PyTuple_SET_ITEM(tuple.get(), i++, Py_NewRef(argument));
  return check(PyObject_Call(callable.get(), tuple.get(), nullptr));
}

// A query's result as a tuple.
PyRef query(const Call& c, Name function, std::initializer_list<PyObject*> arguments, const char* what) {
  return snapshot(call_host(c, function, arguments).get(), Where{"db", what}, "a sequence");
}

PyRef attr(const Call& c, PyObject* record, TableId table, unsigned field) {
  return check(PyObject_GetAttr(record, c.state.attrs[table][field]));
}

// `file.language`, with an absent attribute read as None.
PyRef language_of(const Call& c, PyObject* file) {
  PyRef language = PyRef::steal(PyObject_GetAttr(file, c.state.attrs[kFilesTable][file_f::language]));
  if (language) return language;
  if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyError{};
  PyErr_Clear();
  return PyRef::borrow(Py_None);
}

// The distinct non-empty languages of the files, sorted by code point.
PyRef language_list(const Call& c, PyObject* files) {
  std::vector<std::pair<std::string, PyRef>> languages;
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(files); ++i) {
    PyRef language = language_of(c, PyTuple_GET_ITEM(files, i));
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

}  // namespace

PyRef load_scope_facts(Call& c) {
  PyObject *db = c.arg(0), *paths = c.arg(1), *read_lines = c.arg(2);
  if (!PyCallable_Check(read_lines)) wrong_type(Where{"read_lines"}, "callable", read_lines);

  PyRef returned_files = call_host(c, kScopeFiles, {db, paths});
  PyRef files = snapshot(returned_files.get(), Where{"db", "the result of scope_files()"}, "a sequence");
  const Py_ssize_t file_count = PyTuple_GET_SIZE(files.get());
  PyRef ids = check(PyList_New(file_count));
  for (Py_ssize_t i = 0; i < file_count; ++i)
    PyList_SET_ITEM(ids.get(), i, attr(c, PyTuple_GET_ITEM(files.get(), i), kFilesTable, file_f::id).release());

  PyRef inbound = query(c, kInboundReferences, {db, ids.get()}, "the result of inbound_references()");
  PyRef languages = language_list(c, files.get());
  PyRef resolved = call_host(c, kImportResolvedLanguages, {db, languages.get()});

  // One read per file; the line count and the summary come from it.
  PyRef line_counts = check(PyDict_New());
  PyRef summaries = check(PyDict_New());
  for (Py_ssize_t i = 0; i < file_count; ++i) {
    PyRef path = attr(c, PyTuple_GET_ITEM(files.get(), i), kFilesTable, file_f::path);
    PyRef lines = check(PyObject_CallOneArg(read_lines, path.get()));
    if (lines.get() == Py_None) continue;  // unreadable: no line count, no summary
    if (!PySequence_Check(lines.get()) && !PyMapping_Check(lines.get()))
      wrong_type(Where{"read_lines", "its result"}, "a list of lines or None", lines.get());
    const Py_ssize_t count = PyObject_Size(lines.get());
    if (count < 0) throw PyError{};
    check(PyDict_SetItem(line_counts.get(), path.get(), new_int(count).get()));
    PyRef summary = call_host(c, kFileSummary, {lines.get()});
    check(PyDict_SetItem(summaries.get(), path.get(), summary.get()));
  }

  PyRef symbols = query(c, kScopeSymbols, {db, ids.get()}, "the result of scope_symbols()");
  PyRef outbound = query(c, kOutboundReferences, {db, ids.get()}, "the result of outbound_references()");

  PyRef resolved_paths = check(PyFrozenSet_New(nullptr));
  for (Py_ssize_t i = 0; i < file_count; ++i) {
    PyObject* file = PyTuple_GET_ITEM(files.get(), i);  // borrowed from files
    PyRef language = language_of(c, file);
    if (contains(resolved.get(), language.get(), Where{"db", "the result of import_resolved_languages()"}))
      check(PySet_Add(resolved_paths.get(), attr(c, file, kFilesTable, file_f::path).get()));
  }

  // is_test_path once per distinct source path, in order of first sight.
  PyRef seen = check(PySet_New(nullptr));
  PyRef test_sources = check(PyFrozenSet_New(nullptr));
  PyRef is_test_path = c.module_attr(kIsTestPath);
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(inbound.get()); ++i) {
    PyRef source = attr(c, PyTuple_GET_ITEM(inbound.get(), i), kInboundTable, in_f::source_path);
    if (check(PySet_Contains(seen.get(), source.get()))) continue;
    check(PySet_Add(seen.get(), source.get()));
    if (truth(check(PyObject_CallOneArg(is_test_path.get(), source.get())).get()))
      check(PySet_Add(test_sources.get(), source.get()));
  }

  PyRef test_imports = call_host(c, kImportingTests, {db, returned_files.get()});
  PyRef fields = check(Py_BuildValue("(OOOOOOOOO)", files.get(), symbols.get(), inbound.get(), outbound.get(),
                                     resolved_paths.get(), test_sources.get(), line_counts.get(), summaries.get(),
                                     test_imports.get()));
  return check(PyObject_Call(c.state.facts_type, fields.get(), nullptr));
}

}  // namespace scope::py
