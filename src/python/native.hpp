// ScopeFacts and what it keeps of its native view: the interned strings'
// objects, the outbound targets, and the data that later calls reuse (the
// fan-ins it was asked with, the file users, the records' rows).
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "../core/cards.hpp"
#include "../core/consumers.hpp"
#include "../core/neighbours.hpp"
#include "../core/ranking.hpp"
#include "args.hpp"
#include "state.hpp"

namespace scope::py {

// Field order of ScopeFacts.
enum FactsField : int {
  kFiles,
  kSymbols,
  kInbound,
  kOutbound,
  kImportResolvedPaths,
  kTestSources,
  kLineCounts,
  kSummaries,
  kTestImports,
  kFactsFieldCount
};
extern const char* const kFactsFieldNames[kFactsFieldCount];

// The native form of a fan-in, kept for later calls while its containers
// stay as they were: `outside` and `inside` dicts known by their stamps
// (compat.hpp: DictStamps), taken before they were read, and `entry` a
// frozenset, which cannot change and is held. Only a fan-in whose keys,
// members and counts are ints is kept: reading it ran no host code, so its
// form depends on nothing but those contents. The cache holds no reference
// to the dicts and keeps no page's counts alive. Slots numbered after the
// form was made belong to reference targets that no declaration shares, and
// only declarations are looked up in a fan-in.
struct FanInCache {
  std::uint64_t outside_stamp = 0, inside_stamp = 0;
  PyRef entry;  // null when it was not read
  std::shared_ptr<const FanInSlots> slots;
  std::shared_ptr<const Ranking> ranking;  // made with ranking_vocab
  Vocab ranking_vocab;
};

// A field of a record table that could not be read, and how: where the
// first error came, and the host's error itself, raised again unchanged for
// every call that needs the field. An error the module made (a value of the
// wrong type) is not kept: its message names the call, so the field is read
// again by the call that needs it.
struct Unread {
  Row row = Row::none;     // none: not read, for want of the target records
  bool of_target = false;  // read in the walk after the records' own fields
  PyRef error, traceback;  // null for the module's own errors
};
struct UnreadFields {
  Mask fields = 0;
  Unread unread[kMaxFields];
};

// The name-match counts by (source, target) path, with each pair's key: a
// tuple of the two paths' str objects, made once, when both are plain strs
// (such a tuple refers to nothing the collector must see), else null.
struct NameMatches {
  std::vector<PathPairCount> pairs;
  std::vector<PyRef> keys;
};

// What was made from the view under `vocab`, kept for the calls that ask
// under the same vocabulary (see kept_for).
template <class T>
struct KeptFor {
  std::shared_ptr<const T> value;
  Vocab vocab;
};

// The vocabulary last asked of the module's sets, with the sets it was
// asked of (null: not looked up, for want of texts to ask about) and how
// many kinds and resolutions the view had then; kept only when every set
// was an exact frozenset of exact strs and every text an exact str, so that
// the same sets give the same answers (see vocab_for).
struct KeptVocab {
  static constexpr std::size_t kSets = 5;
  static constexpr Name kNames[kSets] = {kNameMatchKinds, kTypeKinds, kCallableKinds, kEvidenceResolutions, kTrusted};
  static constexpr std::uint16_t kBits[kSets] = {vocab_bit::name_match, vocab_bit::type, vocab_bit::callable,
                                                 vocab_bit::evidence, vocab_bit::trusted};
  std::array<PyRef, kSets> sets;
  std::size_t kinds = 0, resolutions = 0;
  std::shared_ptr<const Vocab> vocab;
};

struct NativeFacts {
  FactsView view;
  std::vector<PyRef> strings;     // the str object of each StrId (the first one seen)
  std::vector<PyRef> targets;     // outbound `target` objects, by row
  std::vector<PyRef> id_objects;  // an int object of each slot's id, when one was met
  // How many slots may still lack their int object: while none do, a
  // reading of ids looks only at the slots it numbers anew.
  std::size_t ids_without_object = 0;
  // By table: the fields that the walk reading every field could not read,
  // left to a call that needs them.
  UnreadFields unread[kTableCount];

  // The str object of an interned string.
  const PyRef& string(StrId id) const { return strings[index(id)]; }
  // The int object of a slot's id: the host's own when it gave a plain int.
  // Borrowed: the facts hold it.
  PyObject* id_object(Slot slot) {
    const std::size_t at = index(slot);
    return at < id_objects.size() && id_objects[at] ? id_objects[at].get() : new_id_object(slot);
  }
  PyObject* new_id_object(Slot slot);
  // str objects already interned, by address: each is one of `strings`, so
  // no address is reused while it is here.
  std::vector<std::pair<PyObject*, StrId>> seen;  // see intern(): a large one dropped after a walk

  std::vector<FanInCache> fan_ins;  // most recent first
  KeptVocab kept_vocab;
  // Counts over the references that depend on the columns and one vocabulary.
  KeptFor<FileUsers> users;
  KeptFor<FanInCounts> fan_in_counts;
  KeptFor<ConsumerCounts> consumers;
  KeptFor<NameMatches> name_matches;
  DenseIndex<> records;         // address of each declaration record, numbered
  std::vector<Row> record_row;  // by number: the first row that holds the record
  bool records_ready = false;
  std::shared_ptr<LiveFacts> live;  // the module's list of such facts, once this one is in it
};

inline Table& table_of(FactsView& view, TableId id) {
  switch (id) {
    case kFilesTable:
      return view.files;
    case kSymbolsTable:
      return view.symbols;
    case kInboundTable:
      return view.inbound;
    default:
      return view.outbound;
  }
}

struct FactsObject {
  PyObject_HEAD
  PyObject* fields[kFactsFieldCount];  // owned; maps are read-only proxies
  NativeFacts* native;                 // owned; created on first use
};

// `object` as ScopeFacts, or TypeError naming the argument.
FactsObject* as_facts(const ModuleState& state, PyObject* object, const char* argument = "facts");
NativeFacts& native_of(FactsObject* facts);
bool add_facts_type(PyObject* module, ModuleState& state);

}  // namespace scope::py
