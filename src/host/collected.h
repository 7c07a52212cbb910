#pragma once

#include "host/python.h"

namespace tarvomeldric::host {

// The garbage collector's slots of a bound class that takes attributes and whose own host objects
// are shown by `traverse` and let go by `clear`.
template <class T>
int traverse_object(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  if (PyObject** members = _PyObject_GetDictPtr(self)) Py_VISIT(*members);
  return nb::inst_ready(self) ? nb::inst_ptr<T>(self)->traverse(visit, arg) : 0;
}

template <class T>
int clear_object(PyObject* self) {
  if (PyObject** members = _PyObject_GetDictPtr(self)) Py_CLEAR(*members);
  if (nb::inst_ready(self)) nb::inst_ptr<T>(self)->clear();
  return 0;
}

}  // namespace tarvomeldric::host
