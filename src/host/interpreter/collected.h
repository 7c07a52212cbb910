#pragma once

#include <memory>
#include <type_traits>

#include "host/interpreter/python.h"
#include "support/ordered_map.h"

namespace tarvomeldric::host {

// Shows the garbage collector the Python objects that a member keeps alive.
template <class T>
requires(!std::is_base_of_v<nb::object, T>) int visit_python(const T&, visitproc, void*) {
  return 0;
}
inline int visit_python(const nb::object& held, visitproc visit, void* arg) {
  Py_VISIT(held.ptr());
  return 0;
}
// A part that Python code made keeps its Python object, which may have attributes of its own. A
// copy of the pointer elsewhere is a reference that the collector does not see; it has to wait
// then.
template <class P>
int visit_python(const std::shared_ptr<P>& part, visitproc visit, void* arg) {
  const auto* keeper = std::get_deleter<nb::detail::py_deleter>(part);
  if (keeper && part.use_count() == 1) Py_VISIT(keeper->o);
  return 0;
}
template <class V>
int visit_python(const OrderedMap<V>& map, visitproc visit, void* arg) {
  for (const auto& [_, value] : map) {
    if (const int stop = visit_python(value, visit, arg)) return stop;
  }
  return 0;
}

// The members of a class that are Python objects: what it shows the garbage collector, and lets go.
template <auto... Members>
struct Held {
  template <class T>
  static int traverse(const T& holder, visitproc visit, void* arg) {
    int stop = 0;
    (void)((stop = visit_python(holder.*Members, visit, arg)) || ...);
    return stop;
  }
  template <class T>
  static void clear(T& holder) {
    (drop(holder.*Members), ...);
  }
};

// The garbage collector's slots of a bound class that takes attributes and whose own Python objects
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
