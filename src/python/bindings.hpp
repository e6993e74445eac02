// What the binding units share: their function tables and the result types.
#pragma once

#include <vector>

#include "pyref.hpp"

namespace scope::py {

// Each binding unit's functions, NULL-terminated; module init adds them all.
extern PyMethodDef loader_methods[];
extern PyMethodDef evidence_methods[];
extern PyMethodDef ranking_methods[];
extern PyMethodDef text_methods[];
extern PyMethodDef consumers_methods[];
extern PyMethodDef view_methods[];

inline std::vector<PyMethodDef*> binding_tables() {
  return {loader_methods, evidence_methods, ranking_methods, text_methods, consumers_methods, view_methods};
}

// Borrowed; made at module load.
PyObject* fan_in_type();
PyObject* counter_type();

// Casts a METH_VARARGS | METH_KEYWORDS function for a PyMethodDef.
template <class F>
PyCFunction keywords_function(F* function) {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

}  // namespace scope::py
