#include "bindings.hpp"
#include "facts.hpp"

namespace scope::py {

PyMethodDef loader_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
