// Type membership on a generated file of one-line classes, each holding one
// method on the same line: the case where a scan of every type per
// declaration would cost declarations x types. The declarations come in
// source order (as an index lists them) or shuffled, which makes the sweep
// sort them first.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "needs.hpp"

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
  IntColumn starts, ends, exported;
  StrColumn ids, paths, names, kinds;
  for (std::int64_t i : order) {
    ids.push(view.ids.insert(static_cast<std::uint64_t>(i)).first);
    paths.push(path);
    names.push(name);
    kinds.push(i % 2 ? method : klass);
    starts.push(i / 2 + 1);
    ends.push(i / 2 + 1);
    exported.push(1);
  }
  const std::size_t rows = order.size();
  Table& t = view.symbols;
  t.commit(sym_f::id, rows, std::move(ids));
  t.commit(sym_f::path, rows, std::move(paths));
  t.commit(sym_f::name, rows, StrColumn(names));
  t.commit(sym_f::fqn, rows, std::move(names));
  t.commit(sym_f::kind, rows, std::move(kinds));
  t.commit(sym_f::start_line, rows, std::move(starts));
  t.commit(sym_f::end_line, rows, std::move(ends));
  t.commit(sym_f::is_export, rows, std::move(exported));
  return view;
}

// Arguments: number of classes (the file holds twice as many declarations),
// and whether the declarations are shuffled.
void BM_MembersOfOneLineClasses(benchmark::State& state) {
  scope::Vocab vocab;
  scope::FactsView view = generated_file(state.range(0), state.range(1) != 0, vocab);
  const scope::Needs needs{.derived = scope::derived::members};
  scope::derive(view, vocab, needs);  // the grouping by path, once
  std::size_t count = 0;
  for (auto _ : state) {
    view.derived.ready &= ~scope::derived::members;
    scope::derive(view, vocab, needs);
    const std::vector<bool>& member = view.derived.member;
    count = static_cast<std::size_t>(std::count(member.begin(), member.end(), true));
    benchmark::DoNotOptimize(count);
  }
  // Each method lies inside the class on its line; no class lies in another.
  const std::size_t rows = view.symbols.rows();
  if (count != rows / 2) state.SkipWithError("wrong number of members");
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rows));
}
BENCHMARK(BM_MembersOfOneLineClasses)
    ->ArgNames({"classes", "shuffled"})
    ->ArgsProduct({{5'000, 50'000}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
