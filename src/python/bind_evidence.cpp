// Use evidence, type members and the production fan-in.
#include "bindings.hpp"
#include "evidence.hpp"
#include "facts.hpp"

namespace scope::py {

namespace {

constexpr std::uint32_t kMemberFields =
    bit(sym_f::id) | bit(sym_f::path) | bit(sym_f::kind) | bit(sym_f::start_line) | bit(sym_f::end_line);

PyObject* is_use(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("is_use", [&]() -> PyRef {
    static const char* const keywords[] = {"resolution", "target_kind", "import_resolved", nullptr};
    PyObject* resolution;
    PyObject* target_kind;
    PyObject* import_resolved;
    parse_args(args, kwargs, "OOO:is_use", keywords, &resolution, &target_kind, &import_resolved);
    // The same membership tests as the core, on whatever objects the host
    // passes, with the module's sets as they are bound now.
    if (check(PySequence_Contains(module_attr("EVIDENCE_RESOLUTIONS").get(), resolution))) return new_bool(true);
    PyRef unique = check(PyUnicode_FromString("unique"));
    if (!check(PyObject_RichCompareBool(resolution, unique.get(), Py_EQ))) return new_bool(false);
    if (truth(import_resolved)) return new_bool(false);
    return new_bool(!check(PySequence_Contains(module_attr("NAME_MATCH_KINDS").get(), target_kind)));
  });
}

PyObject* members(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_members", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", nullptr};
    PyObject* facts_arg;
    parse_args(args, kwargs, "O:_members", keywords, &facts_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_symbols(facts, kMemberFields);
    const FactsView& view = native_of(facts).view;
    std::vector<bool> member = scope::members(view, vocab_for(facts));
    PyRef result = check(PySet_New(nullptr));
    for (std::size_t row = 0; row < member.size(); ++row)
      if (member[row]) check(PySet_Add(result.get(), new_int(view.symbols.num(sym_f::id, row)).get()));
    return result;
  });
}

PyRef counts_dict(const OrderedCounter<std::int64_t>& counts) {
  PyRef dict = check(PyDict_New());
  for (const auto& [id, count] : counts.entries())
    check(PyDict_SetItem(dict.get(), new_int(id).get(), new_int(count).get()));
  return dict;
}

PyObject* production_fan_in(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("production_fan_in", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", nullptr};
    PyObject* facts_arg;
    parse_args(args, kwargs, "O:production_fan_in", keywords, &facts_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_path_bits(facts, path_bit::in_page | path_bit::test_source);
    need_inbound(facts, bit(in_f::source_path) | bit(in_f::resolution) | bit(in_f::target_id) | bit(in_f::target_kind) |
                            bit(in_f::refs));
    need_symbols(facts, kMemberFields | bit(sym_f::is_export) | bit(sym_f::name));
    NativeFacts& native = native_of(facts);
    Vocab vocab = vocab_for(facts);
    FanInCounts counts = count_fan_in(native.view, vocab);
    PyRef outside = counts_dict(counts.outside);
    PyRef inside = counts_dict(counts.inside);

    // The path filter last, and only for what passed every other test.
    PyRef entry = check(PyFrozenSet_New(nullptr));
    std::vector<std::size_t> candidates = entry_candidates(native.view, vocab, counts.referenced);
    if (!candidates.empty()) {
      PyRef is_test_path = module_attr("is_test_path");
      for (std::size_t row : candidates) {
        StrId path = native.view.symbols.str(sym_f::path, row);
        PyRef answer = check(PyObject_CallOneArg(is_test_path.get(), native.strings[path].get()));
        if (!truth(answer.get())) check(PySet_Add(entry.get(), new_int(native.view.symbols.num(sym_f::id, row)).get()));
      }
    }
    return check(PyObject_CallFunctionObjArgs(fan_in_type(), outside.get(), inside.get(), entry.get(), nullptr));
  });
}

}  // namespace

PyMethodDef evidence_methods[] = {
    {"is_use", keywords_function(is_use), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("is_use(resolution, target_kind, import_resolved)\n--\n\n"
               "Whether a reference is evidence that its source uses its target: an \"import\" or \"local\" "
               "one always; a \"unique\" one only where imports are not resolved and the target is no "
               "attribute or constant (NAME_MATCH_KINDS).")},
    {"_members", keywords_function(members), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_members(facts)\n--\n\n"
               "The set of ids of the declarations that lie inside a type declared in the same file "
               "(bounds inclusive; a type never contains itself).")},
    {"production_fan_in", keywords_function(production_fan_in), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("production_fan_in(facts)\n--\n\n"
               "Counts the production uses of the page's declarations: FanIn(outside, inside, entry). Tests "
               "never count; evidence counts, and so does a trusted resolution except to an attribute or a "
               "constant; uses from the page's own files go to `inside`. `entry` holds the public, exported, "
               "top-level callables and types that no production code references, outside test files.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
