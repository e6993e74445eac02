#include "bindings.hpp"
#include "facts.hpp"

namespace scope::py {

PyMethodDef evidence_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace scope::py
