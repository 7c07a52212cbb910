#pragma once

#include <cstddef>

#include "engine/call.h"
#include "guards/fleet_rate_limiter.h"
#include "support/figures.h"

namespace tarvomeldric {

inline constexpr std::size_t kShownErrorCharacters = 80;  // of a provider's last error

// What each part says of itself to operators. Any thread; a snapshot of the moment. The figures of
// a limiter and of a bulkhead are read without their locks, which the caller may hold.
Figures figures_of(CircuitBreaker& breaker);
Figures figures_of(RateLimiter& limiter);
Figures figures_of(FleetRateLimiter& limiter);
Figures figures_of(Bulkhead& bulkhead);
Figures figures_of(ProviderConfig& provider);
Figures figures_of(const FlywheelLearner& learner);
Figures figures_of(const MetricsCollector& metrics);

// How often each category and label was diagnosed, and how long it took (nothing before the first).
Figures diagnosis_counts(Diagnoser& diagnoser);
Figures diagnosis_latency(const Diagnoser& diagnoser);
Figures health_document(const MetricsCollector& metrics);

// Of an engine: its counters, each provider's state in a word, everything, and what the loop did.
Figures counter_figures(const EngineCounters& counters);
Figures health_words(const Registry& registry);
Figures engine_figures(const Surroundings& engine);
Figures loop_figures(const Surroundings& engine);

}  // namespace tarvomeldric
