#include "bindings.hpp"
#include "facts.hpp"

namespace scope::py {

PyMethodDef ranking_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
