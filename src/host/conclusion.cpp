#include "host/conclusion.h"

#include <utility>

#include "host/errors.h"
#include "host/records.h"

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
  result.provider = std::move(answered.provider);
  result.model = std::move(answered.model);
  result.original_provider = std::move(answered.original_provider);
  result.original_model = std::move(answered.original_model);
  result.latency_ms = answered.latency_ms;
  result.downgraded = answered.downgraded;
  result.heal_level = std::move(answered.heal_level);
  result.semantic_domain = value_of(answered.domain);
  result.validation_passed = answered.validation_passed;
  if (answered.validation_passed) result.contract_result = call(state.verdict.attr("to_dict"));
  if (answered.trace) result.mapek_trace = ResultTrace(std::move(*answered.trace));
  return nb::cast(std::move(result));
}

[[noreturn]] void raise_failure(const CallState& state, const CallFailed& failed) {
  switch (failed.kind) {
    case CallFailed::Kind::kProviderError:
      raise_object(state.error);
    case CallFailed::Kind::kOutOfBounds:
      raise_object(call(boundary_violation_type(), from_utf8(failed.message),
                        "domain"_a = from_utf8(failed.domain),
                        "reason"_a = from_utf8(failed.reason)));
    case CallFailed::Kind::kContract: {
      const std::string verdict = text_form(call(state.verdict.attr("to_dict")));
      raise_object(call(contract_violation_type(), from_utf8(failed.message + verdict),
                        "contract_result"_a = state.verdict));
    }
    case CallFailed::Kind::kDrift:
      raise_object(call(contract_violation_type(), from_utf8(failed.message)));
    case CallFailed::Kind::kRefused:
      break;
  }
  throw std::runtime_error(failed.message);
}

}  // namespace

nb::object conclude(CallState& state, CallOutcome& outcome) {
  if (auto* answered = std::get_if<CallAnswered>(&outcome)) return result_of(state, *answered);
  raise_failure(state, std::get<CallFailed>(outcome));
}

}  // namespace tarvomeldric::host
