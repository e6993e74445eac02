// Reference ownership and error plumbing for the binding layer.
//
// PyRef owns one strong reference. Borrowed references stay plain
// `PyObject*` and are named as such at the place they are taken.
//
// Inside an entry point, a failed Python call throws PyError (the Python
// exception is already set); core errors arrive as C++ exceptions. `guarded`
// turns both into a NULL return with the right Python exception.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>

namespace scope::py {

struct PyError {};  // a Python exception is set

class PyRef {
 public:
  PyRef() = default;
  // Takes over a new reference (NULL allowed).
  static PyRef steal(PyObject* object) { return PyRef(object); }
  // Takes a new reference to a borrowed object.
  static PyRef borrow(PyObject* object) {
    Py_XINCREF(object);
    return PyRef(object);
  }
  PyRef(const PyRef& other) : object_(other.object_) { Py_XINCREF(object_); }
  PyRef(PyRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  PyRef& operator=(PyRef other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~PyRef() { Py_XDECREF(object_); }

  PyObject* get() const { return object_; }
  // Hands the reference to the caller (a C API function that steals, or a return).
  PyObject* release() { return std::exchange(object_, nullptr); }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  explicit PyRef(PyObject* object) : object_(object) {}
  PyObject* object_ = nullptr;
};

// A new reference from a C API call, or PyError when it failed.
inline PyRef check(PyObject* result) {
  if (result == nullptr) throw PyError{};
  return PyRef::steal(result);
}
// A status code from a C API call: negative means failed.
inline int check(int status) {
  if (status < 0) throw PyError{};
  return status;
}

[[noreturn]] inline void raise(PyObject* type, const char* message) {
  PyErr_SetString(type, message);
  throw PyError{};
}
template <class... Args>
[[noreturn]] void raise_format(PyObject* type, const char* format, Args... args) {
  PyErr_Format(type, format, args...);
  throw PyError{};
}

// Runs an entry point's body; returns its new reference, or NULL with the
// Python exception set.
template <class Body>
PyObject* guarded(Body&& body) noexcept {
  try {
    return body().release();
  } catch (const PyError&) {
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::overflow_error& error) {
    PyErr_SetString(PyExc_OverflowError, error.what());
  } catch (const std::domain_error& error) {
    PyErr_SetString(PyExc_ValueError, error.what());
  } catch (const std::length_error& error) {
    PyErr_SetString(PyExc_MemoryError, error.what());
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
  if (!PyErr_Occurred()) PyErr_SetString(PyExc_SystemError, "scope: error without an exception");
  return nullptr;
}

inline PyRef new_int(std::int64_t value) { return check(PyLong_FromLongLong(value)); }
inline PyRef new_bool(bool value) { return PyRef::borrow(value ? Py_True : Py_False); }
PyRef new_int128(__int128 value);

// A 64-bit integer from any int (or __index__) object; OverflowError beyond
// 64 bits, TypeError for other types.
std::int64_t as_int64(PyObject* object, const char* what);
bool truth(PyObject* object);

// Attribute of the module `scope`, looked up now: the host may rebind it.
PyRef module_attr(const char* name);
PyObject* module_object();  // borrowed

// PyArg_ParseTupleAndKeywords, which first names any unknown keyword
// ("f() got an unexpected keyword argument 'x'"). `format` ends in ":name".
void parse_args(PyObject* args, PyObject* kwargs, const char* format, const char* const* keywords, ...);

// TypeError naming the function, the argument and the expected type.
[[noreturn]] void wrong_type(const char* function, const char* argument, const char* expected, PyObject* got);

}  // namespace scope::py
