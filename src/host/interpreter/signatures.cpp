#include "host/interpreter/signatures.h"

#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

// `reader` reads the signature of an object of that type.
void bind_signature(nb::handle type, Helper reader) {
  const nb::object getter =
      nb::cpp_function([reader](nb::handle object) { return call(reader, object); });
  const nb::object property =
      call(nb::handle(reinterpret_cast<PyObject*>(&PyProperty_Type)), getter);
  // The type is closed against Python's setattr. It serves this module alone, whose binding
  // domain is its own, and nobody has seen it yet.
  auto* slots = reinterpret_cast<PyTypeObject*>(type.ptr());
  if (PyDict_SetItemString(slots->tp_dict, "__signature__", property.ptr()) < 0) {
    throw nb::python_error();
  }
  PyType_Modified(slots);
}

}  // namespace

void bind_signatures(nb::handle bound_class, const char* method, nb::handle function) {
  bind_signature(function.type(), Helper::kFunctionSignature);
  bind_signature(bound_class.type(), Helper::kClassSignature);
  bind_signature(bound_class.attr(method).type(), Helper::kFunctionSignature);
  bind_signature(call(bound_class).attr(method).type(), Helper::kMethodSignature);
}

}  // namespace tarvomeldric::host
