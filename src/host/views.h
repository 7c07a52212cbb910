#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/trace.h"
#include "host/argument.h"
#include "host/convert.h"
#include "support/bounded_queue.h"
#include "support/ordered_map.h"

namespace tarvomeldric::host {

// Live views: what the host sees of a container of the core. A view keeps the record that owns the
// container alive. Like every access of the host it relies on the interpreter lock alone, so it can
// be used by a caller who holds the record's own lock.
//
// Reading and appending go straight to the container; what the host's own container can do beside
// that is done by it, on a copy that is written back.
template <class C>
struct View {
  nb::object owner;
  C* container;
};

// How a view's container appears to the host, and how it is written.
template <class C>
struct Shape;

template <class T>
struct Shape<std::vector<T>> {
  using Element = T;
  static nb::object host_copy(const std::vector<T>& values) {
    nb::list copy;
    for (const T& value : values) copy.append(Convert<T>::to(value));
    return copy;
  }
  static void append(std::vector<T>& values, T value) { values.push_back(std::move(value)); }
};

template <class T, std::size_t N>
struct Shape<BoundedQueue<T, N>> {
  using Element = T;
  static nb::object host_copy(const BoundedQueue<T, N>& values) {
    nb::list copy;
    for (const T& value : values) copy.append(Convert<T>::to(value));
    return import("collections").attr("deque")(copy, N);
  }
  static void append(BoundedQueue<T, N>& values, T value) { values.append(std::move(value)); }
};

// Replaces the content by that of a host iterable; an element of the wrong type changes nothing.
template <class C>
bool assign(C& container, nb::handle values) {
  using Element = typename Shape<C>::Element;
  const auto iterator = nb::steal(host_call([&] { return PyObject_GetIter(values.ptr()); }));
  if (!iterator.is_valid()) throw nb::python_error();
  C fresh;
  for (;;) {
    const auto item = nb::steal(host_call([&] { return PyIter_Next(iterator.ptr()); }));
    if (!item.is_valid()) break;
    Element element{};
    if (!Convert<Element>::from(item, element)) return false;
    Shape<C>::append(fresh, std::move(element));
  }
  if (PyErr_Occurred()) throw nb::python_error();
  std::swap(container, fresh);
  return true;
}

template <class V>
nb::dict host_dict(const OrderedMap<V>& map) {
  nb::dict copy;
  for (const auto& [key, value] : map) copy[from_utf8(key)] = Convert<V>::to(value);
  return copy;
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

template <class T>
struct Convert<std::vector<T>> {
  static constexpr auto kName = nb::detail::const_name("collections.abc.MutableSequence[") +
                                Convert<T>::kName + nb::detail::const_name("]");
  static bool from(nb::handle h, std::vector<T>& out) {
    return !PyUnicode_Check(h.ptr()) && PySequence_Check(h.ptr()) && assign(out, h);
  }
  static nb::object to(const std::vector<T>& values) {
    return Shape<std::vector<T>>::host_copy(values);
  }
};

template <class T, std::size_t N>
struct Convert<BoundedQueue<T, N>> {
  static constexpr auto kName = Convert<std::vector<T>>::kName;
  static bool from(nb::handle h, BoundedQueue<T, N>& out) {
    return !PyUnicode_Check(h.ptr()) && PySequence_Check(h.ptr()) && assign(out, h);
  }
  static nb::object to(const BoundedQueue<T, N>& values) {
    return Shape<BoundedQueue<T, N>>::host_copy(values);
  }
};

template <class V>
struct Convert<OrderedMap<V>> {
  static constexpr auto kName = nb::detail::const_name("collections.abc.MutableMapping[str, ") +
                                Convert<V>::kName + nb::detail::const_name("]");
  static bool from(nb::handle h, OrderedMap<V>& out) { return assign(out, h); }
  static nb::object to(const OrderedMap<V>& map) { return host_dict(map); }
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
  static constexpr auto kName = nb::detail::const_name("tuple[str, float]");
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

// Binds every kind of view that the module's records show.
void bind_views(nb::module_& module);

}  // namespace tarvomeldric::host
