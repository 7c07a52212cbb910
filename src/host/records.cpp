#include "host/records.h"

#include "host/read_outs.h"

namespace tarvomeldric::host {
namespace {

constexpr Py_ssize_t kShownCharacters = 80;

std::string shown_text(const nb::object& text) {
  const nb::object cut = PyUnicode_Check(text.ptr())
                             ? nb::steal(PyUnicode_Substring(text.ptr(), 0, kShownCharacters))
                             : text;
  return to_utf8(host_call([&]() -> nb::object { return nb::repr(cut); }));
}

}  // namespace

// Making the dictionary may run the garbage collector, and with it somebody who asks for the same
// trace.
nb::object ResultTrace::shown() const {
  if (const auto trace = trace_) {
    nb::dict dict = to_dict(*trace);
    if (trace_) shown_ = std::move(dict);
    trace_.reset();
  }
  return shown_;
}

std::string summary(const CallResult& result) {
  std::string line = result.success ? "CallResult(✓" : "CallResult(✗";
  if (!result.original_provider.empty() && result.original_provider != result.provider) {
    line += " " + result.original_provider + "→";
  }
  line += result.provider + "/" + result.model;
  if (!result.heal_level.empty()) line += " [" + result.heal_level + "]";
  if (!result.semantic_domain.empty()) line += " <" + result.semantic_domain + ">";
  if (result.validation_passed) line += *result.validation_passed ? " ✓contract" : " ✗contract";
  return line + ": " + shown_text(result.text) + ")";
}

}  // namespace tarvomeldric::host
