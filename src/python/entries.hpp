// The module's functions: one table (entries.cpp) gives each its name,
// parameters, docstring and a body of a few lines (parse, prepare, call the
// core, build the result). The prologue (argument binding,
// the error guard and the function's name in errors) is written once.
#pragma once

#include <array>

#include "prepare.hpp"

namespace scope::py {

// The arguments of one call, bound to the entry's parameters.
struct Call {
  PyObject* module;
  const ModuleState& state;
  std::array<PyObject*, 5> args;  // by parameter; null for an optional one not given

  PyObject* arg(int i) const { return args[static_cast<std::size_t>(i)]; }
  FactsObject* facts(int i) const { return as_facts(state, arg(i)); }
  PyRef module_attr(Name name) const { return py::module_attr(module, state, name); }
};

// The loader's body (loader.cpp).
PyRef load_scope_facts(Call& call);

// The module's functions, as the method table the module adds.
PyMethodDef* entry_methods();

}  // namespace scope::py
