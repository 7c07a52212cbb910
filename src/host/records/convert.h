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
  static constexpr auto kName = nb::detail::const_name("str");
  static bool from(nb::handle h, std::string& out) {
    if (!PyUnicode_Check(h.ptr())) return false;
    out = to_utf8(h);
    return true;
  }
  static nb::object to(const std::string& value) { return from_utf8(value); }
};

template <>
struct Convert<bool> {
  static constexpr auto kName = nb::detail::const_name("bool");
  static bool from(nb::handle h, bool& out) {
    out = is_true(h);
    return true;
  }
  static nb::object to(bool value) { return truth(value); }
};

template <>
struct Convert<std::int64_t> {
  static constexpr auto kName = nb::detail::const_name("int");
  static bool from(nb::handle h, std::int64_t& out) {
    if (!PyIndex_Check(h.ptr())) return false;
    const auto index = nb::steal(PyNumber_Index(h.ptr()));
    if (!index.is_valid()) throw nb::python_error();
    out = PyLong_AsLongLong(index.ptr());
    if (out == -1 && PyErr_Occurred()) throw nb::python_error();
    return true;
  }
  static nb::object to(std::int64_t value) { return number(value); }
};

template <>
struct Convert<double> {
  static constexpr auto kName = nb::detail::const_name("float");
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

// Any Python object, kept by reference.
template <>
struct Convert<nb::object> {
  static constexpr auto kName = nb::detail::const_name("typing.Any");
  static bool from(nb::handle h, nb::object& out) {
    out = nb::borrow(h);
    return true;
  }
  static nb::object to(const nb::object& value) { return value; }
};

template <class T>
struct Convert<std::optional<T>> {
  static constexpr auto kName = Convert<T>::kName + nb::detail::const_name(" | None");
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

template <>
struct nanobind::detail::type_caster<tarvomeldric::CircuitState> {
  NB_TYPE_CASTER(tarvomeldric::CircuitState,
                 tarvomeldric::host::Convert<tarvomeldric::CircuitState>::kName)
  static handle from_cpp(tarvomeldric::CircuitState state, rv_policy, cleanup_list*) {
    return tarvomeldric::host::Convert<tarvomeldric::CircuitState>::to(state).release();
  }
};
