// One place that makes ready what an algorithm reads: the columns, path
// bits and maps of its Needs, the vocabulary of the module's sets, the
// derived data, and the native form of the fan-in it is given. What was
// made for one call is kept on the ScopeFacts and reused by the next, keyed
// by everything it was made from (docs/DEVELOPING.md, "Caches").
#pragma once

#include <memory>
#include <optional>

#include "../core/needs.hpp"
#include "convert.hpp"

namespace scope::py {

// The kind and resolution strings of the view, asked of the module's sets
// as they are bound now.
Vocab vocab_for(PyObject* module, const ModuleState& state, NativeFacts& native);

class Prepared {
 public:
  Prepared(PyObject* module, const ModuleState& state, FactsObject* facts, const Needs& needs);
  FactsObject* facts() const { return facts_; }
  // Makes the derived data this call's again. Host code that ran since the
  // preparation (on this thread or, while it released the interpreter lock,
  // on another) may have derived it under another vocabulary: call this
  // after any host code and before the algorithm reads derived data.
  void settle() { derive(view, vocab, needs_); }
  // The fan-in (with its entry points) in native form, then settle(): reading
  // a host's fan-in may run host code.
  std::shared_ptr<const FanInSlots> settled_fan_in(const ModuleState& state, PyObject* fan_in);
  NativeFacts& native;
  FactsView& view;
  Vocab vocab;

 private:
  FactsObject* facts_;
  Needs needs_;
  PyRef hold_;  // the facts outlives the call, whatever host code does meanwhile
  std::optional<Allowed> allowed_;
};

// Prepares a view of records that belong to no ScopeFacts (a list the host
// passes as `argument`): `fields` of each record, and the symbol slots.
void prepare_records(PyObject* module, const ModuleState& state, NativeFacts& scratch, PyObject* records, Mask fields,
                     const char* argument, Vocab& vocab);

// A FanIn-like object (`outside`, `inside` and, when `with_entry`, `entry`)
// in native form for the declarations of `native` (whose symbol slots are
// ready). Counts must be ints; keys and members match an id as Python's
// equality says (see id_of). A FanIn whose maps are dicts (and entry a
// frozenset) is converted once and reused while they stay unchanged.
std::shared_ptr<const FanInSlots> fan_in_slots(const ModuleState& state, NativeFacts& native, PyObject* fan_in,
                                               bool with_entry);
// Keeps `slots`, made by production_fan_in from the same counts as the dicts
// `outside` and `inside` (not yet handed out), as the native form of the
// FanIn of those and `entry`.
void remember_fan_in(const ModuleState& state, NativeFacts& native, PyObject* outside, PyObject* inside,
                     PyObject* entry, std::shared_ptr<const FanInSlots> slots);

// Which slots of `native`'s declarations are members of a host container
// of ids (`x in container`). `*plain`, when given, is set false when some
// member is no int, so that Python had to compare it.
std::vector<bool> slots_in(NativeFacts& native, PyObject* container, Where where, bool* plain = nullptr);

// The ranking under a fan-in, reused while the fan-in and the vocabulary are.
std::shared_ptr<const Ranking> ranking_for(NativeFacts& native, const Vocab& vocab,
                                           const std::shared_ptr<const FanInSlots>& fan_in);
// What `make()` makes of the view under `vocab` (it reads nothing of the
// host's), reused while the vocabulary is the same.
template <class T, class Make>
std::shared_ptr<const T> kept_for(KeptFor<T>& kept, const Vocab& vocab, Make make) {
  if (kept.value && kept.vocab == vocab) return kept.value;
  auto value = std::make_shared<const T>(make());
  kept = {value, vocab};
  return value;
}

// The live ScopeFacts whose own declaration records make up `records` (a
// tuple), with their rows; null when there is none.
FactsObject* facts_holding(const ModuleState& state, PyObject* records, std::vector<Row>& rows);

}  // namespace scope::py
