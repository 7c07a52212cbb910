#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// The module's own error types, made when it loads; they live as long as the interpreter.
struct ErrorTypes {
  PyObject* api = nullptr;
  PyObject* deadline_exceeded = nullptr;
  PyObject* stream_interrupted = nullptr;
  PyObject* no_provider = nullptr;
  PyObject* providers_busy = nullptr;
  PyObject* all_providers_failed = nullptr;
  PyObject* contract_violation = nullptr;
  PyObject* boundary_violation = nullptr;
};
inline ErrorTypes error_types;

// A type error that names the argument.
[[noreturn]] void refuse_argument(const std::string& name, const char* wanted, nb::handle given);

[[noreturn]] void raise_api_error(const std::string& message, std::optional<std::int64_t> status);
// Raises an exception object again, with the traceback it carries.
[[noreturn]] void raise_object(nb::handle exception);

// Sets Python's error for what a frame of ours threw. For type slots, which the binding library's
// own translation does not reach.
void set_error(const std::exception_ptr& thrown) noexcept;

// Runs a step whose failure changes nothing for the caller; whether it succeeded. What is no
// `Exception`, an interrupt among them, still passes.
template <class F>
bool quietly(F&& step) {
  try {
    std::forward<F>(step)();
    return true;
  } catch (nb::python_error& failure) {
    if (!failure.matches(PyExc_Exception)) throw;
    return false;
  }
}

}  // namespace tarvomeldric::host
