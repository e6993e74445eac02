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
PyRef new_int128(__int128 value);

// Where a value comes from, for error messages: an argument of the function
// being called and, for a value inside it, what it is ("ScopeSymbol.kind").
struct Where {
  const char* argument;
  const char* what = nullptr;
};

// TypeError "f() argument 'a' must be <expected>, not <type>", or
// "f() argument 'a': <what> must be ...".
[[noreturn]] void wrong_type(Where where, const char* expected, PyObject* got);
// OverflowError "f() argument 'a'[: <what>] does not fit in 64 bits".
[[noreturn]] void too_large(Where where);
// TypeError or ValueError "f() argument 'a'[: <what>] <message>".
[[noreturn]] void bad_value(PyObject* type, Where where, const char* message);

// A 64-bit integer from an int (or an object with __index__).
std::int64_t as_int64(PyObject* object, Where where);
// An int argument: as as_int64, but only an int or __index__ object is taken.
inline std::int64_t int_arg(PyObject* object, const char* argument) { return as_int64(object, Where{argument}); }
// A real-number argument (int or float, or __float__), as a double.
double real_arg(PyObject* object, const char* argument);
bool truth(PyObject* object);

// Attribute of the module `scope`, looked up now: the host may rebind it.
PyRef module_attr(const char* name);
PyObject* module_object();  // borrowed

// PyArg_ParseTupleAndKeywords, which first names any unknown keyword
// ("f() got an unexpected keyword argument 'x'"). `format` ends in ":name".
void parse_args(PyObject* args, PyObject* kwargs, const char* format, const char* const* keywords, ...);

// Whether the type of `object` has an attribute `name` of its own or
// inherited (a method or a property), without running any host code.
bool type_has(PyObject* object, const char* name);

// The items of an iterable, as a tuple that only the caller holds. Unlike
// tuple(), no length the object reports is trusted: the tuple grows with
// what the iteration yields. TypeError naming `where` when `object` is not
// iterable; errors of the iteration itself propagate unchanged.
PyRef snapshot(PyObject* object, Where where, const char* expected);

// The two items of a pair (any iterable of exactly two), as unpacking
// `a, b = pair` takes them: TypeError when it is not iterable, ValueError
// for another number of items.
std::pair<PyRef, PyRef> unpack_pair(PyObject* pair, Where where);

// The (key, value) items of a mapping: a dict's own, or whatever `items()`
// yields, unpacked as pairs.
std::vector<std::pair<PyRef, PyRef>> mapping_items(PyObject* mapping, Where where);

}  // namespace scope::py
