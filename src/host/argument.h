#pragma once

#include <cstddef>
#include <string>

#include "host/convert.h"

namespace tarvomeldric::host {

[[noreturn]] inline void refuse_argument(const char* name, const char* wanted, nb::handle given) {
  throw nb::type_error(
      (std::string(name) + " must be " + wanted + ", not " + class_name(given)).c_str());
}

// Converts what was given for the argument `name`, or raises a type error that names it.
template <class T>
T convert_argument(nb::handle given, const char* name) {
  T value{};
  if (!Convert<T>::from(given, value)) refuse_argument(name, Convert<T>::kName.text, given);
  return value;
}

inline nb::object require_text(nb::handle given, const char* name) {
  if (!PyUnicode_Check(given.ptr())) refuse_argument(name, "str", given);
  return nb::borrow(given);
}

inline nb::object require_text_or_none(nb::handle given, const char* name) {
  if (!given.is_none() && !PyUnicode_Check(given.ptr()))
    refuse_argument(name, "str or None", given);
  return nb::borrow(given);
}

template <class T>
nb::object require(nb::handle given, const char* name) {
  if (!is_made<T>(given)) refuse_argument(name, HostName<T>::value.text, given);
  return nb::borrow(given);
}

template <class T>
nb::object require_or_none(nb::handle given, const char* name) {
  return given.is_none() ? nb::none() : require<T>(given, name);
}

inline std::size_t text_length(nb::handle text) {
  return static_cast<std::size_t>(PyUnicode_GET_LENGTH(text.ptr()));
}

// A parameter of a bound function whose type error names the argument. The binding library's own
// error names none, so the conversion is left to the function's body, where `get` makes it.
template <class T, Literal Name>
struct Arg {
  nb::handle given;

  T get() const { return convert_argument<T>(given, Name.value); }
  operator T() const { return get(); }  // NOLINT(google-explicit-constructor)
};

// The annotation that belongs to an `Arg`: whatever is given reaches the body, None included.
inline auto arg(const char* name) { return nb::arg(name).none(); }

}  // namespace tarvomeldric::host

namespace nanobind::detail {

template <class T, tarvomeldric::host::Literal Label>
struct type_caster<tarvomeldric::host::Arg<T, Label>> {
  using Argument = tarvomeldric::host::Arg<T, Label>;
  NB_TYPE_CASTER(Argument, tarvomeldric::host::Convert<T>::kName)
  bool from_python(handle src, std::uint32_t, cleanup_list*) noexcept {
    value.given = src;
    return true;
  }
};

}  // namespace nanobind::detail
