#include "host/interpreter/errors.h"

namespace tarvomeldric::host {
namespace {

PyObject* python_type(nb::exception_type kind) {
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

void refuse_argument(const std::string& name, const char* wanted, nb::handle given) {
  throw nb::type_error((name + " must be " + wanted + ", not " + class_name(given)).c_str());
}

void raise_api_error(const std::string& message, std::optional<std::int64_t> status) {
  raise_object(call(error_types.api, from_utf8(message), status ? number(*status) : nb::none()));
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
    PyErr_SetString(python_type(error.type()), error.what());
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "an unknown error ended the call");
  }
}

}  // namespace tarvomeldric::host
