// Markdown helpers, file users and the file cards table.
#include <string>
#include <unordered_map>
#include <vector>

#include "bindings.hpp"
#include "facts.hpp"
#include "text.hpp"

namespace scope::py {

namespace {

std::string text_argument(PyObject* value, const char* argument) {
  if (!PyUnicode_Check(value)) wrong_type(Where{argument}, "str", value);
  PyRef scratch;
  return std::string(utf8_of(value, scratch, Where{argument}));
}

// The str items of an iterable, as UTF-8.
std::vector<std::string> text_items(PyObject* iterable, Where where) {
  PyRef items = snapshot(iterable, where, "a sequence of str");
  std::vector<std::string> texts;
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
    PyRef scratch;
    texts.emplace_back(utf8_of(PyTuple_GET_ITEM(items.get(), i), scratch, where));
  }
  return texts;
}

// A list of names as `_named` reads it: its length, and the names a slice
// [:limit] gives, as UTF-8. The length the object reports is only counted;
// the shown names are whatever the slice yields.
NameList shown_names(PyObject* names, std::int64_t limit, Where where) {
  Py_ssize_t size = PyObject_Size(names);
  if (size < 0) throw PyError{};
  NameList list;
  list.total = static_cast<std::size_t>(size);
  PyRef stop = new_int(limit);
  PyRef slice = check(PySlice_New(nullptr, stop.get(), nullptr));
  PyRef head = check(PyObject_GetItem(names, slice.get()));
  PyRef items = snapshot(head.get(), where, "a sequence of str");
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
    PyRef scratch;
    list.head.emplace_back(utf8_of(PyTuple_GET_ITEM(items.get(), i), scratch, where));
  }
  return list;
}

PyObject* short_path(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_short_path", [&]() -> PyRef {
    static const char* const keywords[] = {"path", nullptr};
    PyObject* path;
    parse_args(args, kwargs, "O:_short_path", keywords, &path);
    return str_from_utf8(scope::short_path(text_argument(path, "path")));
  });
}

PyObject* cell(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_cell", [&]() -> PyRef {
    static const char* const keywords[] = {"text", nullptr};
    PyObject* text;
    parse_args(args, kwargs, "O:_cell", keywords, &text);
    return str_from_utf8(scope::cell(text_argument(text, "text")));
  });
}

PyObject* named(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_named", [&]() -> PyRef {
    static const char* const keywords[] = {"names", "limit", nullptr};
    PyObject* names;
    PyObject* limit_arg = nullptr;
    parse_args(args, kwargs, "O|O:_named", keywords, &names, &limit_arg);
    if (!PySequence_Check(names)) wrong_type(Where{"names"}, "a sequence of str", names);
    std::int64_t limit = limit_arg == nullptr ? kCardNames : int_arg(limit_arg, "limit");
    NameList list = shown_names(names, limit, Where{"names", "name"});
    return str_from_utf8(scope::named(list.head, list.total, limit));
  });
}

constexpr std::uint32_t kUserFields =
    bit(in_f::source_path) | bit(in_f::target_path) | bit(in_f::target_kind) | bit(in_f::resolution) | bit(in_f::refs);

PyObject* file_users(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("file_users", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", nullptr};
    PyObject* facts_arg;
    parse_args(args, kwargs, "O:file_users", keywords, &facts_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_path_bits(facts, path_bit::import_resolved | path_bit::test_source);
    need_inbound(facts, kUserFields);
    NativeFacts& native = native_of(facts);
    PyRef result = check(PyDict_New());
    for (const auto& [target, users] : scope::file_users(native.view, vocab_for(facts))) {
      // Counter is a dict subclass: filling it as a dict keeps its order.
      PyRef counter = check(PyObject_CallNoArgs(counter_type()));
      for (const auto& [user, count] : users)
        check(PyDict_SetItem(counter.get(), native.strings[user].get(), new_int(count).get()));
      check(PyDict_SetItem(result.get(), native.strings[target].get(), counter.get()));
    }
    return result;
  });
}

PyRef list_of_texts(const std::vector<std::string>& texts) {
  PyRef list = check(PyList_New(static_cast<Py_ssize_t>(texts.size())));
  for (std::size_t i = 0; i < texts.size(); ++i)
    PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), str_from_utf8(texts[i]).release());
  return list;
}

PyObject* most_used(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_most_used", [&]() -> PyRef {
    static const char* const keywords[] = {"declarations", "fan_in", nullptr};
    PyObject* declarations;
    PyObject* fan_in_arg;
    parse_args(args, kwargs, "OO:_most_used", keywords, &declarations, &fan_in_arg);
    PyRef records = snapshot(declarations, Where{"declarations"}, "a sequence of ScopeSymbol");
    NativeFacts scratch;
    load_symbol_records(scratch, records.get(), bit(sym_f::id) | bit(sym_f::name) | bit(sym_f::start_line),
                        "declarations");
    FanInView fan_in = fan_in_view(fan_in_arg, scratch.view.symbols.cols[sym_f::id], false);
    std::vector<std::size_t> rows(scratch.view.symbols.rows);
    for (std::size_t row = 0; row < rows.size(); ++row) rows[row] = row;
    return list_of_texts(scope::most_used(scratch.view.pool, scratch.view.symbols, rows, fan_in));
  });
}

// The test names that `tests_reaching(facts)` gives each page file: the
// second element of its pair, a mapping asked as `.get(path)` would ask it
// (a dict's missing-key hook is not run; an entry of None means no tests).
std::unordered_map<StrId, NameList> tests_by_file(FactsObject* facts) {
  PyRef reaching = module_attr("tests_reaching");
  PyRef pair = check(PyObject_CallOneArg(reaching.get(), reinterpret_cast<PyObject*>(facts)));
  if (!PySequence_Check(pair.get()) && !PyMapping_Check(pair.get()))
    wrong_type(Where{"facts", "the result of tests_reaching()"}, "a pair", pair.get());
  PyRef by_file = check(PyObject_GetItem(pair.get(), new_int(1).get()));
  const bool is_dict = PyDict_Check(by_file.get());
  PyRef get;
  if (!is_dict) get = check(PyObject_GetAttrString(by_file.get(), "get"));
  NativeFacts& native = native_of(facts);
  std::unordered_map<StrId, NameList> tests;
  for (std::size_t row = 0; row < native.view.files.rows; ++row) {
    StrId path = native.view.files.str(file_f::path, row);
    if (tests.count(path)) continue;
    PyObject* key = native.strings[path].get();
    PyRef names;
    if (is_dict) {
      names = PyRef::borrow(PyDict_GetItemWithError(by_file.get(), key));
      if (!names && PyErr_Occurred()) throw PyError{};
    } else {
      names = check(PyObject_CallOneArg(get.get(), key));
    }
    if (!names || names.get() == Py_None) continue;  // no test reaches this file
    // The names are listed first (any iterable will do), then cut as a cell shows them.
    Where where{"facts", "a test name from tests_reaching()"};
    PyRef all = snapshot(names.get(), where, "an iterable of str");
    NameList& list = tests[path];
    list.total = static_cast<std::size_t>(PyTuple_GET_SIZE(all.get()));
    for (std::size_t i = 0; i < named_shown(list.total, kCardNames); ++i) {
      PyRef scratch;
      list.head.emplace_back(utf8_of(PyTuple_GET_ITEM(all.get(), static_cast<Py_ssize_t>(i)), scratch, where));
    }
  }
  return tests;
}

PyObject* render_file_cards(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("render_file_cards", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", "fan_in", "heading", "missing", nullptr};
    PyObject *facts_arg, *fan_in_arg, *heading_arg, *missing_arg = nullptr;
    parse_args(args, kwargs, "OOO|O:render_file_cards", keywords, &facts_arg, &fan_in_arg, &heading_arg, &missing_arg);
    FactsObject* facts = as_facts(facts_arg);
    std::string heading = text_argument(heading_arg, "heading");
    std::vector<std::string> missing;
    if (missing_arg != nullptr) {
      if (PyUnicode_Check(missing_arg) || !PySequence_Check(missing_arg))
        wrong_type(Where{"missing"}, "a sequence of str", missing_arg);
      missing = text_items(missing_arg, Where{"missing", "path"});
    }

    need_files(facts, bit(file_f::path));
    need_symbols(facts, bit(sym_f::path) | bit(sym_f::id) | bit(sym_f::name) | bit(sym_f::start_line));
    need_path_bits(facts, path_bit::import_resolved | path_bit::test_source);
    need_inbound(facts, kUserFields);
    need_line_counts(facts);
    need_summaries(facts);
    Vocab vocab = vocab_for(facts);
    auto tests = tests_by_file(facts);
    NativeFacts& native = native_of(facts);
    // Only a row asks the fan-in: a page without files never reads it.
    FanInView fan_in = native.view.files.rows ? fan_in_view(fan_in_arg, symbol_ids(facts), false) : FanInView{};
    return str_from_utf8(scope::render_file_cards(native.view, vocab, fan_in, heading, missing, tests));
  });
}

}  // namespace

PyMethodDef text_methods[] = {
    {"_short_path", keywords_function(short_path), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_short_path(path)\n--\n\nThe last two \"/\"-separated segments of `path`.")},
    {"_cell", keywords_function(cell), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_cell(text)\n--\n\n`text` for one Markdown table cell: \"|\" escaped, line feeds made spaces.")},
    {"_named", keywords_function(named), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_named(names, limit=3)\n--\n\n"
               "The first `limit` names joined by \", \", then \" +N\" for the N names left out.")},
    {"file_users", keywords_function(file_users), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("file_users(facts)\n--\n\n"
               "For each page file that other production files use through evidence: a Counter of those "
               "users' summed refs. Tests and a file's references to itself never count.")},
    {"_most_used", keywords_function(most_used), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_most_used(declarations, fan_in)\n--\n\n"
               "One file's used declarations, most used first, as \"`name` L<line> (<count>)\" items: uses "
               "from outside the page, or, when there are none, uses from the page's own files (\"in-page\").")},
    {"render_file_cards", keywords_function(render_file_cards), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("render_file_cards(facts, fan_in, heading, missing=())\n--\n\n"
               "The Markdown table with one card per file of the page, then one row per `missing` path.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
