#pragma once

#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// Lets `inspect.signature` look into the module's classes and functions: gives the binding
// library's types of both, which are this module's own, a `__signature__`. They are found through
// any bound class that needs no arguments, the name of one of its methods, and any bound function.
void bind_signatures(nb::handle bound_class, const char* method, nb::handle function);

}  // namespace tarvomeldric::host
