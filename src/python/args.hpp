// Reading the host's arguments and values: integers, numbers, strings,
// iterables, pairs, mappings and symbol ids, with errors that name the
// function and the argument. No helper trusts a length an object reports,
// and none swallows an exception the host's code raises.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pyref.hpp"

namespace scope::py {

// Where a value comes from, for error messages: an argument of the function
// being called and, for a value inside it, what it is ("ScopeSymbol.kind").
struct Where {
  const char* argument;  // null for a value that is no argument (a module attribute)
  const char* what = nullptr;
};

// These three throw MadeError.
// TypeError "f() argument 'a' must be <expected>, not <type>", or
// "f() argument 'a': <what> must be ...".
[[noreturn]] void wrong_type(Where where, const char* expected, PyObject* got);
// OverflowError "f() argument 'a'[: <what>] does not fit in 64 bits".
[[noreturn]] void too_large(Where where);
// An error of `type`: "f() argument 'a'[: <what>] <message>".
[[noreturn]] void bad_value(PyObject* type, Where where, const char* message);

// A 64-bit integer from an int (or an object with __index__).
std::int64_t as_int64(PyObject* object, Where where);
// A real number (float, int, or an object with __float__ or __index__).
double as_double(PyObject* object, Where where);
// UTF-8 bytes of a str (lone surrogates pass through as three bytes each, so
// byte order stays code point order); valid as long as `text` or `scratch`.
std::string_view utf8_of(PyObject* text, PyRef& scratch, Where where);
PyRef str_from_utf8(std::string_view text);
bool truth(PyObject* object);
PyRef new_int128(__int128 value);

// `item in container`, as Python asks it; TypeError naming `where` when the
// container is no collection at all.
bool contains(PyObject* container, PyObject* item, Where where);

// Whether the type of `object` has an attribute `name` of its own or
// inherited (a method or a property), without running any host code.
bool type_has(PyObject* object, PyObject* name);

// The items of an iterable as a tuple that only the caller holds. Unlike
// tuple(), no length the object reports is trusted: the tuple grows with
// what the iteration yields. TypeError naming `where` when `object` is not
// iterable; errors of the iteration itself propagate unchanged.
PyRef snapshot(PyObject* object, Where where, const char* expected);

// The two items of a pair, as `a, b = pair` takes them: TypeError when it
// is not iterable, ValueError for another number of items.
std::pair<PyRef, PyRef> unpack_pair(PyObject* pair, Where where);

// The (key, value) items of a mapping: a dict's own, or whatever `items()`
// yields, unpacked as pairs.
std::vector<std::pair<PyRef, PyRef>> mapping_items(PyObject* mapping, Where where);

// Binds the arguments of a vectorcall to `params` by position and by
// keyword, as Python binds a function's positional-or-keyword parameters;
// the first `required` must be given, the others stay null when they are not.
void bind_arguments(std::span<const char* const> params, std::size_t required, PyObject* const* args, Py_ssize_t nargs,
                    PyObject* kwnames, PyObject** bound);

// How a key or member of a host container stands to the int symbol ids.
enum class IdMatch { id, none, ask };
// `id` when `object` is an int (or a float) equal to a 64-bit id; `none`
// when it can equal no id (a larger int, a fraction, a str); `ask` for any
// other object, which only Python's own comparison can tell.
IdMatch id_of(PyObject* object, std::int64_t& id);

// The value of `mapping` for `key` as `mapping.get(key)` gives it (a dict's
// missing-key hook does not run), or null when it has none. Only an exact
// dict is read in place; any other mapping is asked.
PyRef get_value(PyObject* mapping, PyObject* key);

}  // namespace scope::py
