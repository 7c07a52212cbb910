#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "host/interpreter/errors.h"
#include "host/records/convert.h"

namespace tarvomeldric::host {

// An HTTP status as Python code gives it: None, or a number, which is made whole.
struct Status {
  nb::object whole = nb::none();

  // Nothing for a number that no status can be, which says as little as none.
  std::optional<std::int64_t> code() const {
    if (whole.is_none()) return std::nullopt;
    int overflow = 0;
    const std::int64_t number = PyLong_AsLongLongAndOverflow(whole.ptr(), &overflow);
    return overflow == 0 ? std::optional(number) : std::nullopt;
  }
};

template <>
struct Convert<Status> {
  static constexpr auto kName = const_name("float | None");
  static bool from(nb::handle h, Status& out) {
    const auto* slots = Py_TYPE(h.ptr())->tp_as_number;
    if (!h.is_none() && !(slots && (slots->nb_index || slots->nb_int))) {
      refuse_argument("status_code", "int or None", h);
    }
    out.whole = h.is_none() ? nb::none() : made(PyNumber_Long(h.ptr()));
    return true;
  }
};

// Converts what was given for the argument `name`, or raises a type error that names it.
template <class T>
T convert_argument(nb::handle given, const char* name) {
  T value{};
  if (!Convert<T>::from(given, value)) refuse_argument(name, Convert<T>::kName.text, given);
  return value;
}

// The T behind a Python object, or a type error that names the argument.
template <class T>
T& require(nb::handle given, const char* name) {
  if (!is_made<T>(given)) refuse_argument(name, kPythonName<T>.text, given);
  return *nb::inst_ptr<T>(given);
}

template <class T>
nb::object object_or_none(const std::optional<T>& given) {
  return given ? nb::object(*given) : nb::none();
}

inline std::size_t text_length(nb::handle text) {
  return static_cast<std::size_t>(PyUnicode_GET_LENGTH(text.ptr()));
}

}  // namespace tarvomeldric::host
