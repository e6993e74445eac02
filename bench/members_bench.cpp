// Type membership on a generated file of one-line classes, each holding one
// method on the same line: the case where a scan of every type per
// declaration would cost declarations x types.
#include <benchmark/benchmark.h>

#include "evidence.hpp"

namespace {

scope::FactsView generated_file(std::int64_t classes, scope::Vocab& vocab) {
  using namespace scope;
  FactsView view;
  StrId path = view.pool.intern("gen/models.py"), klass = view.pool.intern("class"),
        method = view.pool.intern("method"), name = view.pool.intern("x");
  vocab.set(klass, vocab_bit::type);
  vocab.set(method, vocab_bit::callable);
  auto add = [&](std::int64_t id, StrId kind, std::int64_t line) {
    auto& c = view.symbols.cols;
    c[sym_f::id].push_back(id);
    c[sym_f::path].push_back(path);
    c[sym_f::name].push_back(name);
    c[sym_f::fqn].push_back(name);
    c[sym_f::kind].push_back(kind);
    c[sym_f::start_line].push_back(line);
    c[sym_f::end_line].push_back(line);
    c[sym_f::is_export].push_back(1);
    view.symbols.rows++;
  };
  for (std::int64_t i = 0; i < classes; ++i) {
    add(2 * i, klass, i + 1);
    add(2 * i + 1, method, i + 1);
  }
  view.symbols.loaded = ~0u;
  return view;
}

void BM_MembersOfOneLineClasses(benchmark::State& state) {
  scope::Vocab vocab;
  scope::FactsView view = generated_file(state.range(0), vocab);
  for (auto _ : state) benchmark::DoNotOptimize(scope::members(view, vocab));
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(view.symbols.rows));
}
BENCHMARK(BM_MembersOfOneLineClasses)->Arg(5'000)->Arg(50'000)->Unit(benchmark::kMillisecond);

}  // namespace
