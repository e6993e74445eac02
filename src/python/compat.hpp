// What the module needs of CPython beyond its stable, documented calls: each
// private call or read of an object's layout sits in one wrapper here, with
// the versions it was checked on and the public way it falls back to on any
// other version (slower, never different). Nothing else in the binding uses
// a private name.
#pragma once

#include <cstdint>

#include "pyref.hpp"

// Interpreters whose private calls below were checked: 3.11, 3.12, 3.13. A
// build may also ask for the public fallbacks alone (SCOPE_PUBLIC_API_ONLY),
// so that they are tested where the private calls still exist.
#if PY_VERSION_HEX >= 0x030B0000 && PY_VERSION_HEX < 0x030E0000 && !defined(SCOPE_PUBLIC_API_ONLY)
#define SCOPE_CHECKED_PRIVATE_API 1
#else
#define SCOPE_CHECKED_PRIVATE_API 0
#endif

namespace scope::py {

// The attribute `name` of `type` found along its MRO, as attribute lookup
// finds it, without running host code; borrowed (the type's dict holds it),
// or null when there is none. Also gives the type a version tag when it can
// have one, as a lookup does.
// 3.11-3.13: _PyType_Lookup. Otherwise: each dict of the MRO in turn.
PyObject* lookup_in_type(PyTypeObject* type, PyObject* name);

// The version tag of `type`, 0 when it has none: changes whenever the type
// or one of its bases changes. tp_version_tag is a documented member of the
// type object on every supported version.
inline unsigned int type_version(PyTypeObject* type) {
  return PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) ? type->tp_version_tag : 0;
}

// Where a member descriptor that `type` may read directly keeps its value:
// the offset of a plain object slot (`__slots__`) that every instance of
// `type` has, or -1. Reads PyMemberDescrObject and PyMemberDef, documented in
// 3.11-3.13 (and unchanged since 3.0); on other versions, -1: the attribute
// protocol reads the slot.
Py_ssize_t slot_offset(PyObject* descriptor, PyTypeObject* type);

// Fetches into the cache, as a hint ahead of reading them, the values of the
// attributes that `object` keeps in its managed dict (an instance of a class
// without __slots__, such as a dataclass's), which lie apart from the object.
// A prefetch never faults and changes nothing: at worst it fetches memory in
// vain. It reads at most one pointer, from the words before the object that
// a managed-dict instance of a garbage-collected type always has there.
// 3.11: the values array pointed to 4 words before the object; 3.12: the
// tagged values pointer 3 words before it (its low bit set when it holds
// values); 3.13: the values kept inline after the object. Elsewhere nothing.
inline void prefetch_managed_values(PyObject* object) {
#if SCOPE_CHECKED_PRIVATE_API
  PyTypeObject* type = Py_TYPE(object);
  if (!PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT) || !PyType_HasFeature(type, Py_TPFLAGS_HAVE_GC)) return;
#if PY_VERSION_HEX >= 0x030D0000
  if (PyType_HasFeature(type, Py_TPFLAGS_INLINE_VALUES))
    __builtin_prefetch(reinterpret_cast<char*>(object) + type->tp_basicsize);
#elif PY_VERSION_HEX >= 0x030C0000
  const auto tagged = reinterpret_cast<std::uintptr_t*>(object)[-3];
  if (tagged & 1) __builtin_prefetch(reinterpret_cast<const void*>(tagged + 1));
#else
  __builtin_prefetch(reinterpret_cast<void**>(object)[-4]);
#endif
#else
  (void)object;
#endif
}

// A new empty dict with room for `size` items. 3.11-3.13:
// _PyDict_NewPresized; otherwise PyDict_New (it grows as it fills).
PyRef new_dict(Py_ssize_t size);

// Tells the states of dicts apart: two equal nonzero stamps of a dict mean
// that it did not change in between; a changed dict, or another dict, never
// gets an earlier stamp again. 0: no stamp can be had, and the dict's
// contents must be read anew. 3.12 and later: a dict watcher (the supported
// way). 3.11, which has no watchers: the dict's version tag, a member of
// 3.11's dict object that CPython draws from one counter for every new or
// changed dict.
class DictStamps {
 public:
  // Starts watching; without a free watcher, every stamp is 0. Kept in the
  // module's state, which starts zeroed: zero is "not open".
  void open();
  void close();
  std::uint64_t stamp(PyObject* dict) const;

 private:
  int watcher_plus_one_ = 0;
};

}  // namespace scope::py
