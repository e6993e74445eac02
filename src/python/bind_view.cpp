// Functions that expose the native view itself, for tests and diagnostics.
#include "bindings.hpp"
#include "facts.hpp"

namespace scope::py {

PyMethodDef view_methods[] = {
    {"_native_columns", keywords_function(native_columns), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("_native_columns(facts, table, fields)\n--\n\n"
               "Converts the named fields of one record table of `facts` (\"files\", \"symbols\", \"inbound\" or "
               "\"outbound\") and returns each column as a list decoded back from the native view.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
