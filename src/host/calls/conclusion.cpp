#include "host/calls/conclusion.h"

#include <utility>

#include "host/interpreter/errors.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

constexpr long kRequestTimeout = 408;

// The decoded body of that very attempt when the native exchange made it. Healed calls carry none.
nb::object raw_response_of(const CallState& state, const CallAnswered& answered) {
  if (answered.fault) return nb::none();
  return state.raw_response.is_valid() ? state.raw_response : state.native().last_raw_response;
}

nb::object fault_of(const CallState& state, CallAnswered& answered) {
  if (!answered.fault) return nb::none();
  return state.fault.is_valid() ? state.fault : nb::cast(std::move(*answered.fault));
}

ShownLate<MapeKTrace> trace_of(const CallState& state) {
  if (state.trace) return ShownLate<MapeKTrace>(state.trace);
  const nb::handle given = state.given_trace;
  if (!given.is_valid() || given.is_none()) return {};
  return ShownLate<MapeKTrace>(std::make_shared<MapeKTrace>(*nb::inst_ptr<MapeKTrace>(given)));
}

nb::object result_of(CallState& state, CallAnswered& answered) {
  CallResult result;
  result.text = state.answer;
  result.raw_response = raw_response_of(state, answered);
  result.response = state.response;
  result.attempts =
      ShownLate(std::make_shared<const std::vector<AttemptRecord>>(std::move(state.attempts)));
  result.fault = fault_of(state, answered);
  result.answer = std::move(answered.answer);
  if (result.answer.validation_passed) {
    result.contract_result = call(state.verdict.attr("to_dict"));
  }
  result.mapek_trace = trace_of(state);
  return nb::cast(std::move(result));
}

// Calls on the engine itself are refused with a RuntimeError and nothing finer.
PyObject* refusal_type(const CallState& state, CallFailed::Kind kind) {
  if (!state.policy.is_valid()) return PyExc_RuntimeError;
  switch (kind) {
    case CallFailed::Kind::kNoProvider:
      return error_types.no_provider;
    case CallFailed::Kind::kBusy:
      return error_types.providers_busy;
    default:
      return error_types.all_providers_failed;
  }
}

// A fresh error for a call that ended in something else than the newest error on the way.
nb::object error_of(const CallState& state, const CallFailed& failed) {
  const nb::str message = from_utf8(failed.message);
  switch (failed.kind) {
    case CallFailed::Kind::kOutOfBounds:
      return call(error_types.boundary_violation, message, "domain"_a = from_utf8(failed.domain),
                  "reason"_a = from_utf8(failed.reason));
    case CallFailed::Kind::kDrift:
      return call(error_types.contract_violation, message);
    case CallFailed::Kind::kDeadline: {
      const std::string seconds = text_form(number(*state.asked_policy().deadline_s));
      return call(error_types.deadline_exceeded, from_utf8("Deadline of " + seconds + "s exceeded"),
                  kRequestTimeout);
    }
    default:
      return call(refusal_type(state, failed.kind), message);
  }
}

// Through a view, an error that was made here tells of the requests; one that a replacement of the
// execution raised travels as it is.
[[noreturn]] void raise_failure(CallState& state, const CallFailed& failed) {
  nb::object error = state.error;
  bool own = state.own_error;
  const nb::object& reply = state.exchange.reply;
  if (state.relayed.is_valid() && error.is_valid() && reply.is_valid()) {
    error.attr("_reply") = reply;
  }
  if (failed.kind != CallFailed::Kind::kNewestError) {
    error = error_of(state, failed);
    own = true;
    if (state.error.is_valid()) {
      PyException_SetCause(error.ptr(), nb::object(state.error).release().ptr());
    }
  }
  if (own && state.policy.is_valid()) {
    error.attr("attempts") = shown_form(state.attempts);
  }
  raise_object(error);
}

}  // namespace

nb::object conclude(CallState& state, CallOutcome& outcome) {
  if (auto* answered = std::get_if<CallAnswered>(&outcome)) return result_of(state, *answered);
  raise_failure(state, std::get<CallFailed>(outcome));
}

}  // namespace tarvomeldric::host
