// Reading the host's arguments: integers, numbers, iterables, pairs and
// mappings, with errors that name the function and the argument.
#include <cstdarg>
#include <cstring>
#include <string>

#include "pyref.hpp"

namespace scope::py {

namespace {

// "f() argument 'a'" or "f() argument 'a': what", for the start of a message.
PyRef place(Where where) {
  if (where.what == nullptr)
    return check(PyUnicode_FromFormat("%s() argument '%s'", CallScope::function(), where.argument));
  return check(PyUnicode_FromFormat("%s() argument '%s': %s", CallScope::function(), where.argument, where.what));
}

}  // namespace

void wrong_type(Where where, const char* expected, PyObject* got) {
  PyErr_Format(PyExc_TypeError, "%U must be %s, not %.100s", place(where).get(), expected, Py_TYPE(got)->tp_name);
  throw PyError{};
}

void too_large(Where where) {
  PyErr_Format(PyExc_OverflowError, "%U does not fit in 64 bits", place(where).get());
  throw PyError{};
}

void bad_value(PyObject* type, Where where, const char* message) {
  PyErr_Format(type, "%U %s", place(where).get(), message);
  throw PyError{};
}

std::int64_t as_int64(PyObject* object, Where where) {
  if (!PyLong_Check(object)) {
    if (!PyIndex_Check(object)) wrong_type(where, "int", object);
    PyRef index = check(PyNumber_Index(object));
    return as_int64(index.get(), where);
  }
  int overflow = 0;
  long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
  if (overflow != 0) too_large(where);
  if (value == -1 && PyErr_Occurred()) throw PyError{};
  return value;
}

double real_arg(PyObject* object, const char* argument) {
  if (PyFloat_Check(object)) return PyFloat_AS_DOUBLE(object);
  PyNumberMethods* number = Py_TYPE(object)->tp_as_number;
  if (number == nullptr || (number->nb_float == nullptr && number->nb_index == nullptr))
    wrong_type(Where{argument}, "a real number", object);
  double value = PyFloat_AsDouble(object);
  if (value == -1.0 && PyErr_Occurred()) throw PyError{};
  return value;
}

bool truth(PyObject* object) { return check(PyObject_IsTrue(object)) != 0; }

PyRef new_int128(__int128 value) {
  if (value >= INT64_MIN && value <= INT64_MAX) return new_int(static_cast<std::int64_t>(value));
  // Beyond 64 bits: high * 2**64 + low.
  PyRef high = new_int(static_cast<std::int64_t>(value >> 64));
  PyRef low = check(PyLong_FromUnsignedLongLong(static_cast<unsigned long long>(value)));
  PyRef shift = new_int(64);
  PyRef shifted = check(PyNumber_Lshift(high.get(), shift.get()));
  return check(PyNumber_Add(shifted.get(), low.get()));
}

void parse_args(PyObject* args, PyObject* kwargs, const char* format, const char* const* keywords, ...) {
  if (kwargs != nullptr) {
    PyObject* key;
    PyObject* value;
    Py_ssize_t position = 0;
    while (PyDict_Next(kwargs, &position, &key, &value)) {  // borrowed
      bool known = false;
      for (const char* const* keyword = keywords; *keyword != nullptr && !known; ++keyword)
        known = PyUnicode_Check(key) && PyUnicode_CompareWithASCIIString(key, *keyword) == 0;
      if (!known) {
        const char* name = std::strchr(format, ':');
        raise_format(PyExc_TypeError, "%s() got an unexpected keyword argument '%S'", name ? name + 1 : "function",
                     key);
      }
    }
  }
  va_list arguments;
  va_start(arguments, keywords);
  int parsed = PyArg_VaParseTupleAndKeywords(args, kwargs, format, const_cast<char**>(keywords), arguments);
  va_end(arguments);
  if (!parsed) throw PyError{};
}

bool type_has(PyObject* object, const char* name) {
  PyRef key = check(PyUnicode_InternFromString(name));
  return _PyType_Lookup(Py_TYPE(object), key.get()) != nullptr;  // borrowed; runs no host code
}

PyRef snapshot(PyObject* object, Where where, const char* expected) {
  if (PyTuple_CheckExact(object)) return PyRef::borrow(object);
  if (PyList_CheckExact(object)) return check(PyList_AsTuple(object));
  if (Py_TYPE(object)->tp_iter == nullptr && !PySequence_Check(object)) wrong_type(where, expected, object);
  PyRef iterator = check(PyObject_GetIter(object));
  PyRef items = check(PyList_New(0));
  while (PyRef item = PyRef::steal(PyIter_Next(iterator.get()))) check(PyList_Append(items.get(), item.get()));
  if (PyErr_Occurred()) throw PyError{};
  return check(PyList_AsTuple(items.get()));
}

std::pair<PyRef, PyRef> unpack_pair(PyObject* pair, Where where) {
  if (PyTuple_CheckExact(pair) && PyTuple_GET_SIZE(pair) == 2)
    return {PyRef::borrow(PyTuple_GET_ITEM(pair, 0)), PyRef::borrow(PyTuple_GET_ITEM(pair, 1))};
  if (Py_TYPE(pair)->tp_iter == nullptr && !PySequence_Check(pair)) wrong_type(where, "a (key, value) pair", pair);
  PyRef iterator = check(PyObject_GetIter(pair));
  PyRef items[3];
  int count = 0;
  while (count < 3) {
    PyRef item = PyRef::steal(PyIter_Next(iterator.get()));
    if (!item) break;
    items[count++] = std::move(item);
  }
  if (PyErr_Occurred()) throw PyError{};
  if (count != 2) bad_value(PyExc_ValueError, where, "must be a pair of two items");
  return {std::move(items[0]), std::move(items[1])};
}

std::vector<std::pair<PyRef, PyRef>> mapping_items(PyObject* mapping, Where where) {
  std::vector<std::pair<PyRef, PyRef>> items;
  if (PyDict_Check(mapping)) {
    // A snapshot first: reading a value may run host code that changes the dict.
    PyObject* key;
    PyObject* value;
    Py_ssize_t position = 0;
    while (PyDict_Next(mapping, &position, &key, &value))  // borrowed
      items.emplace_back(PyRef::borrow(key), PyRef::borrow(value));
    return items;
  }
  if (!type_has(mapping, "items")) wrong_type(where, "a mapping", mapping);
  PyRef view = check(PyObject_CallMethod(mapping, "items", nullptr));
  PyRef all = snapshot(view.get(), where, "a mapping whose items() is iterable");
  std::string what = where.what ? std::string("an item of ") + where.what + ".items()" : "an item of items()";
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(all.get()); ++i)
    items.push_back(unpack_pair(PyTuple_GET_ITEM(all.get(), i), Where{where.argument, what.c_str()}));
  return items;
}

}  // namespace scope::py
