#include "host/errors.h"

#include "host/argument.h"

namespace tarvomeldric::host {
namespace {

PyObject* api_error = nullptr;
PyObject* contract_violation = nullptr;
PyObject* boundary_violation = nullptr;

// Every error's text is its message alone, whatever else it carries; that is also what pickling
// hands back to the constructor.
void initialize(nb::handle self, nb::handle message) {
  nb::handle(PyExc_Exception).attr("__init__")(self, message);
  self.attr("args") = nb::make_tuple(message);
}

constexpr const char* kMakeDoc =
    "Takes the message and what is to be kept beside it; TypeError for one of the wrong type.";

void require_text(nb::handle value, const char* name) {
  if (!PyUnicode_Check(value.ptr())) refuse_argument(name, "str", value);
}

PyObject* make_type(nb::module_& module, const char* name, const char* doc) {
  const std::string qualified = to_utf8(module.attr("__name__")) + "." + name;
  PyObject* type = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, PyExc_Exception, nullptr);
  if (!type) throw nb::python_error();
  module.attr(name) = nb::borrow(type);
  return type;
}

void bind_api_error(nb::module_& module) {
  api_error = make_type(module, "APIError",
                        "A provider exchange that failed.\n\n"
                        "Its text is the message. `status_code` is the HTTP status, 408 for a\n"
                        "time-out, None when no status applies.");
  nb::cpp_function_def(
      [](nb::handle self, nb::handle message, nb::handle status) {
        require_text(message, "message");
        const nb::object whole = as_status(status);
        initialize(self, message);
        self.attr("status_code") = whole;
      },
      nb::scope(api_error), nb::name("__init__"), nb::is_method(), arg("message"),
      arg("status_code") = nb::none(),
      nb::sig("def __init__(self, message: str, status_code: float | None = None) -> None"),
      kMakeDoc);
}

void bind_contract_violation(nb::module_& module) {
  contract_violation =
      make_type(module, "ContractViolationError",
                "A healed answer that does not hold its contract.\n\n"
                "`contract_result` is the verdict, None when the answer drifted in structure.");
  nb::cpp_function_def(
      [](nb::handle self, nb::handle message, nb::handle result) {
        require_text(message, "message");
        initialize(self, message);
        self.attr("contract_result") = result;
      },
      nb::scope(contract_violation), nb::name("__init__"), nb::is_method(), arg("message"),
      arg("contract_result") = nb::none(),
      nb::sig("def __init__(self, message: str, contract_result: typing.Any = None) -> None"),
      kMakeDoc);
}

void bind_boundary_violation(nb::module_& module) {
  boundary_violation = make_type(module, "SemanticBoundaryViolationError",
                                 "A call that must not be healed met a fault.\n\n"
                                 "`domain` and `reason` say why healing was out of bounds.");
  nb::cpp_function_def(
      [](nb::handle self, nb::handle message, nb::handle domain, nb::handle reason) {
        require_text(message, "message");
        require_text(domain, "domain");
        require_text(reason, "reason");
        initialize(self, message);
        self.attr("domain") = domain;
        self.attr("reason") = reason;
      },
      nb::scope(boundary_violation), nb::name("__init__"), nb::is_method(), arg("message"),
      arg("domain") = "", arg("reason") = "",
      nb::sig("def __init__(self, message: str, domain: str = '', reason: str = '') -> None"),
      kMakeDoc);
}

PyObject* host_type(nb::exception_type kind) {
  switch (kind) {
    case nb::exception_type::type_error:
      return PyExc_TypeError;
    case nb::exception_type::value_error:
      return PyExc_ValueError;
    case nb::exception_type::index_error:
      return PyExc_IndexError;
    case nb::exception_type::key_error:
      return PyExc_KeyError;
    default:
      return PyExc_RuntimeError;
  }
}

}  // namespace

nb::handle api_error_type() { return api_error; }
nb::handle contract_violation_type() { return contract_violation; }
nb::handle boundary_violation_type() { return boundary_violation; }

nb::object as_status(nb::handle status) {
  if (status.is_none()) return nb::none();
  const auto* slots = Py_TYPE(status.ptr())->tp_as_number;
  if (!slots || !(slots->nb_index || slots->nb_int)) {
    refuse_argument("status_code", "int or None", status);
  }
  auto whole = nb::steal(PyNumber_Long(status.ptr()));
  if (!whole.is_valid()) throw nb::python_error();
  return whole;
}

void bind_errors(nb::module_& module) {
  bind_api_error(module);
  bind_contract_violation(module);
  bind_boundary_violation(module);
}

void raise_api_error(const std::string& message, std::optional<std::int64_t> status) {
  raise_object(call(api_error_type(), from_utf8(message), status ? number(*status) : nb::none()));
}

void raise_object(nb::handle exception) {
  PyErr_SetObject(exception.type().ptr(), exception.ptr());
  throw nb::python_error();
}

void set_error(const std::exception_ptr& thrown) noexcept {
  try {
    std::rethrow_exception(thrown);
  } catch (nb::python_error& error) {
    error.restore();
  } catch (const nb::builtin_exception& error) {
    PyErr_SetString(host_type(error.type()), error.what());
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "an unknown error ended the call");
  }
}

}  // namespace tarvomeldric::host
