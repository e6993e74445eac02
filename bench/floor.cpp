// scope_floor: the least native work that turning the host's records into
// columns can cost, as the yardstick of the module's conversion. It reads
// every given attribute of every record once with PyObject_GetAttr, interns
// each str into a flat open-addressing table keyed by the str's own (cached)
// hash, converts ints and truth values, and writes one 64-bit cell per value.
// Nothing else: no schema, no checks beyond what the C API reports, no view.
// Built for the benchmarks only; never installed.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

// Distinct strs by value. A slot holds a reference, so a str made on the fly
// by an attribute stays valid as long as the table.
class Interner {
 public:
  Interner() : slots_(1024) {}
  Interner(const Interner&) = delete;
  Interner& operator=(const Interner&) = delete;
  ~Interner() {
    for (Slot& slot : slots_) Py_XDECREF(slot.text);
  }

  std::size_t size() const { return count_; }

  // The text's id, or -1 with an exception set.
  std::int64_t intern(PyObject* text) {
    const Py_hash_t hash = PyObject_Hash(text);
    if (hash == -1) return -1;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = static_cast<std::size_t>(hash) & mask;; i = (i + 1) & mask) {
      Slot& slot = slots_[i];
      if (slot.text == nullptr) {
        slot = {hash, Py_NewRef(text), static_cast<std::int64_t>(count_++)};
        const std::int64_t id = slot.id;
        if (count_ * 2 > slots_.size()) grow();
        return id;
      }
      if (slot.hash == hash && (slot.text == text || same_text(slot.text, text))) return slot.id;
    }
  }

 private:
  struct Slot {
    Py_hash_t hash = 0;
    PyObject* text = nullptr;
    std::int64_t id = 0;
  };

  // Canonical strs of equal text have the same kind and length.
  static bool same_text(PyObject* a, PyObject* b) {
    const Py_ssize_t length = PyUnicode_GET_LENGTH(a);
    const int kind = PyUnicode_KIND(a);
    return length == PyUnicode_GET_LENGTH(b) && kind == PyUnicode_KIND(b) &&
           std::memcmp(PyUnicode_DATA(a), PyUnicode_DATA(b), static_cast<std::size_t>(length) * kind) == 0;
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const Slot& slot : old) {
      if (slot.text == nullptr) continue;
      std::size_t i = static_cast<std::size_t>(slot.hash) & mask;
      while (slots_[i].text != nullptr) i = (i + 1) & mask;
      slots_[i] = slot;
    }
  }

  std::vector<Slot> slots_;
  std::size_t count_ = 0;
};

// One value as a cell: a str's id, an int, None as -1, anything else its truth.
bool take(PyObject* value, Interner& strings, std::vector<std::int64_t>& cells) {
  std::int64_t cell;
  if (PyUnicode_Check(value)) {
    cell = strings.intern(value);
  } else if (PyLong_Check(value)) {
    cell = PyLong_AsLongLong(value);
  } else if (value == Py_None) {
    cell = -1;
  } else {
    cell = PyObject_IsTrue(value);
  }
  Py_DECREF(value);
  if (cell == -1 && PyErr_Occurred()) return false;
  cells.push_back(cell);
  return true;
}

bool read_attrs(PyObject* owner, PyObject* names, Interner& strings, std::vector<std::int64_t>& cells) {
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(names); ++i) {
    PyObject* value = PyObject_GetAttr(owner, PyTuple_GET_ITEM(names, i));
    if (value == nullptr || !take(value, strings, cells)) return false;
  }
  return true;
}

// convert(tables) -> (distinct strs, cells): each table is (records, names,
// via, via_names): `names` read on each record of the tuple `records`, then,
// when `via` is a str, `via_names` read on the record's attribute `via` (the
// declaration an outbound reference points to).
PyObject* convert(PyObject*, PyObject* tables) {
  PyObject* items = PySequence_Tuple(tables);
  if (items == nullptr) return nullptr;
  struct TableRead {
    PyObject *records, *names, *via, *via_names;
  };
  std::vector<TableRead> reads;
  std::size_t total = 0;
  for (Py_ssize_t t = 0; t < PyTuple_GET_SIZE(items); ++t) {
    TableRead s{};
    if (!PyArg_ParseTuple(PyTuple_GET_ITEM(items, t), "O!O!OO!", &PyTuple_Type, &s.records, &PyTuple_Type, &s.names,
                          &s.via, &PyTuple_Type, &s.via_names)) {
      Py_DECREF(items);
      return nullptr;
    }
    const Py_ssize_t width = PyTuple_GET_SIZE(s.names) + (s.via == Py_None ? 0 : PyTuple_GET_SIZE(s.via_names));
    total += static_cast<std::size_t>(PyTuple_GET_SIZE(s.records) * width);
    reads.push_back(s);
  }
  Interner strings;
  std::vector<std::int64_t> cells;
  cells.reserve(total);
  bool ok = true;
  for (const TableRead& s : reads) {
    for (Py_ssize_t row = 0; ok && row < PyTuple_GET_SIZE(s.records); ++row) {
      PyObject* record = PyTuple_GET_ITEM(s.records, row);
      ok = read_attrs(record, s.names, strings, cells);
      if (ok && s.via != Py_None) {
        PyObject* target = PyObject_GetAttr(record, s.via);
        ok = target != nullptr && read_attrs(target, s.via_names, strings, cells);
        Py_XDECREF(target);
      }
    }
  }
  Py_DECREF(items);
  if (!ok) return nullptr;
  return Py_BuildValue("(nn)", static_cast<Py_ssize_t>(strings.size()), static_cast<Py_ssize_t>(cells.size()));
}

PyMethodDef methods[] = {
    {"convert", convert, METH_O,
     PyDoc_STR("convert(tables) -> (distinct strs, cells)\n--\n\n"
               "Reads each named attribute of each record once and interns its strs; tables are "
               "(records, names, via, via_names) tuples.")},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "scope_floor",
    PyDoc_STR("The conversion floor that the benchmarks compare against."),
    0,
    methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_scope_floor(void) { return PyModule_Create(&module_def); }
