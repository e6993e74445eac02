// Consumers of the page, its neighbours and its name-match counts.
#include <unordered_set>

#include "bindings.hpp"
#include "consumers.hpp"
#include "facts.hpp"
#include "neighbours.hpp"

namespace scope::py {

namespace {

// What the unused line reads of a declaration: every field but fqn.
constexpr std::uint32_t kUnusedFields = bit(sym_f::id) | bit(sym_f::path) | bit(sym_f::kind) | bit(sym_f::name) |
                                        bit(sym_f::is_export) | bit(sym_f::start_line) | bit(sym_f::end_line);

PyObject* render_consumers(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("render_consumers", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", "fan_in", "heading", nullptr};
    PyObject* facts_arg;
    PyObject* fan_in_arg;
    PyObject* heading_arg;
    parse_args(args, kwargs, "OOO:render_consumers", keywords, &facts_arg, &fan_in_arg, &heading_arg);
    FactsObject* facts = as_facts(facts_arg);
    if (!PyUnicode_Check(heading_arg)) wrong_type(Where{"heading"}, "str", heading_arg);
    need_path_bits(facts, path_bit::in_page | path_bit::import_resolved | path_bit::test_source);
    need_inbound(facts, bit(in_f::source_path) | bit(in_f::target_id) | bit(in_f::target_path) |
                            bit(in_f::target_name) | bit(in_f::target_kind) | bit(in_f::resolution) | bit(in_f::refs));
    need_files(facts, bit(file_f::path) | bit(file_f::language));
    need_symbols(facts, kUnusedFields);
    FanInView fan_in = fan_in_view(fan_in_arg, symbol_ids(facts));
    PyRef scratch;
    std::string_view heading = utf8_of(heading_arg, scratch, Where{"heading"});
    NativeFacts& native = native_of(facts);
    return str_from_utf8(scope::render_consumers(native.view, vocab_for(facts), fan_in, heading));
  });
}

PyObject* unused_outside(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("_unused_outside", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", "used", "fan_in", nullptr};
    PyObject* facts_arg;
    PyObject* used_arg;
    PyObject* fan_in_arg;
    parse_args(args, kwargs, "OOO:_unused_outside", keywords, &facts_arg, &used_arg, &fan_in_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_symbols(facts, kUnusedFields);
    std::unordered_set<std::int64_t> used = ids_in(used_arg, symbol_ids(facts), Where{"used"});
    FanInView fan_in = fan_in_view(fan_in_arg, symbol_ids(facts));
    NativeFacts& native = native_of(facts);
    std::vector<std::size_t> rows = scope::unused_outside(native.view, vocab_for(facts), used, fan_in);
    return records_at(field(facts, kSymbols), rows);
  });
}

PyObject* neighbours(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("neighbours", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", "limit", nullptr};
    PyObject* facts_arg;
    PyObject* limit_arg;
    parse_args(args, kwargs, "OO:neighbours", keywords, &facts_arg, &limit_arg);
    FactsObject* facts = as_facts(facts_arg);
    std::int64_t limit = int_arg(limit_arg, "limit");

    need_path_bits(facts, path_bit::in_page);
    need_outbound(facts, bit(out_f::resolution) | bit(out_f::refs) | bit(out_f::target_id) | bit(out_f::target_path) |
                             bit(out_f::target_kind) | bit(out_f::target_fqn));
    NativeFacts& native = native_of(facts);
    Vocab vocab = vocab_for(facts);
    // The path filter is asked once per distinct target path outside the
    // page, in order of first sight: it is a pure function of the path.
    std::unordered_set<StrId> test_paths;
    if (limit > 0) {
      PyRef is_test_path = module_attr("is_test_path");
      for (StrId path : outside_target_paths(native.view)) {
        PyRef answer = check(PyObject_CallOneArg(is_test_path.get(), native.strings[path].get()));
        if (truth(answer.get())) test_paths.insert(path);
      }
    }
    std::vector<Neighbour> ranked = scope::neighbours(native.view, vocab, test_paths, limit);
    PyRef result = check(PyList_New(static_cast<Py_ssize_t>(ranked.size())));
    for (std::size_t i = 0; i < ranked.size(); ++i) {
      PyRef count = new_int(ranked[i].count);
      PyRef pair = check(PyTuple_Pack(2, native.targets[ranked[i].row].get(), count.get()));
      PyList_SET_ITEM(result.get(), static_cast<Py_ssize_t>(i), pair.release());
    }
    return result;
  });
}

PyObject* name_match_counts(PyObject*, PyObject* args, PyObject* kwargs) {
  return entry("name_match_counts", [&]() -> PyRef {
    static const char* const keywords[] = {"facts", nullptr};
    PyObject* facts_arg;
    parse_args(args, kwargs, "O:name_match_counts", keywords, &facts_arg);
    FactsObject* facts = as_facts(facts_arg);
    need_inbound(facts, bit(in_f::source_path) | bit(in_f::target_path) | bit(in_f::target_kind) |
                            bit(in_f::resolution) | bit(in_f::refs));
    need_outbound(facts, bit(out_f::source_path) | bit(out_f::resolution) | bit(out_f::refs) | bit(out_f::target_path) |
                             bit(out_f::target_kind));
    NativeFacts& native = native_of(facts);
    PathPairCounter counts = scope::name_match_counts(native.view, vocab_for(facts));
    PyRef result = check(PyDict_New());
    for (const auto& [pair, count] : counts.entries()) {
      PyRef key = check(PyTuple_Pack(2, native.strings[pair.first].get(), native.strings[pair.second].get()));
      check(PyDict_SetItem(result.get(), key.get(), new_int(count).get()));
    }
    return result;
  });
}

}  // namespace

PyMethodDef consumers_methods[] = {
    {"render_consumers", keywords_function(render_consumers), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("render_consumers(facts, fan_in, heading)\n--\n\n"
               "The Markdown section of the page's consumers: the production files outside the page that use "
               "it through evidence (at most 12 rows), the references not counted because they only match a "
               "name, and the public top-level types and callables that nothing outside uses.")},
    {"_unused_outside", keywords_function(unused_outside), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_unused_outside(facts, used, fan_in)\n--\n\n"
               "The public, exported, top-level types and callables whose id is not in `used`: types first, "
               "then best first by rank_key, then by path.")},
    {"neighbours", keywords_function(neighbours), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("neighbours(facts, limit)\n--\n\n"
               "The declarations outside the page that its files use most: a list of (target record, count) "
               "pairs, highest count first, then fqn, then first counted; at most `limit`. Targets in the page "
               "or in test files are skipped, and a name match to an attribute or a constant does not count.")},
    {"name_match_counts", keywords_function(name_match_counts), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("name_match_counts(facts)\n--\n\n"
               "Counts of \"unique\" references to attributes and constants, keyed by (source path, target "
               "path) in first-counted order: inbound references first, then outbound; every file counts.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
