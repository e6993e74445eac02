// Type membership on a generated file of one-line classes, each holding one
// method on the same line: the case where a scan of every type per
// declaration would cost declarations x types. The declarations come in
// source order (as an index lists them) or shuffled, which makes the sweep
// sort them first.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "evidence.hpp"

namespace {

scope::FactsView generated_file(std::int64_t classes, bool shuffled, scope::Vocab& vocab) {
  using namespace scope;
  FactsView view;
  StrId path = view.pool.intern("gen/models.py"), klass = view.pool.intern("class"),
        method = view.pool.intern("method"), name = view.pool.intern("x");
  vocab.set(klass, vocab_bit::type);
  vocab.set(method, vocab_bit::callable);
  std::vector<std::int64_t> order(static_cast<std::size_t>(2 * classes));
  std::iota(order.begin(), order.end(), 0);
  if (shuffled) std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (std::int64_t i : order) {
    auto& c = view.symbols.cols;
    c[sym_f::id].push_back(i);
    c[sym_f::path].push_back(path);
    c[sym_f::name].push_back(name);
    c[sym_f::fqn].push_back(name);
    c[sym_f::kind].push_back(i % 2 ? method : klass);
    c[sym_f::start_line].push_back(i / 2 + 1);
    c[sym_f::end_line].push_back(i / 2 + 1);
    c[sym_f::is_export].push_back(1);
    view.symbols.rows++;
  }
  view.symbols.loaded = ~0u;
  return view;
}

// Arguments: number of classes (the file holds twice as many declarations),
// and whether the declarations are shuffled.
void BM_MembersOfOneLineClasses(benchmark::State& state) {
  scope::Vocab vocab;
  scope::FactsView view = generated_file(state.range(0), state.range(1) != 0, vocab);
  std::size_t count = 0;
  for (auto _ : state) {
    std::vector<bool> member = scope::members(view, vocab);
    count = static_cast<std::size_t>(std::count(member.begin(), member.end(), true));
    benchmark::DoNotOptimize(count);
  }
  // Each method lies inside the class on its line; no class lies in another.
  if (count != view.symbols.rows / 2) state.SkipWithError("wrong number of members");
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(view.symbols.rows));
}
BENCHMARK(BM_MembersOfOneLineClasses)
    ->ArgNames({"classes", "shuffled"})
    ->ArgsProduct({{5'000, 50'000}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
