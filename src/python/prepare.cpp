#include "prepare.hpp"

#include <algorithm>
#include <array>
#include <tuple>

namespace scope::py {

namespace {

constexpr std::size_t kFanInsKept = 4;

Needs everything() { return Needs{~Mask{0}, ~Mask{0}, ~Mask{0}, ~Mask{0}}; }

// Marks the declaration slots that `matches(id object)` says yes to, for
// the slots not marked yet: the ids that only Python can compare.
template <class Matches>
void ask_each_slot(const NativeFacts& native, std::vector<bool>& marked, Matches matches) {
  const Table& symbols = native.view.symbols;
  for (Row row : symbols.all()) {
    const Slot slot = symbols.slot(sym_f::id, row);
    if (index(slot) >= marked.size() || marked[index(slot)]) continue;
    if (matches(new_int(native.view.id_of(slot)).get())) marked[index(slot)] = true;
  }
}

// The counts of a FanIn's `outside` or `inside` by slot. `plain` stays true
// while no host code ran: every key and count an int of a dict.
std::vector<std::int64_t> counts_by_slot(const ModuleState& state, const NativeFacts& native, PyObject* mapping,
                                         const char* what, const char* value_what, bool& plain) {
  const auto& ids = native.view.ids;
  std::vector<std::int64_t> counts(ids.size(), 0);
  std::int64_t id = 0;
  if (PyDict_CheckExact(mapping)) {
    // The common case read in place: int keys and counts run no host code,
    // so the dict cannot change while it is read.
    PyObject *key, *value;  // borrowed
    Py_ssize_t position = 0;
    bool all_ints = true;
    while (all_ints && PyDict_Next(mapping, &position, &key, &value)) {
      const IdMatch match = id_of(key, id);
      int overflow = 0;
      const long long count = PyLong_CheckExact(value) ? PyLong_AsLongLongAndOverflow(value, &overflow) : 0;
      all_ints = match != IdMatch::ask && PyLong_CheckExact(value) && overflow == 0;
      if (!all_ints || match != IdMatch::id) continue;
      const Slot slot = ids.find(static_cast<std::uint64_t>(id));
      if (index(slot) < counts.size()) counts[index(slot)] = count;
    }
    if (all_ints) return counts;
    counts.assign(ids.size(), 0);
  }
  plain = false;
  // A count is read for an id the view holds and for no other key, as
  // `.get(id, 0)` reads them.
  std::vector<bool> asked(ids.size(), false);
  if (PyDict_CheckExact(mapping)) {
    bool ask = false;
    for (const auto& [key, value] : mapping_items(mapping, Where{"fan_in", what})) {
      const IdMatch match = id_of(key.get(), id);
      ask = ask || match == IdMatch::ask;
      if (match != IdMatch::id) continue;
      const Slot slot = ids.find(static_cast<std::uint64_t>(id));
      if (index(slot) < counts.size())
        counts[index(slot)] = as_int64(value.get(), Where{"fan_in", value_what}), asked[index(slot)] = true;
    }
    if (!ask) return counts;
  } else if (!type_has(mapping, state.names[kGet])) {
    wrong_type(Where{"fan_in", what}, "a mapping", mapping);
  }
  // Any other mapping (a dict subclass may have a `get` of its own), and
  // keys that only Python can compare with an id, are asked per declaration.
  ask_each_slot(native, asked, [&](PyObject* key) {
    PyRef value = get_value(mapping, key);
    if (!value) return false;
    const Slot slot = ids.find(static_cast<std::uint64_t>(PyLong_AsLongLong(key)));
    counts[index(slot)] = as_int64(value.get(), Where{"fan_in", value_what});
    return true;
  });
  return counts;
}

// The key a fan-in's native form is kept under, taken before its containers
// are read; none (zero stamps) when they are not dicts and a frozenset.
struct FanInKey {
  std::uint64_t outside = 0, inside = 0;
  bool keeps() const { return outside != 0 && inside != 0; }
};

FanInKey key_of(const ModuleState& state, PyObject* outside, PyObject* inside, PyObject* entry) {
  if (!PyDict_CheckExact(outside) || !PyDict_CheckExact(inside) || (entry != nullptr && !PyFrozenSet_CheckExact(entry)))
    return {};
  return {state.dict_stamps.stamp(outside), state.dict_stamps.stamp(inside)};
}

void keep(NativeFacts& native, FanInCache cached) {
  native.fan_ins.insert(native.fan_ins.begin(), std::move(cached));
  if (native.fan_ins.size() > kFanInsKept) native.fan_ins.pop_back();
}

// Whether asking `set` for a text can run no host code and never changes
// its answer: an exact frozenset of exact strs. Iterating a frozenset runs
// no host code either.
bool pure_set(PyObject* set) {
  if (!PyFrozenSet_CheckExact(set)) return false;
  PyRef iterator = check(PyObject_GetIter(set));
  while (PyRef member = PyRef::steal(PyIter_Next(iterator.get())))
    if (!PyUnicode_CheckExact(member.get())) return false;
  return true;
}

}  // namespace

Vocab vocab_for(PyObject* module, const ModuleState& state, NativeFacts& native) {
  // Copies: asking a host set may convert more of the same facts meanwhile.
  const std::vector<StrId> kinds = native.view.kind_ids, resolutions = native.view.resolution_ids;
  // The sets are looked up, and asked, as each group of texts needs them.
  // Asking a pure set (see pure_set) for an exact str runs no host code and
  // cannot fail, so such asking waits until the kept vocabulary is known not
  // to serve: it serves while the same objects are bound to every set looked
  // up (it holds them) and no kind or resolution was added since.
  KeptVocab& kept = native.kept_vocab;
  std::array<PyRef, KeptVocab::kSets> sets;
  bool pure = true;
  Vocab vocab;
  auto ask = [&](const std::vector<StrId>& ids, std::size_t first, std::size_t count) {
    for (StrId id : ids) {
      PyRef text = native.string(id);  // held while the host's sets are asked
      for (std::size_t at = first; at < first + count; ++at)
        if (contains(sets[at].get(), text.get(), module_set(KeptVocab::kNames[at])))
          vocab.set(id, KeptVocab::kBits[at]);
      vocab.set_literals(native.view.pool, id);
    }
  };
  auto group = [&](const std::vector<StrId>& ids, std::size_t first, std::size_t count) {
    if (ids.empty()) return false;
    bool waits = pure;
    for (std::size_t at = first; at < first + count; ++at) {
      sets[at] = module_attr(module, state, KeptVocab::kNames[at]);
      // A set kept is pure; another is looked at.
      if (waits && !(kept.vocab && sets[at].get() == kept.sets[at].get())) waits = pure_set(sets[at].get());
    }
    // The texts counted when the vocabulary was kept were exact strs then and are the same now.
    const std::size_t known = kept.vocab ? (first == 0 ? kept.kinds : kept.resolutions) : 0;
    if (waits && ids.size() != known)
      waits =
          std::all_of(ids.begin(), ids.end(), [&](StrId id) { return PyUnicode_CheckExact(native.string(id).get()); });
    pure = waits;
    if (!waits) ask(ids, first, count);
    return waits;
  };
  const bool kinds_wait = group(kinds, 0, 3);
  const bool resolutions_wait = group(resolutions, 3, 2);
  if (pure && kept.vocab && kept.kinds == kinds.size() && kept.resolutions == resolutions.size() &&
      std::equal(sets.begin(), sets.end(), kept.sets.begin(),
                 [](const PyRef& a, const PyRef& b) { return a.get() == b.get(); }))
    return *kept.vocab;
  if (kinds_wait) ask(kinds, 0, 3);
  if (resolutions_wait) ask(resolutions, 3, 2);
  // Cover every kind and resolution, with bits or without.
  for (const std::vector<StrId>* ids : {&kinds, &resolutions})
    for (StrId id : *ids)
      if (index(id) >= vocab.bits.size()) vocab.bits.resize(index(id) + 1, 0);
  if (pure) kept = {std::move(sets), kinds.size(), resolutions.size(), std::make_shared<const Vocab>(vocab)};
  return vocab;
}

Prepared::Prepared(PyObject* module, const ModuleState& state, FactsObject* facts, const Needs& needs)
    : native(native_of(facts)),
      view(native.view),
      facts_(facts),
      needs_(needs.complete()),
      hold_(PyRef::borrow(reinterpret_cast<PyObject*>(facts))) {
  const Needs& all = needs_;
  {
    Allowed loading(view, everything());
    const Mask masks[kTableCount] = {all.files, all.symbols, all.inbound, all.outbound};
    for (int table = 0; table < kTableCount; ++table)
      if (masks[table]) load_table(state, facts, static_cast<TableId>(table), masks[table]);
    if (all.path_bits) load_path_bits(state, facts, all.path_bits);
    if (all.line_counts) load_line_counts(facts);
    if (all.summaries) load_summaries(facts);
    vocab = vocab_for(module, state, native);
  }
  allowed_.emplace(view, all);
  derive(view, vocab, all);
}

void prepare_records(PyObject* module, const ModuleState& state, NativeFacts& scratch, PyObject* records, Mask fields,
                     const char* argument, Vocab& vocab) {
  load_columns(state, scratch, kSymbolsTable, records, fields | bit(sym_f::id), argument);
  vocab = vocab_for(module, state, scratch);
}

std::vector<bool> slots_in(NativeFacts& native, PyObject* container, Where where, bool* plain) {
  if (Py_TYPE(container)->tp_iter == nullptr && !PySequence_Check(container))
    wrong_type(where, "a collection of symbol ids", container);
  const auto& ids = native.view.ids;
  std::vector<bool> marked(ids.size(), false);
  std::vector<PyRef> others;  // members that only Python can compare with an id
  std::int64_t id = 0;
  PyRef iterator = check(PyObject_GetIter(container));
  while (PyRef item = PyRef::steal(PyIter_Next(iterator.get()))) {
    const IdMatch match = id_of(item.get(), id);
    if (match == IdMatch::ask) others.push_back(std::move(item));
    if (match != IdMatch::id) continue;
    const Slot slot = ids.find(static_cast<std::uint64_t>(id));
    if (index(slot) < marked.size()) marked[index(slot)] = true;
  }
  if (PyErr_Occurred()) throw PyError{};
  if (others.empty()) return marked;
  if (plain != nullptr) *plain = false;
  // A set or a dict is asked as `in` asks it; any other collection was
  // iterated once already, so its members are compared as `in` compares.
  const bool keyed = PyAnySet_Check(container) || PyDict_Check(container);
  ask_each_slot(native, marked, [&](PyObject* key) {
    if (keyed) return check(PySequence_Contains(container, key)) != 0;
    for (const PyRef& other : others)
      if (check(PyObject_RichCompareBool(other.get(), key, Py_EQ))) return true;
    return false;
  });
  return marked;
}

std::shared_ptr<const FanInSlots> fan_in_slots(const ModuleState& state, NativeFacts& native, PyObject* fan_in,
                                               bool with_entry) {
  PyRef outside = check(PyObject_GetAttr(fan_in, state.names[kOutside]));
  PyRef inside = check(PyObject_GetAttr(fan_in, state.names[kInside]));
  PyRef entry = with_entry ? check(PyObject_GetAttr(fan_in, state.names[kEntry])) : PyRef();
  const FanInKey key = key_of(state, outside.get(), inside.get(), entry.get());
  if (key.keeps()) {
    for (auto cached = native.fan_ins.begin(); cached != native.fan_ins.end(); ++cached) {
      if (cached->outside_stamp != key.outside || cached->inside_stamp != key.inside) continue;
      if (with_entry && cached->entry.get() != entry.get()) continue;
      // The most recently used first: a FanIn the host keeps using stays
      // while fresh ones come and go.
      std::rotate(native.fan_ins.begin(), cached, cached + 1);
      return native.fan_ins.front().slots;
    }
  }
  bool plain = true;
  auto slots = std::make_shared<FanInSlots>();
  slots->outside = counts_by_slot(state, native, outside.get(), "outside", "outside value", plain);
  slots->inside = counts_by_slot(state, native, inside.get(), "inside", "inside value", plain);
  if (with_entry) {
    std::vector<bool> in_entry = slots_in(native, entry.get(), Where{"fan_in", "entry"}, &plain);
    slots->entry.assign(in_entry.begin(), in_entry.end());
  }
  if (key.keeps() && plain) keep(native, FanInCache{key.outside, key.inside, entry, slots, nullptr, {}});
  return slots;
}

void remember_fan_in(const ModuleState& state, NativeFacts& native, PyObject* outside, PyObject* inside,
                     PyObject* entry, std::shared_ptr<const FanInSlots> slots) {
  const FanInKey key = key_of(state, outside, inside, entry);
  if (key.keeps())
    keep(native, FanInCache{key.outside, key.inside, PyRef::borrow(entry), std::move(slots), nullptr, {}});
}

std::shared_ptr<const Ranking> ranking_for(NativeFacts& native, const Vocab& vocab,
                                           const std::shared_ptr<const FanInSlots>& fan_in) {
  auto cached = std::find_if(native.fan_ins.begin(), native.fan_ins.end(),
                             [&](const FanInCache& c) { return c.slots == fan_in; });
  if (cached != native.fan_ins.end() && cached->ranking && cached->ranking_vocab == vocab) return cached->ranking;
  auto ranking = std::make_shared<const Ranking>(ranked_by_file(native.view, vocab, *fan_in));
  if (cached != native.fan_ins.end()) cached->ranking = ranking, cached->ranking_vocab = vocab;
  return ranking;
}

FactsObject* facts_holding(const ModuleState& state, PyObject* records, std::vector<Row>& rows) {
  const Py_ssize_t count = PyTuple_GET_SIZE(records);
  if (count == 0) return nullptr;
  const auto first = reinterpret_cast<std::uint64_t>(PyTuple_GET_ITEM(records, 0));
  const LiveFacts& live = **state.facts_with_records;
  for (auto it = live.rbegin(); it != live.rend(); ++it) {
    FactsObject* facts = *it;
    NativeFacts& native = native_of(facts);
    if (!native.records_ready) {
      PyObject* symbols = facts->fields[kSymbols];
      native.records.reserve(static_cast<std::size_t>(PyTuple_GET_SIZE(symbols)));
      for (Py_ssize_t row = 0; row < PyTuple_GET_SIZE(symbols); ++row)
        if (native.records.insert(reinterpret_cast<std::uint64_t>(PyTuple_GET_ITEM(symbols, row))).second)
          native.record_row.push_back(nth<Row>(static_cast<std::size_t>(row)));
      native.records_ready = true;
    }
    if (native.records.find(first) == kNoPosition) continue;
    rows.clear();
    for (Py_ssize_t i = 0; i < count; ++i) {
      const std::uint32_t number = native.records.find(reinterpret_cast<std::uint64_t>(PyTuple_GET_ITEM(records, i)));
      if (number == kNoPosition) break;
      rows.push_back(native.record_row[number]);
    }
    if (rows.size() == static_cast<std::size_t>(count)) return facts;
  }
  return nullptr;
}

std::shared_ptr<const FanInSlots> Prepared::settled_fan_in(const ModuleState& state, PyObject* fan_in) {
  auto slots = fan_in_slots(state, native, fan_in, true);
  settle();
  return slots;
}

}  // namespace scope::py
