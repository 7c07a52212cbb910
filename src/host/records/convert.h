#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/interpreter/python.h"
#include "host/records/str_enum.h"

namespace tarvomeldric::host {

// How one type crosses between Python and C++: its name in messages and stubs, `from` (false when
// the Python object is of another type) and `to`. Texts take lone surrogates; numbers take what
// Python takes for a number of their kind, and nothing that would lose digits.
template <class T>
struct Convert;

template <>
struct Convert<std::string> {
  static constexpr auto kName = const_name("str");
  static bool from(nb::handle h, std::string& out) {
    if (!PyUnicode_Check(h.ptr())) return false;
    out = to_utf8(h);
    return true;
  }
  static nb::object to(const std::string& value) { return from_utf8(value); }
};

template <>
struct Convert<bool> {
  static constexpr auto kName = const_name("bool");
  static bool from(nb::handle h, bool& out) {
    out = is_true(h);
    return true;
  }
  static nb::object to(bool value) { return truth(value); }
};

template <>
struct Convert<std::int64_t> {
  static constexpr auto kName = const_name("int");
  static bool from(nb::handle h, std::int64_t& out) {
    if (!PyIndex_Check(h.ptr())) return false;
    const auto index = made(PyNumber_Index(h.ptr()));
    out = PyLong_AsLongLong(index.ptr());
    if (out == -1 && PyErr_Occurred()) throw nb::python_error();
    return true;
  }
  static nb::object to(std::int64_t value) { return number(value); }
};

template <>
struct Convert<double> {
  static constexpr auto kName = const_name("float");
  static bool from(nb::handle h, double& out) {
    const auto* slots = Py_TYPE(h.ptr())->tp_as_number;
    if (!PyFloat_Check(h.ptr()) && !(slots && (slots->nb_float || slots->nb_index))) return false;
    out = PyFloat_AsDouble(h.ptr());
    if (out == -1.0 && PyErr_Occurred()) throw nb::python_error();
    return true;
  }
  static nb::object to(double value) { return number(value); }
};

// The name of a bound class in Python: an overload of `python_name` for each.
template <class T>
struct Named {};
template <class T>
inline constexpr auto kPythonName = python_name(Named<T>{});

inline int is_anything(PyObject*) { return 1; }

// A Python object kept by reference, of which signatures say `Type`; `Check` refuses what is of
// another type.
template <Literal Type, int (*Check)(PyObject*) = is_anything>
struct Annotated : nb::object {
  Annotated() = default;
  Annotated(nb::object any)  // NOLINT(google-explicit-constructor): one is the other, annotated
      : nb::object(std::move(any)) {}
};
template <Literal Type, int (*Check)(PyObject*)>
struct Convert<Annotated<Type, Check>> {
  static constexpr auto kName = const_name(Type.value);
  static bool from(nb::handle h, Annotated<Type, Check>& out) {
    if (!Check(h.ptr())) return false;
    out = nb::borrow(h);
    return true;
  }
  static nb::object to(const nb::object& value) { return value; }
};

inline int is_text(PyObject* object) { return PyUnicode_Check(object); }
inline int is_dict(PyObject* object) { return PyDict_Check(object); }
inline int is_list(PyObject* object) { return PyList_Check(object); }

using Any = Annotated<"typing.Any">;
using Text = Annotated<"str", is_text>;
using TextList = Annotated<"list[str]", is_list>;
template <Literal Type>
using DictOf = Annotated<Type, is_dict>;
using Keys = std::optional<DictOf<"dict[str, str]">>;

// What is to be awaited for an R.
template <class R>
struct Awaitable : nb::object {
  Awaitable(nb::object any)  // NOLINT(google-explicit-constructor): one is the other, annotated
      : nb::object(std::move(any)) {}
};
template <>
struct Convert<void> {
  static constexpr auto kName = const_name("None");
};
template <class R>
struct Convert<Awaitable<R>> {
  static constexpr auto kName = const_name("collections.abc.Coroutine[typing.Any, typing.Any, ") +
                                Convert<R>::kName + const_name("]");
  static nb::object to(const nb::object& value) { return value; }
};

template <>
struct Convert<nb::object> : Convert<Any> {
  static bool from(nb::handle h, nb::object& out) {
    out = nb::borrow(h);
    return true;
  }
};

// A bound T as the Python object that it is, of a subclass maybe.
template <class T>
struct Instance : nb::object {
  Instance() = default;
  explicit Instance(nb::object made) : nb::object(std::move(made)) {}
  T& operator*() const { return *nb::inst_ptr<T>(*this); }
  T* operator->() const { return nb::inst_ptr<T>(*this); }
};
template <class T>
struct Convert<Instance<T>> {
  static constexpr auto kName = kPythonName<T>;
  static bool from(nb::handle h, Instance<T>& out) {
    if (!is_made<T>(h)) return false;
    out = Instance<T>(nb::borrow(h));
    return true;
  }
  static nb::object to(const nb::object& value) { return value; }
};

template <class T>
struct Convert<std::optional<T>> {
  static constexpr auto kName = Convert<T>::kName + const_name(" | None");
  static bool from(nb::handle h, std::optional<T>& out) {
    out.reset();
    return h.is_none() || Convert<T>::from(h, out.emplace());
  }
  static nb::object to(const std::optional<T>& value) {
    return value ? Convert<T>::to(*value) : nb::none();
  }
};

template <PythonEnumerated E>
struct Convert<E> {
  static constexpr auto kName = PythonEnum<E>::kName;
  static bool from(nb::handle h, E& out) {
    const auto member = PythonEnum<E>::find(h);
    if (member) out = *member;
    return member.has_value();
  }
  static nb::object to(E value) { return PythonEnum<E>::member(value); }
};

template <class T>
struct Convert<std::shared_ptr<T>> {
  static constexpr auto kName = kPythonName<T>;
  static bool from(nb::handle h, std::shared_ptr<T>& out) {
    if (!is_made<T>(h)) return false;
    out = nb::cast<std::shared_ptr<T>>(h);
    return true;
  }
  static nb::object to(const std::shared_ptr<T>& value) { return nb::cast(value); }
};

}  // namespace tarvomeldric::host
