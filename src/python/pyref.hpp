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
#include <vector>

namespace scope::py {

struct PyError {};  // a Python exception is set
// One the module made itself (a value of the wrong type, say): its message
// names the call being made, where a host's error is the host's own.
struct MadeError : PyError {};

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

// The module function being called, for error messages. Entry points open
// one; calls that re-enter the module from host code nest and restore it.
class CallScope {
 public:
  explicit CallScope(const char* function) : previous_(std::exchange(current_, function)) {}
  ~CallScope() { current_ = previous_; }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;
  static const char* function() { return current_; }

 private:
  static inline thread_local const char* current_ = "scope";
  const char* previous_;
};

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
    PyErr_Format(PyExc_OverflowError, "%s(): %s", CallScope::function(), error.what());
  } catch (const std::domain_error& error) {
    PyErr_Format(PyExc_ValueError, "%s(): %s", CallScope::function(), error.what());
  } catch (const std::length_error& error) {
    PyErr_SetString(PyExc_MemoryError, error.what());
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
  if (!PyErr_Occurred()) PyErr_SetString(PyExc_SystemError, "scope: error without an exception");
  return nullptr;
}

// An entry point: `body` runs guarded, with `function` named in its errors.
template <class Body>
PyObject* entry(const char* function, Body&& body) noexcept {
  CallScope scope(function);
  return guarded(std::forward<Body>(body));
}

inline PyRef new_int(std::int64_t value) { return check(PyLong_FromLongLong(value)); }
inline PyRef new_bool(bool value) { return PyRef::borrow(value ? Py_True : Py_False); }

}  // namespace scope::py
