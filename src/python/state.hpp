// The module's state: its types, the attribute names it reads, and the live
// ScopeFacts whose declarations it has converted. One state per module
// object (multi-phase initialisation); nothing is kept in process statics.
#pragma once

#include <memory>
#include <vector>

#include "../core/rules.hpp"
#include "../core/schema.hpp"
#include "args.hpp"
#include "compat.hpp"

namespace scope::py {

struct FactsObject;
using LiveFacts = std::vector<FactsObject*>;

// Names the module looks up, interned once per module.
// clang-format off
#define SCOPE_NAMES(X)                                                                                      \
  X(kOutside, "outside") X(kInside, "inside") X(kEntry, "entry") X(kKeys, "keys") X(kGet, "get")                 \
  X(kNameMatchKinds, "NAME_MATCH_KINDS") X(kTypeKinds, "_TYPE_KINDS") X(kCallableKinds, "_CALLABLE_KINDS")     \
  X(kEvidenceResolutions, "EVIDENCE_RESOLUTIONS") X(kTrusted, "_TRUSTED") X(kIsTestPath, "is_test_path")       \
  X(kTestsReaching, "tests_reaching") X(kScopeFiles, "scope_files") X(kInboundReferences, "inbound_references") \
  X(kImportResolvedLanguages, "import_resolved_languages") X(kScopeSymbols, "scope_symbols")                   \
  X(kOutboundReferences, "outbound_references") X(kFileSummary, "file_summary")                                \
  X(kImportingTests, "importing_tests") X(kUnique, kUniqueResolution.data())
// clang-format on
#define SCOPE_NAME_ID(id, text) id,
enum Name : int { SCOPE_NAMES(SCOPE_NAME_ID) kNameCount };
#undef SCOPE_NAME_ID

// The four record tables, in the order of ScopeFacts' fields.
enum TableId : int { kFilesTable, kSymbolsTable, kInboundTable, kOutboundTable, kTableCount };

struct ModuleState {
  PyObject* facts_type;    // ScopeFacts
  PyObject* fan_in_type;   // FanIn
  PyObject* counter_type;  // collections.Counter
  PyObject* names[kNameCount];
  PyObject* attrs[kTableCount][kMaxFields];  // each schema field's attribute name
  // ScopeFacts whose declarations were converted, so that a list of their
  // own records (as ranked_by_file hands them out) is keyed from the view.
  // Borrowed: a facts removes itself when it is cleared. Each facts listed
  // shares the list, so that one cleared after the module (at exit, in a
  // cycle) still finds it.
  std::shared_ptr<LiveFacts>* facts_with_records;
  DictStamps dict_stamps;  // tells whether a fan-in's dicts changed since they were read
};

ModuleState& state_of_module(PyObject* module);
// The state of the module that made `type`, or null (with no error set)
// once the module is gone or cleared: a ScopeFacts may outlive its module
// at exit, or be used from a __del__ that runs after the module was cleared.
ModuleState* live_state_of_type(PyTypeObject* type);
const Schema& schema_of(TableId table);

// Where a set the module's functions look up (as `scope.NAME_MATCH_KINDS`)
// comes from, for messages.
Where module_set(Name name);

// An attribute of the module, looked up now: the host may rebind it.
inline PyRef module_attr(PyObject* module, const ModuleState& state, Name name) {
  return check(PyObject_GetAttr(module, state.names[name]));
}

}  // namespace scope::py
