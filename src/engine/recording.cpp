#include "engine/recording.h"

namespace tarvomeldric {

void record_failure(ProviderConfig& provider, const std::string& text, const std::string& category,
                    const AdmittedSlot* slot) {
  provider.record_failure(text, category);
  CircuitBreaker* tested = slot ? slot->tested() : nullptr;
  if (tested && tested->state() == CircuitState::kHalfOpen) tested->trip_with_fault(category);
}

}  // namespace tarvomeldric
