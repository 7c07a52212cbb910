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

// A view of an engine says in `attempts` what requests were sent; elsewhere that is empty.
PyObject* new_error(nb::module_& module, const char* name, const char* doc, PyObject* base) {
  const std::string qualified = to_utf8(module.attr("__name__")) + "." + name;
  nb::dict members;
  if (!PyObject_HasAttrString(base, "attempts")) put(members, "attempts", nb::tuple());
  PyObject* type = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base, members.ptr());
  if (!type) throw nb::python_error();
  module.attr(name) = nb::borrow(type);
  return type;
}

template <class F, class... A>
PyObject* bind_error(nb::module_& module, const char* name, const char* doc, F make, PyObject* base,
                     const A&... args) {
  PyObject* type = new_error(module, name, doc, base);
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
      PyExc_Exception, arg("message"), arg("status_code") = nb::none());
  error_types.deadline_exceeded =
      new_error(module, "DeadlineExceeded",
                "The time that a policy gives a whole call is over.\n\n"
                "`status_code` is 408; the newest error on the way is the cause.",
                error_types.api);
  error_types.stream_interrupted = bind_error(
      module, "StreamInterrupted",
      "An answer broke off after its first words.\n\n"
      "`text` is what came of it, `provider` and `model` are who gave it; `status_code` is None.\n"
      "Nothing is said twice: whether to ask again is up to the caller.",
      [](nb::handle self, std::string_view message, std::string_view text,
         std::string_view provider, std::string_view model) {
        initialize(self, message);
        self.attr("status_code") = nb::none();
        self.attr("text") = from_utf8(text);
        self.attr("provider") = from_utf8(provider);
        self.attr("model") = from_utf8(model);
      },
      error_types.api, arg("message"), arg("text") = "", arg("provider") = "", arg("model") = "");
  PyObject* refused =
      new_error(module, "CallRefused", "Nobody took a call that was made through a view.",
                PyExc_RuntimeError);
  error_types.no_provider =
      new_error(module, "NoProviderAvailable", "Nobody could be asked.", refused);
  error_types.providers_busy =
      new_error(module, "ProvidersBusy", "Every provider was at its limit for requests.", refused);
  error_types.all_providers_failed =
      new_error(module, "AllProvidersFailed",
                "Nobody was left to be asked after a fault, which is the cause.", refused);
  error_types.contract_violation = bind_error(
      module, "ContractViolationError",
      "A healed answer that does not hold its contract.\n\n"
      "`contract_result` is the verdict, None when the answer drifted in structure.",
      [](nb::handle self, std::string_view message, nb::handle contract_result) {
        initialize(self, message);
        self.attr("contract_result") = contract_result;
      },
      PyExc_Exception, arg("message"), arg("contract_result") = nb::none());
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
      PyExc_Exception, arg("message"), arg("domain") = "", arg("reason") = "");
}

}  // namespace tarvomeldric::host
