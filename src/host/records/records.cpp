#include "host/records/records.h"

#include "host/records/record.h"

namespace tarvomeldric::host {
namespace {

constexpr Py_ssize_t kShownCharacters = 80;

std::string shown_text(const nb::object& text) {
  const nb::object cut = PyUnicode_Check(text.ptr())
                             ? made(PyUnicode_Substring(text.ptr(), 0, kShownCharacters))
                             : text;
  return to_utf8(host_call([&]() -> nb::object { return nb::repr(cut); }));
}

}  // namespace

nb::object shown_form(const MapeKTrace& trace) {
  return record_table<MapeKTrace>->dict(const_cast<MapeKTrace*>(&trace));
}

nb::object shown_form(const std::vector<AttemptRecord>& attempts) {
  nb::list records;
  for (const AttemptRecord& attempt : attempts) records.append(nb::cast(attempt));
  return nb::tuple(records);
}

std::string summary(const CallResult& result) {
  const Answer& answer = result.answer;
  std::string line = answer.success ? "CallResult(✓" : "CallResult(✗";
  if (!answer.original_provider.empty() && answer.original_provider != answer.provider) {
    line += " " + answer.original_provider + "→";
  }
  line += answer.provider + "/" + answer.model;
  if (!answer.heal_level.empty()) line += " [" + answer.heal_level + "]";
  if (!answer.semantic_domain.empty()) line += " <" + answer.semantic_domain + ">";
  if (answer.validation_passed) line += *answer.validation_passed ? " ✓contract" : " ✗contract";
  return line + ": " + shown_text(result.text) + ")";
}

}  // namespace tarvomeldric::host
