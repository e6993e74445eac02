#include "compat.hpp"

#if PY_VERSION_HEX < 0x030C0000
#include <structmember.h>  // 3.11: the member types and flags
#define Py_T_OBJECT_EX T_OBJECT_EX
#define Py_AUDIT_READ PY_AUDIT_READ
#endif

#include <unordered_map>
#include <utility>

namespace scope::py {

PyObject* lookup_in_type(PyTypeObject* type, PyObject* name) {
#if SCOPE_CHECKED_PRIVATE_API
  return _PyType_Lookup(type, name);
#else
#if PY_VERSION_HEX >= 0x030C0000
  PyUnstable_Type_AssignVersionTag(type);
#endif
  PyObject* mro = type->tp_mro;  // borrowed; a tuple once the type is ready
  if (mro == nullptr || !PyTuple_Check(mro)) return nullptr;
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro); ++i) {
    auto* base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro, i));
#if PY_VERSION_HEX >= 0x030C0000
    PyRef dict = PyRef::steal(PyType_GetDict(base));
#else
    PyRef dict = PyRef::borrow(base->tp_dict);
#endif
    if (!dict) continue;
    // A type's dict is a plain dict of str keys: the lookup runs no host code.
    PyObject* found = PyDict_GetItemWithError(dict.get(), name);  // borrowed; the type's dict holds it
    if (found != nullptr) return found;
    if (PyErr_Occurred()) {
      PyErr_Clear();
      return nullptr;
    }
  }
  return nullptr;
#endif
}

Py_ssize_t slot_offset(PyObject* descriptor, PyTypeObject* type) {
#if SCOPE_CHECKED_PRIVATE_API
  if (descriptor == nullptr || !Py_IS_TYPE(descriptor, &PyMemberDescr_Type)) return -1;
  auto* member_descriptor = reinterpret_cast<PyMemberDescrObject*>(descriptor);
  // A descriptor taken from another class (`path = Other.__dict__["id"]`)
  // describes the layout of that class only.
  if (!PyType_IsSubtype(type, PyDescr_TYPE(member_descriptor))) return -1;
  const PyMemberDef* member = member_descriptor->d_member;
  return member->type == Py_T_OBJECT_EX && (member->flags & Py_AUDIT_READ) == 0 ? member->offset : -1;
#else
  (void)descriptor, (void)type;
  return -1;
#endif
}

PyRef new_dict(Py_ssize_t size) {
#if SCOPE_CHECKED_PRIVATE_API
  return check(_PyDict_NewPresized(size));
#else
  (void)size;
  return check(PyDict_New());
#endif
}

#if PY_VERSION_HEX >= 0x030C0000 && !defined(SCOPE_PUBLIC_API_ONLY)

namespace {

// The stamp of every watched dict, by address, and the last stamp given. A
// watcher's callback is told no module, so this is kept once per process;
// every use holds the interpreter lock (the module runs only in interpreters
// that share the main one's lock).
struct Watched {
  std::unordered_map<PyObject*, std::uint64_t> stamps;
  std::uint64_t last = 0;
};

Watched& watched() {
  static Watched* all = new Watched();  // never destroyed: callbacks may come until the interpreter ends
  return *all;
}

// Runs before every change of a watched dict: a new stamp; a dict that goes
// away is forgotten, so that a new dict at its address starts afresh.
int on_dict_event(PyDict_WatchEvent event, PyObject* dict, PyObject*, PyObject*) {
  Watched& all = watched();
  auto it = all.stamps.find(dict);
  if (it == all.stamps.end()) return 0;
  if (event == PyDict_EVENT_DEALLOCATED) {
    all.stamps.erase(it);
  } else {
    it->second = ++all.last;
  }
  return 0;
}

}  // namespace

void DictStamps::open() {
  const int watcher = PyDict_AddWatcher(on_dict_event);
  if (watcher < 0) PyErr_Clear();  // all taken: no dict is stamped, each is read anew
  watcher_plus_one_ = watcher + 1;
}

void DictStamps::close() {
  if (watcher_plus_one_ == 0) return;
  PyDict_ClearWatcher(std::exchange(watcher_plus_one_, 0) - 1);
  // Dicts this watcher watched are told to nobody from now on: forget every
  // stamp (a dict still watched by another module is stamped anew).
  watched().stamps.clear();
}

std::uint64_t DictStamps::stamp(PyObject* dict) const {
  if (watcher_plus_one_ == 0) return 0;
  Watched& all = watched();
  auto [it, fresh] = all.stamps.try_emplace(dict, 0);
  if (fresh) {
    if (PyDict_Watch(watcher_plus_one_ - 1, dict) < 0) {
      all.stamps.erase(it);
      PyErr_Clear();
      return 0;
    }
    it->second = ++all.last;
  }
  return it->second;
}

#elif PY_VERSION_HEX < 0x030C0000 && !defined(SCOPE_PUBLIC_API_ONLY)

void DictStamps::open() { watcher_plus_one_ = 1; }
void DictStamps::close() { watcher_plus_one_ = 0; }
std::uint64_t DictStamps::stamp(PyObject* dict) const {
  return watcher_plus_one_ == 0 ? 0 : reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

#else

void DictStamps::open() {}
void DictStamps::close() {}
std::uint64_t DictStamps::stamp(PyObject*) const { return 0; }

#endif

}  // namespace scope::py
