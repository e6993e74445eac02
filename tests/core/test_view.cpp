// What the algorithms may read of the view: checked builds stop at the first
// column an algorithm reads without having declared it.
#include <gtest/gtest.h>

#include "needs.hpp"

namespace scope {
namespace {

FactsView two_symbols() {
  FactsView view;
  StrColumn ids;
  IntColumn starts;
  for (std::int64_t id : {7, 7}) ids.push(view.ids.insert(id).first), starts.push(id * 10);
  view.symbols.commit(sym_f::id, 2, std::move(ids));
  view.symbols.commit(sym_f::start_line, 2, std::move(starts));
  return view;
}

TEST(Needs, DerivedDataBringsTheColumnsItIsMadeFrom) {
  constexpr Needs needs = Needs{.derived = derived::members}.complete();
  EXPECT_EQ(needs.derived, derived::members | derived::by_path);
  EXPECT_EQ(needs.symbols, bits(sym_f::id, sym_f::path, sym_f::kind, sym_f::start_line, sym_f::end_line));
  const FactsView view = two_symbols();
  // Equal ids share a slot.
  EXPECT_EQ(view.symbols.slot(sym_f::id, Row{0}), view.symbols.slot(sym_f::id, Row{1}));
  EXPECT_EQ(view.symbols.num(sym_f::start_line, Row{1}), 70);
}

#ifdef SCOPE_CHECKED
TEST(NeedsDeathTest, ReadingAColumnNotDeclaredStops) {
  const FactsView view = two_symbols();
  Allowed outer(view, Needs{.symbols = bit(sym_f::id)});
  EXPECT_EQ(view.id_of(view.symbols.slot(sym_f::id, Row{0})), 7);
  {
    // A nested call (host code re-entering the module) declares its own.
    Allowed inner(view, Needs{.symbols = bit(sym_f::start_line)});
    EXPECT_EQ(view.symbols.num(sym_f::start_line, Row{0}), 70);
  }
  EXPECT_DEATH(view.symbols.num(sym_f::start_line, Row{0}), "check failed");
  EXPECT_DEATH(view.symbols.num(sym_f::end_line, Row{0}), "check failed");  // declared nowhere, loaded never
}
#endif

}  // namespace
}  // namespace scope
