#include "host/calls/stream_lease.h"

#include <utility>

#include "engine/recording.h"
#include "host/calls/call_io.h"
#include "host/calls/exchange.h"
#include "host/calls/observation.h"
#include "host/calls/reply.h"
#include "host/interpreter/errors.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {

StreamLease::~StreamLease() {
  if (!engine_.is_valid()) return;
  error_scope keep;
  try {
    tell_end("abandoned", nb::none());
  } catch (...) {
    set_error(std::current_exception());
    PyErr_WriteUnraisable(nullptr);
  }
}

void StreamLease::succeed(double latency_ms) {
  if (!std::exchange(recorded_, true)) {
    return record([&] { provider_->record_success(latency_ms); });
  }
  slot_ = {};
}

std::string StreamLease::fail(nb::handle error) {
  const bool ours = PyErr_GivenExceptionMatches(error.ptr(), error_types.api) != 0;
  std::string text = ours ? text_form(error) : failure_message(error, provider_->endpoint());
  if (std::exchange(recorded_, true)) return text;
  const nb::object status = ours ? nb::object(error.attr("status_code")) : nb::none();
  const Diagnosis fault = diagnoser_->diagnose(text, Status{status}.code());
  const std::string category(value_of(fault.category));
  record([&] {
    record_failure(*provider_, text, category, &slot_);
    provider_->category_circuit_breaker(category)->record_failure(provider_->name());
  });
  tell(FaultEvent{end_.call_id, provider_->name(), category, std::string(fault.fault_label())});
  return text;
}

template <class Record>
void StreamLease::record(Record&& record) {
  const auto moved =
      breaker_move(*provider_, provider_->name(), end_.call_id, std::forward<Record>(record));
  slot_ = {};
  if (moved) tell(*moved);
}

void StreamLease::owe(nb::object engine, EndEvent end) {
  engine_ = std::move(engine);
  end_ = std::move(end);
  owed_since_s_ = system_clock().monotonic();
}

void StreamLease::tell_end(const std::string& outcome, nb::handle usage) {
  end_.outcome = outcome;
  end_.duration_s += system_clock().monotonic() - owed_since_s_;
  end_.tokens = tokens_in(usage);
  tell(end_);
  drop(engine_);
}

void StreamLease::tell(const CallEvent& event) const {
  const nb::object object = engine_;
  if (!object.is_valid()) return;
  const auto& engine = *nb::inst_ptr<Engine>(object);
  if (is_observed(engine)) tell_observers(engine, event);
}

}  // namespace tarvomeldric::host
