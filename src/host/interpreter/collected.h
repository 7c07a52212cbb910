#pragma once

#include <memory>
#include <tuple>
#include <type_traits>

#include "host/interpreter/python.h"
#include "support/ordered_map.h"

namespace tarvomeldric::host {

// A class that keeps Python objects names them once: `held()` is a tuple of references to the
// members that the garbage collector is to see, and that are let go.
template <class T>
concept Holder = requires(T& holder) {
  holder.held();
};

// Shows the garbage collector the Python objects that a member keeps alive.
template <class T>
requires(!std::is_base_of_v<nb::object, T> && !Holder<T>) int visit_python(const T&, visitproc,
                                                                           void*) {
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
// What its values keep is shown alone: the owner may be asked for them yet.
template <class V>
void drop(OrderedMap<V>&) {}

template <Holder T>
int visit_python(T& holder, visitproc visit, void* arg) {
  const auto each = [&](auto&... members) {
    int stop = 0;
    static_cast<void>(((stop = visit_python(members, visit, arg)) || ...));
    return stop;
  };
  return std::apply(each, holder.held());
}

// Lets them go.
template <Holder T>
void drop(T& holder) {
  std::apply([](auto&... members) { (drop(members), ...); }, holder.held());
}

// The garbage collector's slots of a bound class, which may take attributes.
template <class T>
int traverse_object(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  if (PyObject** members = _PyObject_GetDictPtr(self)) Py_VISIT(*members);
  return nb::inst_ready(self) ? visit_python(*nb::inst_ptr<T>(self), visit, arg) : 0;
}

template <class T>
int clear_object(PyObject* self) {
  if (PyObject** members = _PyObject_GetDictPtr(self)) Py_CLEAR(*members);
  if (nb::inst_ready(self)) drop(*nb::inst_ptr<T>(self));
  return 0;
}

template <class T>
inline PyType_Slot collected[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_object<T>)},
                                  {Py_tp_clear, reinterpret_cast<void*>(clear_object<T>)},
                                  {0, nullptr}};

}  // namespace tarvomeldric::host
