#include "host/signatures.h"

namespace tarvomeldric::host {
namespace {

// `reader` is the function of the signatures' module that reads the signature of such an object.
void bind_signature(nb::handle type, const char* reader) {
  const nb::object getter = nb::cpp_function([reader](nb::handle object) {
    return call(import("tarvomeldric._signatures").attr(reader), object);
  });
  const nb::object property =
      call(nb::handle(reinterpret_cast<PyObject*>(&PyProperty_Type)), getter);
  // The type is closed against the host's setattr. It serves this module alone, whose binding
  // domain is its own, and nobody has seen it yet.
  auto* slots = reinterpret_cast<PyTypeObject*>(type.ptr());
  if (PyDict_SetItemString(slots->tp_dict, "__signature__", property.ptr()) < 0) {
    throw nb::python_error();
  }
  PyType_Modified(slots);
}

}  // namespace

void bind_signatures(nb::handle bound_class, const char* method, nb::handle function) {
  bind_signature(function.type(), "of_function");
  bind_signature(bound_class.type(), "of_class");
  bind_signature(bound_class.attr(method).type(), "of_function");
  bind_signature(call(bound_class).attr(method).type(), "of_bound_method");
}

}  // namespace tarvomeldric::host
