#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "host/python.h"

namespace tarvomeldric::host {

// The module's own error types; they live as long as the interpreter.
nb::handle api_error_type();
nb::handle contract_violation_type();
nb::handle boundary_violation_type();

// A status as the host gave it: None, or the whole number that it is converted to. A type error
// that names `status_code` for anything that is no number.
nb::object as_status(nb::handle status);

void bind_errors(nb::module_& module);

[[noreturn]] void raise_api_error(const std::string& message, std::optional<std::int64_t> status);
// Raises an exception object again, with the traceback it carries.
[[noreturn]] void raise_object(nb::handle exception);

// Sets the host's error for what a core frame threw. For the slots, which the binding library's own
// translation does not reach.
void set_error(const std::exception_ptr& thrown) noexcept;

}  // namespace tarvomeldric::host
