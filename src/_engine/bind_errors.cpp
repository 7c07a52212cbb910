#include "_engine/def.h"
#include "_engine/rooms.h"

namespace tarvomeldric::host {
namespace {

// Every error's text is its message alone, whatever else it carries; that is also what pickling
// hands back to the constructor.
void initialize(nb::handle self, std::string_view message) {
  const nb::str text = from_utf8(message);
  nb::handle(PyExc_Exception).attr("__init__")(self, text);
  self.attr("args") = nb::make_tuple(text);
}

template <class F, class... A>
PyObject* bind_error(nb::module_& module, const char* name, const char* doc, F make,
                     const A&... args) {
  const std::string qualified = to_utf8(module.attr("__name__")) + "." + name;
  PyObject* type = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, PyExc_Exception, nullptr);
  if (!type) throw nb::python_error();
  module.attr(name) = nb::borrow(type);
  const auto bound = detail::method<void>("__init__", make, args...);
  nb::cpp_function_def(bound.function, nb::scope(type), nb::name("__init__"), nb::is_method(),
                       args..., nb::sig(bound.signature.c_str()),
                       "Takes the message and what is to be kept beside it; TypeError for one of "
                       "the wrong type.");
  return type;
}

}  // namespace

void bind_errors(nb::module_& module) {
  error_types.api = bind_error(
      module, "APIError",
      "A provider exchange that failed.\n\nIts text is the message. `status_code` is the HTTP "
      "status, 408 for a\ntime-out, None when no status applies.",
      [](nb::handle self, std::string_view message, const Status& status) {
        initialize(self, message);
        self.attr("status_code") = status.whole;
      },
      arg("message"), arg("status_code") = nb::none());
  error_types.contract_violation = bind_error(
      module, "ContractViolationError",
      "A healed answer that does not hold its contract.\n\n"
      "`contract_result` is the verdict, None when the answer drifted in structure.",
      [](nb::handle self, std::string_view message, nb::handle contract_result) {
        initialize(self, message);
        self.attr("contract_result") = contract_result;
      },
      arg("message"), arg("contract_result") = nb::none());
  error_types.boundary_violation = bind_error(
      module, "SemanticBoundaryViolationError",
      "A call that must not be healed met a fault.\n\n"
      "`domain` and `reason` say why healing was out of bounds.",
      [](nb::handle self, std::string_view message, std::string_view domain,
         std::string_view reason) {
        initialize(self, message);
        self.attr("domain") = from_utf8(domain);
        self.attr("reason") = from_utf8(reason);
      },
      arg("message"), arg("domain") = "", arg("reason") = "");
}

}  // namespace tarvomeldric::host
