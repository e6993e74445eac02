// Ranking and selection.
#include <vector>

#include "bindings.hpp"
#include "facts.hpp"
#include "ranking.hpp"

namespace scope::py {

namespace {

constexpr std::uint32_t kKeyFields =
    bit(sym_f::id) | bit(sym_f::kind) | bit(sym_f::name) | bit(sym_f::start_line) | bit(sym_f::end_line);

PyRef key_tuple(const RankKey& key) {
  PyRef items[] = {new_bool(key.not_api), new_int(key.kind_group), new_bool(key.is_private), new_int128(key.outside),
                   new_int128(key.size),  new_int128(key.inside),  new_int(key.start_line)};
  PyRef tuple = check(PyTuple_New(7));
  for (Py_ssize_t i = 0; i < 7; ++i) PyTuple_SET_ITEM(tuple.get(), i, items[i].release());
  return tuple;
}

// Attribute and module names, interned once for the life of the process.
struct Names {
  PyObject *id, *kind, *name, *start_line, *end_line, *outside, *inside, *entry, *get, *type_kinds, *callable_kinds;
};
const Names& names() {
  static const Names interned = [] {
    auto name = [](const char* text) {
      PyObject* object = PyUnicode_InternFromString(text);
      if (object == nullptr) throw PyError{};
      return object;
    };
    return Names{name("id"),       name("kind"),        name("name"),           name("start_line"),
                 name("end_line"), name("outside"),     name("inside"),         name("entry"),
                 name("get"),      name("_TYPE_KINDS"), name("_CALLABLE_KINDS")};
  }();
  return interned;
}

// The count of `mapping` for `key` into `count`, left alone when it has
// none. A dict (a Counter among them) is read directly, so that no
// __missing__ hook runs; any other mapping through its `get`.
void count_for(PyObject* mapping, PyObject* key, std::int64_t& count, Where where) {
  PyRef value;
  if (PyDict_Check(mapping)) {
    value = PyRef::borrow(PyDict_GetItemWithError(mapping, key));
    if (!value) {
      if (PyErr_Occurred()) throw PyError{};
      return;
    }
  } else {
    PyRef absent = check(PyObject_CallNoArgs(reinterpret_cast<PyObject*>(&PyBaseObject_Type)));
    value = check(PyObject_CallMethodObjArgs(mapping, names().get, key, absent.get(), nullptr));
    if (value.get() == absent.get()) return;
  }
  count = as_int64(value.get(), where);
}

// What one declaration's key needs of a FanIn-like object, looked up for its
// id alone, so that a key costs the same however large the fan-in is (a host
// may key every declaration one call at a time). As FanIn.api, `entry` is
// asked only when there is no outside use.
KeyUses uses_of(PyObject* fan_in, std::int64_t id) {
  const Names& n = names();
  KeyUses uses;
  PyRef key = new_int(id);
  PyRef outside = check(PyObject_GetAttr(fan_in, n.outside));
  count_for(outside.get(), key.get(), uses.outside, Where{"fan_in", "outside value"});
  PyRef inside = check(PyObject_GetAttr(fan_in, n.inside));
  count_for(inside.get(), key.get(), uses.inside, Where{"fan_in", "inside value"});
  if (uses.outside <= 0) {
    PyRef entry = check(PyObject_GetAttr(fan_in, n.entry));
    uses.entry = check(PySequence_Contains(entry.get(), key.get())) != 0;
  }
  return uses;
}

// One declaration's key fields, read straight from its attributes (a single
// record needs no interned view). `held` keeps the str objects that the
// fields' text views point into.
KeyFields key_fields(PyObject* symbol, PyRef (&held)[4]) {
  const Names& n = names();
  KeyFields fields{};
  PyRef id = check(PyObject_GetAttr(symbol, n.id));
  fields.id = as_int64(id.get(), Where{"symbol", "ScopeSymbol.id"});
  held[0] = check(PyObject_GetAttr(symbol, n.name));
  fields.name = utf8_of(held[0].get(), held[1], Where{"symbol", "ScopeSymbol.name"});
  held[2] = check(PyObject_GetAttr(symbol, n.kind));
  fields.kind = utf8_of(held[2].get(), held[3], Where{"symbol", "ScopeSymbol.kind"});
  PyRef start = check(PyObject_GetAttr(symbol, n.start_line));
  fields.start_line = as_int64(start.get(), Where{"symbol", "ScopeSymbol.start_line"});
  PyRef end = check(PyObject_GetAttr(symbol, n.end_line));
  fields.end_line = as_int64(end.get(), Where{"symbol", "ScopeSymbol.end_line"});
  // Membership in the module's kind sets, looked up now: the host may rebind them.
  PyRef callables = check(PyObject_GetAttr(module_object(), n.callable_kinds));
  fields.type_or_callable = check(PySequence_Contains(callables.get(), held[2].get())) != 0;
  if (!fields.type_or_callable) {
    PyRef types = check(PyObject_GetAttr(module_object(), n.type_kinds));
    fields.type_or_callable = check(PySequence_Contains(types.get(), held[2].get())) != 0;
  }
  return fields;
}

PyObject* rank_key(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("rank_key", [&]() -> PyRef {
    static const char* const keywords[] = {"symbol", "fan_in", nullptr};
    PyObject* symbol;
    PyObject* fan_in_arg;
    parse_args(args, kwargs, "OO:rank_key", keywords, &symbol, &fan_in_arg);
    PyRef held[4];
    KeyFields fields = key_fields(symbol, held);
    return key_tuple(scope::rank_key(fields, uses_of(fan_in_arg, fields.id)));
  });
}

PyObject* ranked_by_file(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("ranked_by_file", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", "fan_in", nullptr};
    PyObject* facts_arg;
    PyObject* fan_in_arg;
    parse_args(args, kwargs, "OO:ranked_by_file", keywords, &facts_arg, &fan_in_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_symbols(facts, kKeyFields | bit(sym_f::path));
    FanInView fan_in = fan_in_view(fan_in_arg, symbol_ids(facts));
    NativeFacts& native = native_of(facts);
    RankedFiles ranked = scope::ranked_by_file(native.view, vocab_for(facts), fan_in);
    PyObject* symbols = field(facts, kSymbols);  // borrowed: the facts' own records
    PyRef result = check(PyDict_New());
    for (const auto& [path, rows] : ranked)
      check(PyDict_SetItem(result.get(), native.strings[path].get(), records_at(symbols, rows).get()));
    return result;
  });
}

PyObject* file_seeds(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("file_seeds", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", "fan_in", nullptr};
    PyObject* facts_arg;
    PyObject* fan_in_arg;
    parse_args(args, kwargs, "OO:file_seeds", keywords, &facts_arg, &fan_in_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_symbols(facts, kKeyFields | bit(sym_f::path));
    need_files(facts, bit(file_f::path));
    need_line_counts(facts);
    FanInView fan_in = fan_in_view(fan_in_arg, symbol_ids(facts));
    NativeFacts& native = native_of(facts);
    PyRef result = check(PyDict_New());
    for (const auto& [path, seed] : scope::file_seeds(native.view, vocab_for(facts), fan_in)) {
      PyRef range =
          check(Py_BuildValue("(LL)", static_cast<long long>(seed.first), static_cast<long long>(seed.second)));
      check(PyDict_SetItem(result.get(), native.strings[path].get(), range.get()));
    }
    return result;
  });
}

// The rank keys of `records` under the FanIn-like `fan_in_arg`. Records of
// one ScopeFacts whose view already holds their fields (the lists of
// ranked_by_file) are keyed from the view; any other records are read
// attribute by attribute.
std::vector<RankKey> quota_keys(PyObject* records, PyObject* fan_in_arg) {
  const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(records));
  std::vector<RankKey> keys;
  keys.reserve(count);
  NativeFacts* shared = nullptr;
  std::vector<std::size_t> rows;
  rows.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    KnownRecord known = known_record(PyTuple_GET_ITEM(records, static_cast<Py_ssize_t>(i)));
    if (known.native == nullptr || (shared != nullptr && known.native != shared)) {
      shared = nullptr;
      break;
    }
    shared = known.native;
    rows.push_back(known.row);
  }
  if (shared != nullptr && shared->view.symbols.has(kKeyFields)) {
    // The facts must outlive its view's use here, whatever the host's sets do.
    PyRef owner = PyRef::borrow(reinterpret_cast<PyObject*>(known_record(PyTuple_GET_ITEM(records, 0)).facts));
    const std::vector<std::int64_t>& id_column = shared->view.symbols.cols[sym_f::id];
    std::vector<std::int64_t> ids;
    ids.reserve(rows.size());
    for (std::size_t row : rows) ids.push_back(id_column[row]);
    FanInView fan_in = fan_in_view(fan_in_arg, ids);
    Vocab vocab = vocab_for(*shared);
    for (std::size_t row : rows)
      keys.push_back(scope::rank_key(shared->view.pool, shared->view.symbols, row, vocab, fan_in));
    return keys;
  }
  NativeFacts scratch;
  load_symbol_records(scratch, records, kKeyFields, "ranked");
  FanInView fan_in = fan_in_view(fan_in_arg, scratch.view.symbols.cols[sym_f::id]);
  Vocab vocab = vocab_for(scratch);
  for (std::size_t row = 0; row < count; ++row)
    keys.push_back(scope::rank_key(scratch.view.pool, scratch.view.symbols, row, vocab, fan_in));
  return keys;
}

// `max_share` as the double whose product with `total` gives the cap. An int
// share multiplies exactly and never makes an infinite product: any int of 1
// or more lets a file take the whole total and any of 0 or less holds it to
// its floor, which 1.0 and 0.0 do as well, whatever the int's size.
double share_of(PyObject* share) {
  if (PyLong_Check(share)) {
    int overflow = 0;
    long long value = PyLong_AsLongLongAndOverflow(share, &overflow);
    if (value == -1 && PyErr_Occurred()) throw PyError{};
    return overflow > 0 || (overflow == 0 && value >= 1) ? 1.0 : 0.0;
  }
  return real_arg(share, "max_share");
}

PyObject* select_with_quota(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("select_with_quota", [&]() -> PyRef {
    static const char* const keywords[] = {"ranked", "fan_in", "total", "floor", "max_share", nullptr};
    PyObject *ranked, *fan_in_arg, *total_arg, *floor_arg, *share_arg;
    parse_args(args, kwargs, "OOOOO:select_with_quota", keywords, &ranked, &fan_in_arg, &total_arg, &floor_arg,
               &share_arg);
    std::int64_t total = int_arg(total_arg, "total");
    std::int64_t floor = int_arg(floor_arg, "floor");

    // Every file's sequence, flattened into one tuple of records. The items
    // hold the paths' str objects, which hold the UTF-8 that `files` views.
    // Each sequence is a snapshot: host code that runs before the records
    // are gathered (another value's __iter__, say) cannot change it.
    std::vector<std::pair<PyRef, PyRef>> items = mapping_items(ranked, Where{"ranked"});
    std::vector<PyRef> sequences;
    std::vector<QuotaFile> files;
    std::vector<PyRef> keep_alive;
    std::size_t declarations = 0;
    for (const auto& [path_object, value] : items) {
      PyRef sequence = snapshot(value.get(), Where{"ranked", "a value"}, "a sequence of ScopeSymbol");
      std::size_t count = static_cast<std::size_t>(PyTuple_GET_SIZE(sequence.get()));
      if (count == 0) continue;  // a file without declarations takes no part
      PyRef scratch;
      std::string_view path = utf8_of(path_object.get(), scratch, Where{"ranked", "a key"});
      keep_alive.push_back(scratch);
      files.push_back({path, declarations, count});
      declarations += count;
      sequences.push_back(sequence);
    }
    if (declarations == 0 || total <= 0) return check(PyList_New(0));

    PyRef records = check(PyTuple_New(static_cast<Py_ssize_t>(declarations)));
    Py_ssize_t at = 0;
    for (const PyRef& sequence : sequences)
      for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(sequence.get()); ++i)
        PyTuple_SET_ITEM(records.get(), at++, Py_NewRef(PyTuple_GET_ITEM(sequence.get(), i)));
    std::vector<RankKey> keys = quota_keys(records.get(), fan_in_arg);
    double max_share = share_of(share_arg);
    return records_at(records.get(), scope::select_with_quota(files, keys, total, floor, max_share));
  });
}

PyObject* pick_spread(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("pick_spread", [&]() -> PyRef {
    static const char* const keywords[] = {"scored", "limit", "per_file", nullptr};
    PyObject *scored, *limit_arg, *per_file_arg;
    parse_args(args, kwargs, "OOO:pick_spread", keywords, &scored, &limit_arg, &per_file_arg);
    std::int64_t limit = int_arg(limit_arg, "limit");
    std::int64_t per_file = int_arg(per_file_arg, "per_file");
    if (Py_TYPE(scored)->tp_iter == nullptr && !PySequence_Check(scored))
      wrong_type(Where{"scored"}, "an iterable of (name, path) pairs", scored);
    PyRef iterator = check(PyObject_GetIter(scored));
    StringPool pool;
    std::vector<PyRef> strings;
    Spreader spreader(limit, per_file);
    PyRef result = check(PyList_New(0));
    // The limit is tested before each pair: once the result is full, no
    // further pair is taken from the iterator.
    while (!spreader.full()) {
      PyRef pair = PyRef::steal(PyIter_Next(iterator.get()));
      if (!pair) {
        if (PyErr_Occurred()) throw PyError{};
        break;
      }
      auto [name, path] = unpack_pair(pair.get(), Where{"scored", "an item"});
      if (spreader.offer(intern(pool, strings, path.get(), Where{"scored", "a path"})))
        check(PyList_Append(result.get(), name.get()));
    }
    return result;
  });
}

}  // namespace

PyMethodDef ranking_methods[] = {
    {"rank_key", keywords_function(rank_key), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("rank_key(symbol, fan_in)\n--\n\n"
               "The sort key of a declaration, lower first: (not API, kind group, private, -outside uses x "
               "weight, -min(size, 40), -inside uses x weight, start line). A constant weighs 1, others 2.")},
    {"ranked_by_file", keywords_function(ranked_by_file), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("ranked_by_file(facts, fan_in)\n--\n\n"
               "Each file's declarations best first (stable by rank_key): a dict from path to list, paths in "
               "order of their first declaration.")},
    {"file_seeds", keywords_function(file_seeds), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("file_seeds(facts, fan_in)\n--\n\n"
               "One citable (start, end) range per file: its best declaration that starts after line 0, else "
               "its whole text when it was read and is not empty. Declaration seeds come first.")},
    {"select_with_quota", keywords_function(select_with_quota), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("select_with_quota(ranked, fan_in, total, floor, max_share)\n--\n\n"
               "Up to `total` declarations of `ranked` (path -> best-first sequence): `floor` per file first, "
               "the rest by rank with no file above ceil(total * max_share) while another has some left, "
               "interleaved so that every file's best comes before any file's second.")},
    {"pick_spread", keywords_function(pick_spread), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("pick_spread(scored, limit, per_file)\n--\n\n"
               "The first `limit` names of the best-first (name, path) pairs, at most `per_file` per path.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
