#include "host/calls/stream_lease.h"

#include <utility>

#include "host/calls/exchange.h"
#include "host/interpreter/errors.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {

void StreamLease::succeed(double latency_ms) {
  if (!std::exchange(recorded_, true)) provider_->record_success(latency_ms);
  slot_ = {};
}

std::string StreamLease::fail(nb::handle error) {
  const bool ours = PyErr_GivenExceptionMatches(error.ptr(), error_types.api) != 0;
  std::string text = ours ? text_form(error) : failure_message(error, provider_->endpoint());
  if (std::exchange(recorded_, true)) return text;
  const nb::object status = ours ? nb::object(error.attr("status_code")) : nb::none();
  const Diagnosis fault = diagnoser_->diagnose(text, Status{status}.code());
  const std::string category(value_of(fault.category));
  provider_->record_failure(text, category);
  CircuitBreaker* tested = slot_.tested();
  if (tested && tested->state() == CircuitState::kHalfOpen) tested->trip_with_fault(category);
  provider_->category_circuit_breaker(category)->record_failure(provider_->name());
  slot_ = {};
  return text;
}

int StreamLease::traverse(visitproc visit, void* arg) {
  Py_VISIT(diagnoser_.ptr());
  return 0;
}

// What it holds of the provider goes back with the lease itself.
void StreamLease::clear() { drop(diagnoser_); }

}  // namespace tarvomeldric::host
