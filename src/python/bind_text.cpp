// Markdown helpers, file users and the file cards table.
#include <string>
#include <unordered_map>
#include <vector>

#include "bindings.hpp"
#include "facts.hpp"
#include "text.hpp"

namespace scope::py {

namespace {

std::string text_argument(PyObject* value, const char* function, const char* argument) {
  if (!PyUnicode_Check(value)) wrong_type(function, argument, "str", value);
  PyRef scratch;
  return std::string(utf8_of(value, scratch, argument));
}

// The str items of a sequence, as UTF-8.
std::vector<std::string> text_items(PyObject* sequence, const char* what) {
  PyRef items = check(PySequence_Fast(sequence, what));
  std::vector<std::string> texts;
  texts.reserve(static_cast<std::size_t>(PySequence_Fast_GET_SIZE(items.get())));
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(items.get()); ++i) {
    PyRef scratch;
    texts.emplace_back(utf8_of(PySequence_Fast_GET_ITEM(items.get(), i), scratch, what));
  }
  return texts;
}

// The length of a list of names and, as UTF-8, the first of them that a cell
// with `limit` shows; the others are only counted, as a slice would leave
// them untouched.
NameList shown_names(PyObject* names, std::int64_t limit, const char* what) {
  Py_ssize_t size = PySequence_Size(names);
  if (size < 0) throw PyError{};
  NameList list;
  list.total = static_cast<std::size_t>(size);
  std::size_t shown = named_shown(list.total, limit);
  list.head.reserve(shown);
  for (std::size_t i = 0; i < shown; ++i) {
    PyRef item = check(PySequence_GetItem(names, static_cast<Py_ssize_t>(i)));
    PyRef scratch;
    list.head.emplace_back(utf8_of(item.get(), scratch, what));
  }
  return list;
}

PyObject* short_path(PyObject*, PyObject* args, PyObject* kwargs) {
  return guarded([&]() -> PyRef {
    static const char* const keywords[] = {"path", nullptr};
    PyObject* path;
    parse_args(args, kwargs, "O:_short_path", keywords, &path);
    return str_from_utf8(scope::short_path(text_argument(path, "_short_path", "path")));
  });
}

PyObject* cell(PyObject*, PyObject* args, PyObject* kwargs) {
  return guarded([&]() -> PyRef {
    static const char* const keywords[] = {"text", nullptr};
    PyObject* text;
    parse_args(args, kwargs, "O:_cell", keywords, &text);
    return str_from_utf8(scope::cell(text_argument(text, "_cell", "text")));
  });
}

PyObject* named(PyObject*, PyObject* args, PyObject* kwargs) {
  return guarded([&]() -> PyRef {
    static const char* const keywords[] = {"names", "limit", nullptr};
    PyObject* names;
    PyObject* limit_arg = nullptr;
    parse_args(args, kwargs, "O|O:_named", keywords, &names, &limit_arg);
    if (!PySequence_Check(names)) wrong_type("_named", "names", "a sequence of str", names);
    std::int64_t limit = kCardNames;
    if (limit_arg != nullptr) {
      if (!PyIndex_Check(limit_arg)) wrong_type("_named", "limit", "int", limit_arg);
      limit = as_int64(limit_arg, "_named() argument 'limit'");
    }
    NameList list = shown_names(names, limit, "_named() names item");
    return str_from_utf8(scope::named(list.head, list.total, limit));
  });
}

constexpr std::uint32_t kUserFields = bit(in_f::source_path) | bit(in_f::target_path) | bit(in_f::target_kind) |
                                      bit(in_f::resolution) | bit(in_f::refs);

PyObject* file_users(PyObject*, PyObject* args, PyObject* kwargs) {
  return guarded([&]() -> PyRef {
    static const char* const keywords[] = {"facts", nullptr};
    PyObject* facts_arg;
    parse_args(args, kwargs, "O:file_users", keywords, &facts_arg);
    FactsObject* facts = as_facts(facts_arg, "file_users");
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
  return guarded([&]() -> PyRef {
    static const char* const keywords[] = {"declarations", "fan_in", nullptr};
    PyObject* declarations;
    PyObject* fan_in_arg;
    parse_args(args, kwargs, "OO:_most_used", keywords, &declarations, &fan_in_arg);
    if (!PySequence_Check(declarations))
      wrong_type("_most_used", "declarations", "a sequence of ScopeSymbol", declarations);
    PyRef records = check(PySequence_Tuple(declarations));
    NativeFacts scratch;
    load_symbol_records(scratch, records.get(), bit(sym_f::id) | bit(sym_f::name) | bit(sym_f::start_line));
    FanInView fan_in = fan_in_view(fan_in_arg, false);
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
    PyRef items = check(PySequence_Fast(names.get(), "tests_reaching() test names must be iterable"));
    tests[path] = shown_names(items.get(), kCardNames, "tests_reaching() test name");
  }
  return tests;
}

PyObject* render_file_cards(PyObject*, PyObject* args, PyObject* kwargs) {
  return guarded([&]() -> PyRef {
    static const char* const keywords[] = {"facts", "fan_in", "heading", "missing", nullptr};
    PyObject *facts_arg, *fan_in_arg, *heading_arg, *missing_arg = nullptr;
    parse_args(args, kwargs, "OOO|O:render_file_cards", keywords, &facts_arg, &fan_in_arg, &heading_arg,
               &missing_arg);
    FactsObject* facts = as_facts(facts_arg, "render_file_cards");
    std::string heading = text_argument(heading_arg, "render_file_cards", "heading");
    std::vector<std::string> missing;
    if (missing_arg != nullptr) {
      if (PyUnicode_Check(missing_arg) || !PySequence_Check(missing_arg))
        wrong_type("render_file_cards", "missing", "a sequence of str", missing_arg);
      missing = text_items(missing_arg, "render_file_cards() missing item");
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
    FanInView fan_in = native.view.files.rows ? fan_in_view(fan_in_arg, false) : FanInView{};
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
