#include "entries.hpp"

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "../core/consumers.hpp"
#include "../core/neighbours.hpp"

namespace scope::py {

namespace {

// ---------------------------------------------------------------------------
// Results.

// A new list of the items of the tuple `records` at `rows`: the host's own
// objects, not copies.
template <class Rows>
PyRef records_at(PyObject* records, const Rows& rows) {
  const std::size_t count = std::size(rows);
  PyRef list = check(PyList_New(static_cast<Py_ssize_t>(count)));
  auto record = [&](std::size_t i) { return PyTuple_GET_ITEM(records, static_cast<Py_ssize_t>(rows[i])); };
  for (std::size_t i = 0; i < count; ++i) {
    // The records lie scattered: fetch one a few ahead of its reference count.
    if (i + 8 < count) __builtin_prefetch(record(i + 8), 1);
    PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), Py_NewRef(record(i)));
  }
  return list;
}

PyRef text_list(const std::vector<std::string>& texts) {
  PyRef list = check(PyList_New(static_cast<Py_ssize_t>(texts.size())));
  for (std::size_t i = 0; i < texts.size(); ++i)
    PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), str_from_utf8(texts[i]).release());
  return list;
}

// A dict of the counts at `order` of a by-slot array, keyed by symbol id.
PyRef counts_dict(const std::vector<Slot>& order, const std::vector<std::int64_t>& counts, NativeFacts& native) {
  PyRef dict = new_dict(static_cast<Py_ssize_t>(order.size()));
  for (std::size_t i = 0; i < order.size(); ++i) {
    // The id objects lie scattered: fetch one a few keys ahead.
    if (i + 8 < order.size()) __builtin_prefetch(native.id_object(order[i + 8]));
    const Slot slot = order[i];
    check(PyDict_SetItem(dict.get(), native.id_object(slot), new_int(counts[index(slot)]).get()));
  }
  return dict;
}

PyRef str_of(const NativeFacts& native, StrId id) { return native.string(id); }

// The host's path filter as the core asks it: looked up on the module once a
// call (the host may rebind it), asked with the path's own str object.
auto is_test_path_of(const Call& c, const NativeFacts& native) {
  return [&c, &native, filter = PyRef()](StrId path) mutable {
    if (!filter) filter = c.module_attr(kIsTestPath);
    return truth(check(PyObject_CallOneArg(filter.get(), native.string(path).get())).get());
  };
}

// An empty Counter, made as Counter() makes it (its __init__ only adds what
// it is given).
PyRef new_counter(const ModuleState& state) {
  auto* type = reinterpret_cast<PyTypeObject*>(state.counter_type);
  PyRef no_arguments = check(PyTuple_New(0));
  return check(type->tp_new(type, no_arguments.get(), nullptr));
}

// ---------------------------------------------------------------------------
// Arguments.

std::string text_arg(PyObject* value, const char* argument) {
  PyRef scratch;
  return std::string(utf8_of(value, scratch, Where{argument}));
}

// A list of names as `_named` reads it: its length, and the names a slice
// [:limit] gives, as UTF-8. The length the object reports is only counted;
// the shown names are whatever the slice yields.
NameList shown_names(PyObject* names, std::int64_t limit, Where where) {
  const Py_ssize_t size = PyObject_Size(names);
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

// `max_share`: an int multiplies exactly, anything else as a double.
Share share_arg(PyObject* value) {
  if (!PyLong_Check(value)) return Share{as_double(value, Where{"max_share"})};
  PyRef one = new_int(1);
  return Share{0, true, check(PyObject_RichCompareBool(value, one.get(), Py_GE)) != 0};
}

// ---------------------------------------------------------------------------
// Evidence and fan-in.

PyRef is_use_body(Call& c) {
  PyObject *resolution = c.arg(0), *kind = c.arg(1), *resolved = c.arg(2);
  return new_bool(is_use(
      [&] { return contains(c.module_attr(kEvidenceResolutions).get(), resolution, module_set(kEvidenceResolutions)); },
      [&] { return check(PyObject_RichCompareBool(resolution, c.state.names[kUnique], Py_EQ)) != 0; },
      [&] { return truth(resolved); },
      [&] { return contains(c.module_attr(kNameMatchKinds).get(), kind, module_set(kNameMatchKinds)); }));
}

PyRef members_body(Call& c) {
  Prepared p(c.module, c.state, c.facts(0), Needs{.derived = derived::members});
  PyRef result = check(PySet_New(nullptr));
  for (Row row : p.view.symbols.all())
    if (p.view.derived.member[index(row)])
      check(PySet_Add(result.get(), p.native.id_object(p.view.symbols.slot(sym_f::id, row))));
  return result;
}

PyRef production_fan_in_body(Call& c) {
  Prepared p(c.module, c.state, c.facts(0), kFanInNeeds);
  auto counts = kept_for(p.native.fan_in_counts, p.vocab, [&] { return count_fan_in(p.view, p.vocab); });
  PyRef outside = counts_dict(counts->outside_order, counts->uses.outside, p.native);
  PyRef inside = counts_dict(counts->inside_order, counts->uses.inside, p.native);
  auto slots = std::make_shared<FanInSlots>(counts->uses);
  slots->entry.assign(p.view.ids.size(), 0);
  PyRef entry = check(PyFrozenSet_New(nullptr));
  p.settle();
  for (Row row : entry_points(p.view, p.vocab, *counts, is_test_path_of(c, p.native))) {
    const Slot slot = p.view.symbols.slot(sym_f::id, row);
    check(PySet_Add(entry.get(), p.native.id_object(slot)));
    slots->entry[index(slot)] = 1;
  }
  // Kept before the dicts are handed out: the host can change them from then on.
  remember_fan_in(c.state, p.native, outside.get(), inside.get(), entry.get(), std::move(slots));
  return check(PyObject_CallFunctionObjArgs(c.state.fan_in_type, outside.get(), inside.get(), entry.get(), nullptr));
}

// ---------------------------------------------------------------------------
// Ranking and selection.

// The count of one id in a fan-in's map, as `.get(id, 0)` gives it.
std::int64_t count_of(PyObject* fan_in, PyObject* name, PyObject* id, const char* what) {
  PyRef mapping = check(PyObject_GetAttr(fan_in, name));
  PyRef value = get_value(mapping.get(), id);
  return value ? as_int64(value.get(), Where{"fan_in", what}) : 0;
}

// One declaration's key, read straight from its attributes and looked up
// in the fan-in for its id alone, so that a key costs the same however
// large the fan-in is (a host may key every declaration one call at a time).
PyRef rank_key_body(Call& c) {
  PyObject* symbol = c.arg(0);
  PyObject* fan_in = c.arg(1);
  PyObject* const* attrs = c.state.attrs[kSymbolsTable];
  auto field = [&](unsigned which) { return check(PyObject_GetAttr(symbol, attrs[which])); };
  PyRef id = field(sym_f::id);
  const std::int64_t id_value = as_int64(id.get(), Where{"symbol", "ScopeSymbol.id"});
  PyRef name = field(sym_f::name), name_scratch;
  const std::string_view name_text = utf8_of(name.get(), name_scratch, Where{"symbol", "ScopeSymbol.name"});
  PyRef kind = field(sym_f::kind), kind_scratch;
  const std::string_view kind_text = utf8_of(kind.get(), kind_scratch, Where{"symbol", "ScopeSymbol.kind"});
  const std::int64_t start = as_int64(field(sym_f::start_line).get(), Where{"symbol", "ScopeSymbol.start_line"});
  const std::int64_t end = as_int64(field(sym_f::end_line).get(), Where{"symbol", "ScopeSymbol.end_line"});
  // Membership in the module's kind sets, looked up now: the host may rebind them.
  const bool type_or_callable = contains(c.module_attr(kCallableKinds).get(), kind.get(), module_set(kCallableKinds)) ||
                                contains(c.module_attr(kTypeKinds).get(), kind.get(), module_set(kTypeKinds));
  // The fan-in is asked with a plain int: the record's own when it is one.
  PyRef key = PyLong_CheckExact(id.get()) ? id : new_int(id_value);
  const std::int64_t outside = count_of(fan_in, c.state.names[kOutside], key.get(), "outside value");
  const std::int64_t inside = count_of(fan_in, c.state.names[kInside], key.get(), "inside value");
  const bool api = is_api([&] { return outside > 0; },
                          [&] {
                            PyRef entry = check(PyObject_GetAttr(fan_in, c.state.names[kEntry]));
                            return contains(entry.get(), key.get(), Where{"fan_in", "entry"});
                          });
  const RankKey k = rank_key(KeyInput{api, type_or_callable, kind_text == kConstantKind, is_private_name(name_text),
                                      outside, inside, start, end});
  PyRef items[] = {new_bool(k.not_api), new_int(k.kind_group), new_bool(k.is_private), new_int128(k.outside),
                   new_int128(k.size),  new_int128(k.inside),  new_int(k.start_line)};
  PyRef tuple = check(PyTuple_New(7));
  for (Py_ssize_t i = 0; i < 7; ++i) PyTuple_SET_ITEM(tuple.get(), i, items[i].release());
  return tuple;
}

PyRef ranked_by_file_body(Call& c) {
  Prepared p(c.module, c.state, c.facts(0), kRankedNeeds);
  auto fan_in = p.settled_fan_in(c.state, c.arg(1));
  auto ranking = ranking_for(p.native, p.vocab, fan_in);
  PyObject* symbols = p.facts()->fields[kSymbols];  // borrowed: the facts' own records
  PyRef result = check(PyDict_New());
  const Groups<StrId, Row>& files = p.view.derived.symbols_by_path;
  for (std::size_t group = 0; group < files.size(); ++group)
    check(PyDict_SetItem(result.get(), p.native.string(files.key[group]).get(),
                         records_at(symbols, ranking->of(files, group)).get()));
  return result;
}

PyRef file_seeds_body(Call& c) {
  Prepared p(c.module, c.state, c.facts(0), kSeedNeeds);
  auto fan_in = p.settled_fan_in(c.state, c.arg(1));
  auto ranking = ranking_for(p.native, p.vocab, fan_in);
  PyRef result = check(PyDict_New());
  for (const Seed& seed : file_seeds(p.view, *ranking)) {
    PyRef range = check(Py_BuildValue("(LL)", static_cast<long long>(seed.start), static_cast<long long>(seed.end)));
    check(PyDict_SetItem(result.get(), str_of(p.native, seed.path).get(), range.get()));
  }
  return result;
}

// The rank keys of `records` (a tuple). The records of a live ScopeFacts
// (the lists ranked_by_file hands out) are keyed from its view when every
// declaration of it could be read (an error of another record is not these
// records' own); any others are read attribute by attribute.
std::vector<RankKey> quota_keys(Call& c, PyObject* records) {
  std::vector<Row> rows;
  std::vector<RankKey> keys;
  FactsObject* facts = facts_holding(c.state, records, rows);
  if (facts != nullptr && walk_table(c.state, facts, kSymbolsTable, kRankKeyNeeds.complete().symbols)) {
    Prepared p(c.module, c.state, facts, kRankKeyNeeds);
    auto fan_in = p.settled_fan_in(c.state, c.arg(1));
    keys.reserve(rows.size());
    for (Row row : rows) keys.push_back(rank_key(key_input(p.view, p.vocab, *fan_in, row)));
    return keys;
  }
  NativeFacts scratch;
  Vocab vocab;
  prepare_records(c.module, c.state, scratch, records, kRankKeyNeeds.symbols, "ranked", vocab);
  auto fan_in = fan_in_slots(c.state, scratch, c.arg(1), true);
  return rank_keys(scratch.view, vocab, *fan_in);
}

PyRef select_with_quota_body(Call& c) {
  const std::int64_t total = as_int64(c.arg(2), Where{"total"});
  const std::int64_t floor = as_int64(c.arg(3), Where{"floor"});
  // Every file's sequence, flattened into one tuple of records. Each is a
  // snapshot: host code that runs before the records are gathered (another
  // value's __iter__, say) cannot change it. The items hold the paths' str
  // objects, which hold the UTF-8 that `files` views.
  const std::vector<std::pair<PyRef, PyRef>> items = mapping_items(c.arg(0), Where{"ranked"});
  std::vector<PyRef> sequences, keep_alive;
  std::vector<QuotaFile> files;
  std::size_t declarations = 0;
  for (const auto& [path_object, value] : items) {
    PyRef sequence = snapshot(value.get(), Where{"ranked", "a value"}, "a sequence of ScopeSymbol");
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(sequence.get()));
    if (count == 0) continue;  // a file without declarations takes no part
    PyRef scratch;
    const std::string_view path = utf8_of(path_object.get(), scratch, Where{"ranked", "a key"});
    keep_alive.push_back(std::move(scratch));
    files.push_back({path, declarations, count});
    declarations += count;
    sequences.push_back(std::move(sequence));
  }
  if (declarations == 0 || total <= 0) return check(PyList_New(0));
  PyRef records = check(PyTuple_New(static_cast<Py_ssize_t>(declarations)));
  Py_ssize_t at = 0;
  for (const PyRef& sequence : sequences)
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(sequence.get()); ++i)
      PyTuple_SET_ITEM(records.get(), at++, Py_NewRef(PyTuple_GET_ITEM(sequence.get(), i)));
  const std::vector<RankKey> keys = quota_keys(c, records.get());
  return records_at(records.get(), select_with_quota(files, keys, total, floor, share_arg(c.arg(4))));
}

PyRef pick_spread_body(Call& c) {
  const std::int64_t limit = as_int64(c.arg(1), Where{"limit"});
  const std::int64_t per_file = as_int64(c.arg(2), Where{"per_file"});
  PyObject* scored = c.arg(0);
  if (Py_TYPE(scored)->tp_iter == nullptr && !PySequence_Check(scored))
    wrong_type(Where{"scored"}, "an iterable of (name, path) pairs", scored);
  PyRef iterator = check(PyObject_GetIter(scored));
  StringPool paths;  // interns the paths
  std::vector<PyRef> path_objects;
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
    if (spreader.offer(intern(paths, path_objects, path.get(), Where{"scored", "a path"})))
      check(PyList_Append(result.get(), name.get()));
  }
  return result;
}

// ---------------------------------------------------------------------------
// Markdown text.

PyRef short_path_body(Call& c) { return str_from_utf8(short_path(text_arg(c.arg(0), "path"))); }
PyRef cell_body(Call& c) { return str_from_utf8(cell(text_arg(c.arg(0), "text"))); }

PyRef named_body(Call& c) {
  PyObject* names = c.arg(0);
  if (!PySequence_Check(names)) wrong_type(Where{"names"}, "a sequence of str", names);
  const std::int64_t limit = c.arg(1) == nullptr ? kCardNames : as_int64(c.arg(1), Where{"limit"});
  const NameList list = shown_names(names, limit, Where{"names", "a name"});
  return str_from_utf8(named(list.head, list.total, limit));
}

PyRef file_users_body(Call& c) {
  Prepared p(c.module, c.state, c.facts(0), kFileUsersNeeds);
  auto users = kept_for(p.native.users, p.vocab, [&] { return file_users(p.view, p.vocab); });
  PyRef result = new_dict(static_cast<Py_ssize_t>(users->target.size()));
  for (std::size_t entry = 0; entry < users->target.size(); ++entry) {
    // Counter is a dict subclass: filled as a dict, in order, from a dict
    // made at its final size, which an empty dict takes over whole.
    const auto of = users->of(entry);
    PyRef counts = new_dict(static_cast<Py_ssize_t>(of.size()));
    for (const auto& [user, count] : of)
      check(PyDict_SetItem(counts.get(), p.native.string(user).get(), new_int(count).get()));
    PyRef counter = new_counter(c.state);
    if (PyDict_Update(counter.get(), counts.get()) < 0) throw PyError{};
    check(PyDict_SetItem(result.get(), p.native.string(users->target[entry]).get(), counter.get()));
  }
  return result;
}

PyRef most_used_body(Call& c) {
  PyRef records = snapshot(c.arg(0), Where{"declarations"}, "a sequence of ScopeSymbol");
  NativeFacts scratch;
  Vocab vocab;
  prepare_records(c.module, c.state, scratch, records.get(), kMostUsedNeeds.symbols, "declarations", vocab);
  auto fan_in = fan_in_slots(c.state, scratch, c.arg(1), false);
  std::vector<Row> rows;
  rows.reserve(scratch.view.symbols.rows());
  for (Row row : scratch.view.symbols.all()) rows.push_back(row);
  std::size_t count = 0;
  return text_list(most_used(scratch.view, *fan_in, rows, std::numeric_limits<std::size_t>::max(), count));
}

// The test names that `tests_reaching(facts)` gives each page file (by row
// of files): the second element of its pair, a mapping asked as `.get(path)`
// would ask it; an entry of None means no tests.
std::vector<NameList> tests_by_file(Call& c, Prepared& p) {
  PyRef pair = check(PyObject_CallOneArg(c.module_attr(kTestsReaching).get(), reinterpret_cast<PyObject*>(p.facts())));
  const Where result{"facts", "the result of tests_reaching()"};
  if (PyUnicode_Check(pair.get()) || PyBytes_Check(pair.get()) || !PySequence_Check(pair.get()))
    wrong_type(result, "a pair", pair.get());
  if ((PyTuple_Check(pair.get()) || PyList_Check(pair.get())) && Py_SIZE(pair.get()) != 2)
    bad_value(PyExc_ValueError, result, "must be a pair of two items");
  PyRef by_file = check(PySequence_GetItem(pair.get(), 1));
  const std::size_t rows = p.view.files.rows();
  std::vector<NameList> tests(rows);
  std::vector<std::size_t> first_row(p.view.pool.size(), rows);
  for (std::size_t row = 0; row < rows; ++row) {
    const StrId path = p.view.files.str(file_f::path, nth<Row>(row));
    std::size_t& first = first_row[index(path)];
    if (first < rows) {  // asked once per path
      tests[row] = tests[first];
      continue;
    }
    first = row;
    PyRef names = get_value(by_file.get(), str_of(p.native, path).get());
    if (!names || names.get() == Py_None) continue;
    // The names are listed first (any iterable will do), then cut as a cell shows them.
    const Where where{"facts", "a test name from tests_reaching()"};
    PyRef all = snapshot(names.get(), where, "an iterable of str");
    NameList& list = tests[row];
    list.total = static_cast<std::size_t>(PyTuple_GET_SIZE(all.get()));
    for (std::size_t i = 0; i < named_shown(list.total, kCardNames); ++i) {
      PyRef scratch;
      list.head.emplace_back(utf8_of(PyTuple_GET_ITEM(all.get(), static_cast<Py_ssize_t>(i)), scratch, where));
    }
  }
  return tests;
}

PyRef render_file_cards_body(Call& c) {
  FactsObject* facts = c.facts(0);
  const std::string heading = text_arg(c.arg(2), "heading");
  std::vector<std::string> missing;
  if (PyObject* given = c.arg(3)) {
    if (PyUnicode_Check(given) || !PySequence_Check(given)) wrong_type(Where{"missing"}, "a sequence of str", given);
    PyRef paths = snapshot(given, Where{"missing"}, "a sequence of str");
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(paths.get()); ++i)
      missing.push_back(text_arg(PyTuple_GET_ITEM(paths.get(), i), "missing"));
  }
  Prepared p(c.module, c.state, facts, kCardsNeeds);
  const std::vector<NameList> tests = tests_by_file(c, p);
  // Only a row asks the fan-in: a page without files never reads it.
  auto fan_in = p.view.files.rows() ? fan_in_slots(c.state, p.native, c.arg(1), false) : std::make_shared<FanInSlots>();
  p.settle();
  auto users = kept_for(p.native.users, p.vocab, [&] { return file_users(p.view, p.vocab); });
  return str_from_utf8(render_file_cards(p.view, *users, *fan_in, heading, missing, tests));
}

// ---------------------------------------------------------------------------
// Consumers, neighbours, name matches.

PyRef render_consumers_body(Call& c) {
  FactsObject* facts = c.facts(0);
  if (!PyUnicode_Check(c.arg(2))) wrong_type(Where{"heading"}, "str", c.arg(2));
  Prepared p(c.module, c.state, facts, kConsumersNeeds);
  auto fan_in = p.settled_fan_in(c.state, c.arg(1));
  auto counts = kept_for(p.native.consumers, p.vocab, [&] { return count_consumers(p.view); });
  return str_from_utf8(render_consumers(p.view, p.vocab, *fan_in, *counts, text_arg(c.arg(2), "heading")));
}

PyRef unused_outside_body(Call& c) {
  // `used` is taken as a set, hashed before anything else is read.
  PyObject* given = c.arg(1);
  if (Py_TYPE(given)->tp_iter == nullptr && !PySequence_Check(given))
    wrong_type(Where{"used"}, "a collection of symbol ids", given);
  PyRef used_set = PyAnySet_Check(given) ? PyRef::borrow(given) : check(PySet_New(given));
  Prepared p(c.module, c.state, c.facts(0), kUnusedNeeds);
  const std::vector<bool> used = slots_in(p.native, used_set.get(), Where{"used"});
  auto fan_in = p.settled_fan_in(c.state, c.arg(2));
  return records_at(p.facts()->fields[kSymbols], unused_outside(p.view, p.vocab, used, *fan_in));
}

PyRef neighbours_body(Call& c) {
  FactsObject* facts = c.facts(0);
  const std::int64_t limit = as_int64(c.arg(1), Where{"limit"});
  Prepared p(c.module, c.state, facts, kNeighbourNeeds);
  const std::vector<Neighbour> kept = neighbours(p.view, limit, is_test_path_of(c, p.native));
  PyRef result = check(PyList_New(static_cast<Py_ssize_t>(kept.size())));
  for (std::size_t i = 0; i < kept.size(); ++i) {
    PyRef count = new_int(kept[i].count);
    PyList_SET_ITEM(result.get(), static_cast<Py_ssize_t>(i),
                    check(PyTuple_Pack(2, p.native.targets[index(kept[i].row)].get(), count.get())).release());
  }
  return result;
}

PyRef name_match_counts_body(Call& c) {
  Prepared p(c.module, c.state, c.facts(0), kNameMatchNeeds);
  auto pair_key = [&](const PathPairCount& pair) {
    PyRef key = check(PyTuple_Pack(2, str_of(p.native, pair.source).get(), str_of(p.native, pair.target).get()));
    // A pair of str cannot be part of a cycle: the collector would untrack
    // it at its first pass; untracked now, neither it nor the dict costs a
    // collection anything.
    PyObject_GC_UnTrack(key.get());
    return key;
  };
  auto matches = kept_for(p.native.name_matches, p.vocab, [&] {
    NameMatches made{name_match_counts(p.view), {}};
    for (const PathPairCount& pair : made.pairs) {
      const bool plain = PyUnicode_CheckExact(str_of(p.native, pair.source).get()) &&
                         PyUnicode_CheckExact(str_of(p.native, pair.target).get());
      made.keys.push_back(plain ? pair_key(pair) : PyRef());
    }
    return made;
  });
  PyRef result = new_dict(static_cast<Py_ssize_t>(matches->pairs.size()));
  for (std::size_t i = 0; i < matches->pairs.size(); ++i) {
    const PathPairCount& pair = matches->pairs[i];
    PyRef key = matches->keys[i] ? matches->keys[i] : pair_key(pair);
    check(PyDict_SetItem(result.get(), key.get(), new_int(pair.count).get()));
  }
  return result;
}

// ---------------------------------------------------------------------------
// The table.

struct Parameter {
  const char* name;
  const char* shown_default = nullptr;  // an optional parameter, with this default
};

// One function of the module as a host calls it: its name, its parameters,
// what it does and its body. A docstring names the module's constants as
// {name} (see with_constants), so that it shows their values.
struct Function {
  const char* name;
  std::array<Parameter, 5> params;
  const char* doc;
  PyRef (*body)(Call&);
};

constexpr Function kFunctions[] = {
    {"load_scope_facts",
     {{{"db"}, {"paths"}, {"read_lines"}}},
     "Loads one page's facts: queries the index (scope_files, inbound_references, import_resolved_languages, then "
     "scope_symbols and outbound_references), reads each indexed file once with `read_lines` (None means "
     "unreadable), asks `is_test_path` once per distinct inbound source, and stores the result of "
     "`importing_tests`. Errors of any of these propagate unchanged.",
     load_scope_facts},
    {"is_use",
     {{{"resolution"}, {"target_kind"}, {"import_resolved"}}},
     "Whether a reference is evidence that its source uses its target: an {import} or {local} one always; a "
     "{unique} one only where imports are not resolved and the target is no attribute or constant "
     "(NAME_MATCH_KINDS).",
     is_use_body},
    {"_members",
     {{{"facts"}}},
     "The set of ids of the declarations that lie inside a type declared in the same file (bounds inclusive; a "
     "type never contains itself).",
     members_body},
    {"production_fan_in",
     {{{"facts"}}},
     "Counts the production uses of the page's declarations: FanIn(outside, inside, entry). Tests never count; "
     "evidence counts, and so does a trusted resolution except to an attribute or a constant; uses from the "
     "page's own files go to `inside`. `entry` holds the public, exported, top-level callables and types that no "
     "production code references, outside test files.",
     production_fan_in_body},
    {"rank_key",
     {{{"symbol"}, {"fan_in"}}},
     "The sort key of a declaration, lower first: (not API, kind group, private, -outside uses x weight, "
     "-min(size, {size_cap}), -inside uses x weight, start line). A constant weighs 1, others 2.",
     rank_key_body},
    {"ranked_by_file",
     {{{"facts"}, {"fan_in"}}},
     "Each file's declarations best first (stable by rank_key): a dict from path to list, paths in order of "
     "their first declaration.",
     ranked_by_file_body},
    {"file_seeds",
     {{{"facts"}, {"fan_in"}}},
     "One citable (start, end) range per file: its best declaration that starts after line 0, else its whole "
     "text when it was read and is not empty. Declaration seeds come first.",
     file_seeds_body},
    {"select_with_quota",
     {{{"ranked"}, {"fan_in"}, {"total"}, {"floor"}, {"max_share"}}},
     "Up to `total` declarations of `ranked` (path -> best-first sequence): `floor` per file first, the rest by "
     "rank with no file above ceil(total * max_share) while another has some left, interleaved so that every "
     "file's best comes before any file's second.",
     select_with_quota_body},
    {"pick_spread",
     {{{"scored"}, {"limit"}, {"per_file"}}},
     "The first `limit` names of the best-first (name, path) pairs, at most `per_file` per path.",
     pick_spread_body},
    {"_short_path", {{{"path"}}}, "The last two \"/\"-separated segments of `path`.", short_path_body},
    {"_cell", {{{"text"}}}, "`text` for one Markdown table cell: \"|\" escaped, line feeds made spaces.", cell_body},
    {"_named",
     {{{"names"}, {"limit", "{card_names}"}}},
     "The first `limit` names joined by \", \", then \" +N\" for the N names left out.",
     named_body},
    {"file_users",
     {{{"facts"}}},
     "For each page file that other production files use through evidence: a Counter of those users' summed "
     "refs. Tests and a file's references to itself never count.",
     file_users_body},
    {"_most_used",
     {{{"declarations"}, {"fan_in"}}},
     "One file's used declarations, most used first, as \"`name` L<line> (<count>)\" items: uses from outside "
     "the page, or, when there are none, uses from the page's own files (\"in-page\").",
     most_used_body},
    {"render_file_cards",
     {{{"facts"}, {"fan_in"}, {"heading"}, {"missing", "()"}}},
     "The Markdown table with one card per file of the page, then one row per `missing` path.",
     render_file_cards_body},
    {"render_consumers",
     {{{"facts"}, {"fan_in"}, {"heading"}}},
     "The Markdown section of the page's consumers: the production files outside the page that use it through "
     "evidence (at most {consumer_rows} rows), the references not counted because they only match a name, and the "
     "public "
     "top-level types and callables that nothing outside uses.",
     render_consumers_body},
    {"_unused_outside",
     {{{"facts"}, {"used"}, {"fan_in"}}},
     "The public, exported, top-level types and callables whose id is not in `used`: types first, then best "
     "first by rank_key, then by path.",
     unused_outside_body},
    {"neighbours",
     {{{"facts"}, {"limit"}}},
     "The declarations outside the page that its files use most: a list of (target record, count) pairs, "
     "highest count first, then fqn, then first counted; at most `limit`. Targets in the page or in test files "
     "are skipped, and a name match to an attribute or a constant does not count.",
     neighbours_body},
    {"name_match_counts",
     {{{"facts"}}},
     "Counts of {unique} references to attributes and constants, keyed by (source path, target path) in "
     "first-counted order: inbound references first, then outbound; every file counts.",
     name_match_counts_body},
};

// A docstring's text with the values of the constants it names.
std::string with_constants(std::string text) {
  auto quoted = [](std::string_view word) {
    std::string text(1, '"');
    text += word;
    return text += '"';
  };
  const std::pair<std::string_view, std::string> constants[] = {
      {"{size_cap}", std::to_string(kSizeCap)},         {"{consumer_rows}", std::to_string(kConsumerRows)},
      {"{card_names}", std::to_string(kCardNames)},     {"{import}", quoted(kEvidenceResolutionNames[0])},
      {"{local}", quoted(kEvidenceResolutionNames[1])}, {"{unique}", quoted(kUniqueResolution)},
  };
  for (const auto& [name, value] : constants)
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size()))
      text.replace(at, name.size(), value);
  return text;
}

constexpr std::size_t kFunctionCount = sizeof kFunctions / sizeof kFunctions[0];

template <std::size_t I>
PyObject* trampoline(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
  constexpr const Function& fn = kFunctions[I];
  return entry(fn.name, [&]() -> PyRef {
    const char* names[5];
    std::size_t count = 0, required = 0;
    for (const Parameter& param : fn.params) {
      if (param.name == nullptr) break;
      names[count++] = param.name;
      if (param.shown_default == nullptr) required = count;
    }
    Call call{module, state_of_module(module), {}};
    bind_arguments({names, count}, required, args, nargs, kwnames, call.args.data());
    return fn.body(call);
  });
}

// "name(a, b, c=3)\n--\n\n<doc>": the docstring whose first line is the signature.
std::string docstring(const Function& fn) {
  std::string doc = std::string(fn.name) + "(";
  for (const Parameter& param : fn.params) {
    if (param.name == nullptr) break;
    if (doc.back() != '(') doc += ", ";
    doc += param.name;
    if (param.shown_default) doc += '=' + with_constants(param.shown_default);
  }
  return doc + ")\n--\n\n" + with_constants(fn.doc);
}

template <std::size_t... I>
std::vector<PyMethodDef> method_table(std::index_sequence<I...>) {
  return {PyMethodDef{kFunctions[I].name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(trampoline<I>)),
                      METH_FASTCALL | METH_KEYWORDS, nullptr}...,
          PyMethodDef{nullptr, nullptr, 0, nullptr}};
}

}  // namespace

PyMethodDef* entry_methods() {
  // Built once; the docstrings live as long as the table.
  static const std::vector<std::string> docs = [] {
    std::vector<std::string> all;
    for (const Function& fn : kFunctions) all.push_back(docstring(fn));
    return all;
  }();
  static std::vector<PyMethodDef> methods = [] {
    std::vector<PyMethodDef> table = method_table(std::make_index_sequence<kFunctionCount>{});
    for (std::size_t i = 0; i < kFunctionCount; ++i) table[i].ml_doc = docs[i].c_str();
    return table;
  }();
  return methods.data();
}

}  // namespace scope::py
