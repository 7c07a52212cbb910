#include "host/interpreter/signatures.h"

#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

// `reader` reads the attribute of an object of that type.
void bind_attribute(nb::handle type, const char* name, Helper reader) {
  const nb::object getter =
      nb::cpp_function([reader](nb::handle object) { return call(reader, object); });
  const nb::object property =
      call(nb::handle(reinterpret_cast<PyObject*>(&PyProperty_Type)), getter);
  // The type is closed against Python's setattr. It serves this module alone, whose binding
  // domain is its own, and nobody has seen it yet.
  auto* slots = reinterpret_cast<PyTypeObject*>(type.ptr());
  if (PyDict_SetItemString(slots->tp_dict, name, property.ptr()) < 0) {
    throw nb::python_error();
  }
  PyType_Modified(slots);
}

void bind_function_type(nb::handle type, Helper signature_reader) {
  bind_attribute(type, "__signature__", signature_reader);
  bind_attribute(type, "_is_coroutine", Helper::kAsyncioMark);
  bind_attribute(type, "_is_coroutine_marker", Helper::kInspectMark);
}

}  // namespace

void bind_signatures(nb::handle bound_class, const char* method, nb::handle function) {
  bind_attribute(bound_class.type(), "__signature__", Helper::kClassSignature);
  bind_function_type(function.type(), Helper::kFunctionSignature);
  bind_function_type(bound_class.attr(method).type(), Helper::kFunctionSignature);
  bind_function_type(call(bound_class).attr(method).type(), Helper::kMethodSignature);
}

}  // namespace tarvomeldric::host
