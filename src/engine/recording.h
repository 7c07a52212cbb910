#pragma once

#include <optional>
#include <string>
#include <utility>

#include "engine/admission.h"
#include "engine/events.h"
#include "providers/provider_config.h"

namespace tarvomeldric {

// Counts a failed request against its provider. One that tested a half-open breaker, for which
// `slot` has the leave, opens it again, whatever the thresholds say. `slot` may be null.
void record_failure(ProviderConfig& provider, const std::string& text, const std::string& category,
                    const AdmittedSlot* slot);

// Runs what may move the breaker of a provider, which the call knows by `name`; the event of the
// move, if there was one.
template <class Record>
std::optional<BreakerEvent> breaker_move(ProviderConfig& provider, const std::string& name,
                                         const std::string& call_id, Record&& record) {
  const BreakerPtr breaker = provider.circuit_breaker();
  const CircuitState before = breaker->standing_state();
  std::forward<Record>(record)();
  const CircuitState after = breaker->standing_state();
  if (before == after) return std::nullopt;
  return BreakerEvent{call_id, name, std::string(value_of(before)), std::string(value_of(after))};
}

}  // namespace tarvomeldric
