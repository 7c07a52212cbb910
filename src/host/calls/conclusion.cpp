#include "host/calls/conclusion.h"

#include <utility>

#include "host/interpreter/errors.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

// The decoded body of that very attempt when the native exchange made it. Healed calls carry none.
nb::object raw_response_of(const CallState& state, const CallAnswered& answered) {
  if (answered.fault) return nb::none();
  return state.raw_response.is_valid() ? state.raw_response : state.native().last_raw_response;
}

nb::object fault_of(const CallState& state, CallAnswered& answered) {
  if (!answered.fault) return nb::none();
  return state.fault.is_valid() ? state.fault : nb::cast(std::move(*answered.fault));
}

nb::object result_of(CallState& state, CallAnswered& answered) {
  CallResult result;
  result.text = state.answer;
  result.raw_response = raw_response_of(state, answered);
  result.fault = fault_of(state, answered);
  result.answer = std::move(answered.answer);
  if (result.answer.validation_passed) {
    result.contract_result = call(state.verdict.attr("to_dict"));
  }
  if (answered.trace) result.mapek_trace = ResultTrace(std::move(*answered.trace));
  return nb::cast(std::move(result));
}

// A fresh error for a call that ended in something else than a provider's own error.
nb::object error_of(const CallState& state, const CallFailed& failed) {
  const nb::str message = from_utf8(failed.message);
  switch (failed.kind) {
    case CallFailed::Kind::kOutOfBounds:
      return call(error_types.boundary_violation, message, "domain"_a = from_utf8(failed.domain),
                  "reason"_a = from_utf8(failed.reason));
    case CallFailed::Kind::kContract: {
      const std::string verdict = text_form(call(state.verdict.attr("to_dict")));
      return call(error_types.contract_violation, from_utf8(failed.message + verdict),
                  "contract_result"_a = state.verdict);
    }
    case CallFailed::Kind::kDrift:
      return call(error_types.contract_violation, message);
    default:
      return call(PyExc_RuntimeError, message);
  }
}

// What was made here names the newest provider's error as its cause; that one is raised as it is.
[[noreturn]] void raise_failure(const CallState& state, const CallFailed& failed) {
  if (failed.kind == CallFailed::Kind::kProviderError) raise_object(state.error);
  const nb::object error = error_of(state, failed);
  if (state.error.is_valid()) {
    PyException_SetCause(error.ptr(), nb::object(state.error).release().ptr());
  }
  raise_object(error);
}

}  // namespace

nb::object conclude(CallState& state, CallOutcome& outcome) {
  if (auto* answered = std::get_if<CallAnswered>(&outcome)) return result_of(state, *answered);
  raise_failure(state, std::get<CallFailed>(outcome));
}

}  // namespace tarvomeldric::host
