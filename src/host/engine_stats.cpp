#include <algorithm>

#include "host/convert.h"
#include "host/engine.h"
#include "host/read_outs.h"
#include "host/records.h"
#include "support/text.h"
#include "support/version.h"

namespace tarvomeldric::host {
namespace {

std::int64_t at(const CounterValues& counts, Counter counter) {
  return counts[static_cast<std::size_t>(counter)];
}

void put_counts(nb::dict& dict, const CounterValues& counts, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) put(dict, kCounterNames[i], number(counts[i]));
}

std::string heal_rate(const CounterValues& counts) {
  const auto calls = std::max<std::int64_t>(at(counts, Counter::kCall), 1);
  const double rate =
      static_cast<double>(at(counts, Counter::kHeal)) / static_cast<double>(calls) * 100;
  return text::fixed(rate, 1) + "%";
}

const char* health_word(ProviderConfig& provider) {
  if (provider.host_fields().api_key.empty()) return "no_key";
  switch (provider.circuit_breaker()->state()) {
    case CircuitState::kOpen:
      return "circuit_open";
    case CircuitState::kHalfOpen:
      return "degraded";
    case CircuitState::kClosed:
      break;
  }
  return provider.host_fields().healthy ? "healthy" : "unhealthy";
}

}  // namespace

nb::dict Engine::read_counters() const {
  const CounterValues counts = counters.snapshot();
  nb::dict dict;
  put_counts(dict, counts, 0, counts.size());
  return dict;
}

nb::dict Engine::health_check() const {
  nb::dict words;
  for (const auto& [name, provider] : HostRegistry(providers).entries()) {
    words[from_utf8(name)] = health_word(*provider);
  }
  return words;
}

nb::dict Engine::stats() const {
  const CounterValues counts = counters.snapshot();
  nb::dict records;
  for (const auto& [name, provider] : HostRegistry(providers).entries()) {
    records[from_utf8(name)] = to_dict(*provider);
  }
  auto& diagnosed = bound<Diagnoser>(diagnoser, "_diagnoser");
  nb::dict dict;
  put(dict, "version", nb::str(kVersion));
  put_counts(dict, counts, 0, 2);
  put(dict, "heal_rate", from_utf8(heal_rate(counts)));
  put_counts(dict, counts, 2, counts.size());
  put(dict, "providers", records);
  put(dict, "diagnosis_counts", stats_of(diagnosed));
  put(dict, "diagnosis_latency_us", latency_stats_of(diagnosed));
  put(dict, "flywheel", stats_of(bound<HostLearner>(learner, "_learner")));
  put(dict, "metrics", all_of(bound<MetricsCollector>(metrics, "_metrics")));
  return dict;
}

nb::dict Engine::mapek_stats() const {
  const auto& collected = bound<MetricsCollector>(metrics, "_metrics");
  const CounterValues counts = counters.snapshot();
  const auto metric = [&](const char* name) { return number(collected.counter(name)); };
  const auto counted = [&](Counter counter) { return number(at(counts, counter)); };
  nb::dict phases;
  for (const auto& [_, value] : kMapeKPhases) put(phases, value, nb::str("every_call"));
  nb::dict cascade;
  put(cascade, "l1_retry", metric("heal_l1_retry"));
  put(cascade, "l2_downgrade", counted(Counter::kL2Downgrade));
  put(cascade, "l3_failover", counted(Counter::kL3Failover));
  put(cascade, "l4_learned", counted(Counter::kL4Learned));
  nb::dict contracts;
  put(contracts, "failed_strong_equiv", metric("contract_validation_failed"));
  put(contracts, "warning_tau_domain", metric("contract_warning_tau_domain"));
  nb::dict boundaries;
  put(boundaries, "downgrade_blocked_oob", metric("downgrade_blocked_oob"));
  put(boundaries, "failover_blocked_oob", number(std::int64_t{0}));
  put(boundaries, "drift_fail_loud", metric("drift_fail_loud"));
  nb::dict dict;
  put(dict, "version", nb::str(kVersion));
  put(dict, "total_calls", counted(Counter::kCall));
  put(dict, "mapek_phases", phases);
  put(dict, "heal_cascade", cascade);
  put(dict, "contract_validation", contracts);
  put(dict, "semantic_boundaries", boundaries);
  put(dict, "flywheel_rules", stats_of(bound<HostLearner>(learner, "_learner")));
  return dict;
}

}  // namespace tarvomeldric::host
