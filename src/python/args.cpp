// Reading the host's arguments: integers, numbers, iterables, pairs and
// mappings, with errors that name the function and the argument.
#include <string>

#include "args.hpp"
#include "compat.hpp"

namespace scope::py {

namespace {

// "f() argument 'a'" or "f() argument 'a': what", for the start of a message.
PyRef place(Where where) {
  const char* function = CallScope::function();
  if (where.argument == nullptr) return check(PyUnicode_FromFormat("%s(): %s", function, where.what));
  if (where.what == nullptr) return check(PyUnicode_FromFormat("%s() argument '%s'", function, where.argument));
  return check(PyUnicode_FromFormat("%s() argument '%s': %s", function, where.argument, where.what));
}

}  // namespace

void wrong_type(Where where, const char* expected, PyObject* got) {
  PyErr_Format(PyExc_TypeError, "%U must be %s, not %.100s", place(where).get(), expected, Py_TYPE(got)->tp_name);
  throw MadeError{};
}

void too_large(Where where) {
  PyErr_Format(PyExc_OverflowError, "%U does not fit in 64 bits", place(where).get());
  throw MadeError{};
}

void bad_value(PyObject* type, Where where, const char* message) {
  PyErr_Format(type, "%U %s", place(where).get(), message);
  throw MadeError{};
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

double as_double(PyObject* object, Where where) {
  if (PyFloat_Check(object)) return PyFloat_AS_DOUBLE(object);
  PyNumberMethods* number = Py_TYPE(object)->tp_as_number;
  if (number == nullptr || (number->nb_float == nullptr && number->nb_index == nullptr))
    wrong_type(where, "a real number", object);
  double value = PyFloat_AsDouble(object);
  if (value == -1.0 && PyErr_Occurred()) throw PyError{};
  return value;
}

std::string_view utf8_of(PyObject* text, PyRef& scratch, Where where) {
  if (!PyUnicode_Check(text)) wrong_type(where, "str", text);
  Py_ssize_t size = 0;
  const char* bytes = PyUnicode_AsUTF8AndSize(text, &size);
  if (bytes != nullptr) return {bytes, static_cast<std::size_t>(size)};
  if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw PyError{};
  // Lone surrogates have no UTF-8 form; keep them as their three-byte
  // encoding so that they come back unchanged and still sort by code point.
  PyErr_Clear();
  scratch = check(PyUnicode_AsEncodedString(text, "utf-8", "surrogatepass"));
  return {PyBytes_AS_STRING(scratch.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(scratch.get()))};
}

PyRef str_from_utf8(std::string_view text) {
  return check(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
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

void bind_arguments(std::span<const char* const> params, std::size_t required, PyObject* const* args, Py_ssize_t nargs,
                    PyObject* kwnames, PyObject** bound) {
  const char* function = CallScope::function();
  const auto count = static_cast<Py_ssize_t>(params.size());
  if (nargs > count)
    raise_format(PyExc_TypeError, "%s() takes %zd positional arguments but %zd were given", function, count, nargs);
  for (Py_ssize_t i = 0; i < count; ++i) bound[i] = i < nargs ? args[i] : nullptr;
  const Py_ssize_t keywords = kwnames == nullptr ? 0 : PyTuple_GET_SIZE(kwnames);
  for (Py_ssize_t k = 0; k < keywords; ++k) {
    PyObject* name = PyTuple_GET_ITEM(kwnames, k);  // borrowed; a str, as the call protocol makes them
    Py_ssize_t at = 0;
    while (at < count && PyUnicode_CompareWithASCIIString(name, params[static_cast<std::size_t>(at)]) != 0) ++at;
    if (at == count) raise_format(PyExc_TypeError, "%s() got an unexpected keyword argument '%S'", function, name);
    if (bound[at] != nullptr)
      raise_format(PyExc_TypeError, "%s() got multiple values for argument '%S'", function, name);
    bound[at] = args[nargs + k];
  }
  for (std::size_t i = 0; i < required; ++i)
    if (bound[i] == nullptr)
      raise_format(PyExc_TypeError, "%s() missing required argument '%s' (pos %zu)", function, params[i], i + 1);
}

bool contains(PyObject* container, PyObject* item, Where where) {
  const PySequenceMethods* sequence = Py_TYPE(container)->tp_as_sequence;
  const bool collection = (sequence != nullptr && sequence->sq_contains != nullptr) ||
                          Py_TYPE(container)->tp_iter != nullptr || PySequence_Check(container);
  // A text holds no symbol id and no kind: `7 in "abc"` is no question to ask.
  if (!collection || (PyUnicode_Check(container) && !PyUnicode_Check(item)))
    wrong_type(where, "a collection", container);
  return check(PySequence_Contains(container, item)) != 0;
}

bool type_has(PyObject* object, PyObject* name) {
  return lookup_in_type(Py_TYPE(object), name) != nullptr;  // borrowed; runs no host code
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
  PyRef items_name = check(PyUnicode_InternFromString("items"));
  if (!type_has(mapping, items_name.get())) wrong_type(where, "a mapping", mapping);
  PyRef view = check(PyObject_CallMethod(mapping, "items", nullptr));
  PyRef all = snapshot(view.get(), where, "a mapping whose items() is iterable");
  std::string what = where.what ? std::string("an item of ") + where.what + ".items()" : "an item of items()";
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(all.get()); ++i)
    items.push_back(unpack_pair(PyTuple_GET_ITEM(all.get(), i), Where{where.argument, what.c_str()}));
  return items;
}

}  // namespace scope::py

namespace scope::py {

IdMatch id_of(PyObject* object, std::int64_t& id) {
  if (PyLong_CheckExact(object) || PyBool_Check(object)) {
    int overflow = 0;
    long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) return IdMatch::none;
    id = value;
    return IdMatch::id;
  }
  if (PyFloat_CheckExact(object)) {
    double value = PyFloat_AS_DOUBLE(object);
    if (!(value >= -0x1p63 && value < 0x1p63) || value != static_cast<double>(static_cast<std::int64_t>(value)))
      return IdMatch::none;
    id = static_cast<std::int64_t>(value);
    return IdMatch::id;
  }
  if (PyUnicode_CheckExact(object) || PyBytes_CheckExact(object) || object == Py_None) return IdMatch::none;
  return IdMatch::ask;
}

PyRef get_value(PyObject* mapping, PyObject* key) {
  if (PyDict_CheckExact(mapping)) {                           // a subclass may have a `get` of its own
    PyObject* value = PyDict_GetItemWithError(mapping, key);  // borrowed
    if (value == nullptr && PyErr_Occurred()) throw PyError{};
    return PyRef::borrow(value);
  }
  PyRef absent = check(PyObject_CallNoArgs(reinterpret_cast<PyObject*>(&PyBaseObject_Type)));
  PyRef value = check(PyObject_CallMethod(mapping, "get", "OO", key, absent.get()));
  return value.get() == absent.get() ? PyRef() : value;
}

}  // namespace scope::py
