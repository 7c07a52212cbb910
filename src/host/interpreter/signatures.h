#pragma once

#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// Lets `inspect` and `unittest.mock` look into the module's classes and functions: gives the
// binding library's types of both, which are this module's own, a `__signature__`, and those of
// functions the marks by which Python knows what is to be awaited. They are found through any bound
// class that needs no arguments, the name of one of its methods, and any bound function.
void bind_signatures(nb::handle bound_class, const char* method, nb::handle function);

}  // namespace tarvomeldric::host
