#pragma once

#include "diagnosis/diagnoser.h"
#include "engine/trace.h"
#include "flywheel/learner.h"
#include "guards/bulkhead.h"
#include "guards/circuit_breaker.h"
#include "guards/rate_limiter.h"
#include "host/python.h"
#include "observability/metrics_collector.h"
#include "providers/provider_config.h"

namespace tarvomeldric::host {

// The dictionary forms of the core's records, fresh ones with fixed keys in a fixed order.
nb::dict to_dict(CircuitBreaker& breaker);
nb::dict to_dict(RateLimiter& limiter);
nb::dict to_dict(Bulkhead& bulkhead);
nb::dict to_dict(ProviderConfig& provider);
nb::dict to_dict(const MapeKTrace& trace);
nb::dict to_dict(const LearnedRule& rule);

nb::dict stats_of(Diagnoser& diagnoser);
nb::dict latency_stats_of(const Diagnoser& diagnoser);
nb::dict stats_of(const FlywheelLearner& learner);
nb::dict all_of(const MetricsCollector& metrics);
nb::dict health_of(const MetricsCollector& metrics);
nb::dict span_of(const MetricsCollector& metrics, const std::string& name, nb::handle attrs);

}  // namespace tarvomeldric::host
