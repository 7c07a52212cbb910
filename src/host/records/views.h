#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/trace.h"
#include "host/records/argument.h"
#include "support/bounded_queue.h"
#include "support/ordered_map.h"

namespace tarvomeldric::host {

// How the containers of the core appear in Python: as live views when a field shows them, as
// Python's own containers when they are copied.
//
// A view keeps the record that owns the container alive. Like every access from Python it relies on
// the interpreter lock alone, so it can be used by code that holds the record's own lock. Asking
// for one element, appending, and removing one by its place or key go straight to the container;
// what Python's own containers can do beside that is done by one of them, on a copy that is written
// back.
template <class C>
struct View {
  nb::object owner;
  C* container;

  auto held() { return std::tie(owner); }
};

template <class T>
void append(std::vector<T>& values, T value) {
  values.push_back(std::move(value));
}
template <class T, std::size_t N>
void append(BoundedQueue<T, N>& values, T value) {
  values.append(std::move(value));
}

template <class T>
void erase(std::vector<T>& values, std::size_t at) {
  values.erase(values.begin() + static_cast<std::ptrdiff_t>(at));
}
template <class T, std::size_t N>
void erase(BoundedQueue<T, N>& values, std::size_t at) {
  values.erase(at);
}

template <class C>
nb::list list_of(const C& values) {
  nb::list copy;
  for (const auto& value : values) copy.append(Convert<typename C::value_type>::to(value));
  return copy;
}

template <class V>
nb::dict dict_of(const OrderedMap<V>& map) {
  nb::dict copy;
  for (const auto& [key, value] : map) copy[from_utf8(key)] = Convert<V>::to(value);
  return copy;
}

// Replaces the content by that of a Python iterable; an element of the wrong type changes nothing.
template <class C>
bool assign(C& container, nb::handle values) {
  const auto iterator = nb::steal(host_call([&] { return PyObject_GetIter(values.ptr()); }));
  if (!iterator.is_valid()) throw nb::python_error();
  C fresh;
  for (;;) {
    const auto item = nb::steal(host_call([&] { return PyIter_Next(iterator.ptr()); }));
    if (!item.is_valid()) break;
    typename C::value_type element{};
    if (!Convert<typename C::value_type>::from(item, element)) return false;
    append(fresh, std::move(element));
  }
  if (PyErr_Occurred()) throw nb::python_error();
  std::swap(container, fresh);
  return true;
}

template <class V>
bool assign(OrderedMap<V>& map, nb::handle values) {
  if (!PyDict_Check(values.ptr()) && !nb::hasattr(values, "keys")) return false;
  const auto given =
      nb::borrow<nb::dict>(call(nb::handle(reinterpret_cast<PyObject*>(&PyDict_Type)), values));
  OrderedMap<V> fresh;
  for (auto [key, value] : given) {
    std::string name;
    V converted{};
    if (!Convert<std::string>::from(key, name) || !Convert<V>::from(value, converted)) return false;
    fresh[name] = std::move(converted);
  }
  std::swap(map, fresh);
  return true;
}

template <class C>
bool assign_sequence(C& container, nb::handle values) {
  return !PyUnicode_Check(values.ptr()) && PySequence_Check(values.ptr()) &&
         assign(container, values);
}

template <class T>
struct Convert<std::vector<T>> {
  static constexpr auto kName =
      const_name("collections.abc.MutableSequence[") + Convert<T>::kName + const_name("]");
  static bool from(nb::handle h, std::vector<T>& out) { return assign_sequence(out, h); }
  static nb::object to(const std::vector<T>& values) { return list_of(values); }
};

template <class T, std::size_t N>
struct Convert<BoundedQueue<T, N>> {
  static constexpr auto kName = Convert<std::vector<T>>::kName;
  static bool from(nb::handle h, BoundedQueue<T, N>& out) { return assign_sequence(out, h); }
  static nb::object to(const BoundedQueue<T, N>& values) {
    return import("collections").attr("deque")(list_of(values), N);
  }
};

template <class V>
struct Convert<OrderedMap<V>> {
  static constexpr auto kName =
      const_name("collections.abc.MutableMapping[str, ") + Convert<V>::kName + const_name("]");
  static bool from(nb::handle h, OrderedMap<V>& out) { return assign(out, h); }
  static nb::object to(const OrderedMap<V>& map) { return dict_of(map); }
};

// A list of samples that a map holds: its view shares it, so it outlives its entry in the map.
template <>
struct Convert<std::shared_ptr<std::vector<double>>> {
  using Shared = std::shared_ptr<std::vector<double>>;
  static constexpr auto kName = Convert<std::vector<double>>::kName;
  static bool from(nb::handle h, Shared& out) {
    auto samples = std::make_shared<std::vector<double>>();
    if (!Convert<std::vector<double>>::from(h, *samples)) return false;
    out = std::move(samples);
    return true;
  }
  static nb::object to(const Shared& samples) {
    nb::capsule owner(new Shared(samples),
                      [](void* held) noexcept { delete static_cast<Shared*>(held); });
    return nb::cast(View<std::vector<double>>{owner, samples.get()});
  }
};

template <>
struct Convert<PhaseEntry> {
  static constexpr auto kName = const_name("tuple[str, float]");
  static bool from(nb::handle h, PhaseEntry& out) {
    if (!PyTuple_Check(h.ptr()) || PyTuple_GET_SIZE(h.ptr()) != 2) return false;
    return Convert<std::string>::from(PyTuple_GET_ITEM(h.ptr(), 0), out.first) &&
           Convert<double>::from(PyTuple_GET_ITEM(h.ptr(), 1), out.second);
  }
  static nb::object to(const PhaseEntry& entry) {
    return nb::make_tuple(from_utf8(entry.first), entry.second);
  }
};

// What a field shows of its value: a view for a container, the value for everything else.
template <class T>
nb::object live(nb::handle, T& value) {
  return Convert<T>::to(value);
}
template <class T>
nb::object live(nb::handle owner, std::vector<T>& values) {
  return nb::cast(View<std::vector<T>>{nb::borrow(owner), &values});
}
template <class T, std::size_t N>
nb::object live(nb::handle owner, BoundedQueue<T, N>& values) {
  return nb::cast(View<BoundedQueue<T, N>>{nb::borrow(owner), &values});
}
template <class V>
nb::object live(nb::handle owner, OrderedMap<V>& map) {
  return nb::cast(View<OrderedMap<V>>{nb::borrow(owner), &map});
}

// One element of a sequence. An index that is no element of it is an IndexError, negative ones
// count from the end.
template <class C>
std::size_t place_in(const C& values, Py_ssize_t index) {
  if (index < 0) index += static_cast<Py_ssize_t>(values.size());
  if (index < 0 || static_cast<std::size_t>(index) >= values.size()) {
    throw nb::index_error("out of range");
  }
  return static_cast<std::size_t>(index);
}

template <class C>
nb::object take_out(C& values, Py_ssize_t index) {
  const std::size_t at = place_in(values, index);
  nb::object taken = Convert<typename C::value_type>::to(values[at]);
  erase(values, at);
  return taken;
}

// Comparing may run code that changes the sequence.
template <class C>
bool holds(const C& values, nb::handle wanted) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    const nb::object value = Convert<typename C::value_type>::to(values[i]);
    if (host_call([&] { return value.equal(wanted); })) return true;
  }
  return false;
}

// The value under a key of a map, or null. What cannot be a key of a dictionary is its type error.
template <class V>
V* value_at(OrderedMap<V>& map, nb::handle key) {
  if (PyUnicode_Check(key.ptr())) return map.find(to_utf8(key));
  if (host_call([&] { return PyObject_Hash(key.ptr()); }) == -1) throw nb::python_error();
  return nullptr;
}

[[noreturn]] inline void raise_key_error(nb::handle key) {
  PyErr_SetObject(PyExc_KeyError, key.ptr());
  throw nb::python_error();
}

// The value ends after its entry is gone: its end may run code that looks at the map.
template <class V>
nb::object take_out(OrderedMap<V>& map, nb::handle key, nb::handle otherwise) {
  V* found = value_at(map, key);
  if (!found && otherwise.is_valid()) return nb::borrow(otherwise);
  if (!found) raise_key_error(key);
  const V value = std::move(*found);
  map.erase(to_utf8(key));
  return Convert<V>::to(value);
}

}  // namespace tarvomeldric::host
