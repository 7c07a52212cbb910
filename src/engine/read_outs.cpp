#include "engine/read_outs.h"

#include <algorithm>
#include <cstdlib>

#include "observability/metric_names.h"
#include "support/text.h"
#include "support/version.h"

namespace tarvomeldric {
namespace {

std::int64_t whole(std::size_t count) { return static_cast<std::int64_t>(count); }

std::string decimal(double value) { return text::fixed(value, 1); }

// As Python's `round` to one decimal does it.
double rounded(double value) { return std::strtod(decimal(value).c_str(), nullptr); }

template <class Entries>
Figures listed(const Entries& entries) {
  Figures figures;
  for (const auto& [name, value] : entries) figures.emplace_back(name, value);
  return figures;
}

std::int64_t at(const CounterValues& counts, Counter counter) {
  return counts[static_cast<std::size_t>(counter)];
}

void append_counts(Figures& figures, const CounterValues& counts, std::size_t from,
                   std::size_t to) {
  for (std::size_t i = from; i < to; ++i) figures.emplace_back(kCounterNames[i], counts[i]);
}

std::string heal_rate(const CounterValues& counts) {
  const auto calls = std::max<std::int64_t>(at(counts, Counter::kCall), 1);
  const double rate =
      static_cast<double>(at(counts, Counter::kHeal)) / static_cast<double>(calls) * 100;
  return decimal(rate) + "%";
}

const char* health_word(ProviderConfig& provider) {
  if (provider.endpoint().api_key.empty()) return "no_key";
  switch (provider.circuit_breaker()->state()) {
    case CircuitState::kOpen:
      return "circuit_open";
    case CircuitState::kHalfOpen:
      return "degraded";
    case CircuitState::kClosed:
      break;
  }
  return provider.healthy() ? "healthy" : "unhealthy";
}

}  // namespace

Figures figures_of(CircuitBreaker& breaker) {
  const CircuitSummary summary = breaker.summary();
  return {{"state", std::string(value_of(summary.state))},
          {"consecutive_fails", summary.consecutive_fails},
          {"trip_count", summary.trip_count},
          {"window_errors", summary.window_errors},
          {"window_total", summary.window_total}};
}

Figures figures_of(RateLimiter& limiter) {
  const RateLimiterFields& fields = limiter.interpreter_locked_fields();
  return {{"tokens_remaining", rounded(fields.tokens)},
          {"max", fields.max_tokens},
          {"refill_rate", fields.refill_rate},
          {"rejected", fields.rejected}};
}

Figures figures_of(FleetRateLimiter& limiter) {
  const FleetRateLimiter::Figures figures = limiter.figures();
  return {{"members", figures.members},
          {"largest_membership", figures.most},
          {"holding", figures.holding},
          {"owed", figures.owed},
          {"connected", figures.connected}};
}

Figures figures_of(Bulkhead& bulkhead) {
  const BulkheadFields& fields = bulkhead.interpreter_locked_fields();
  return {{"active", fields.active}, {"max", fields.max_concurrent}, {"rejected", fields.rejected}};
}

Figures figures_of(ProviderConfig& provider) {
  const ProviderFields fields = provider.snapshot();
  return {{"name", fields.name},
          {"base_url", fields.base_url},
          {"healthy", fields.healthy},
          {"available", provider.is_available()},
          {"health_score", decimal(provider.health_score())},
          {"success", fields.success_count},
          {"fail", fields.fail_count},
          {"avg_latency_ms", decimal(provider.avg_latency())},
          {"circuit", figures_of(*fields.circuit_breaker)},
          {"rate_limiter", figures_of(*fields.rate_limiter)},
          {"bulkhead", figures_of(*fields.bulkhead)},
          {"last_error", std::string(text::first(fields.last_error, kShownErrorCharacters))}};
}

Figures figures_of(const FlywheelLearner& learner) {
  const LearnerStats stats = learner.stats();
  return {{"total_rules", stats.total_rules},
          {"total_records", stats.total_records},
          {"high_confidence_rules", stats.high_confidence_rules},
          {"bootstrap_rules_loaded", stats.bootstrap_rules_loaded},
          {"sync_mode", stats.sync_mode}};
}

Figures figures_of(const MetricsCollector& metrics) {
  const MetricsSnapshot all = metrics.snapshot_all();
  Figures histograms;
  for (const auto& [name, summary] : all.histograms) {
    histograms.emplace_back(name, Figures{{"count", whole(summary.count)},
                                          {"p50", summary.p50},
                                          {"p95", summary.p95},
                                          {"p99", summary.p99},
                                          {"avg", summary.avg}});
  }
  return {{"counters", listed(all.counters)},
          {"gauges", listed(all.gauges)},
          {"histograms", std::move(histograms)}};
}

Figures diagnosis_counts(Diagnoser& diagnoser) {
  return listed(diagnoser.interpreter_locked_fields().stats);
}

Figures diagnosis_latency(const Diagnoser& diagnoser) {
  const auto stats = diagnoser.latency_stats();
  if (!stats) return {};
  return {{"count", whole(stats->count)},
          {"p50", stats->p50},
          {"p95", stats->p95},
          {"avg", stats->avg}};
}

Figures health_document(const MetricsCollector& metrics) {
  const HealthDocument health = metrics.health();
  return {{"status", health.degraded ? "degraded" : "healthy"},
          {"version", kVersion},
          {"uptime_checks", health.calls},
          {"error_count", health.error_count},
          {"metrics_summary", listed(health.summary)}};
}

Figures counter_figures(const EngineCounters& counters) {
  Figures figures;
  append_counts(figures, counters.snapshot(), 0, kCounterNames.size());
  return figures;
}

Figures health_words(const Registry& registry) {
  Figures words;
  for (const auto& [name, provider] : registry.entries()) {
    words.emplace_back(name, health_word(*provider));
  }
  return words;
}

Figures engine_figures(const Surroundings& engine) {
  const CounterValues counts = engine.counters.snapshot();
  Figures providers;
  for (const auto& [name, provider] : engine.registry.entries()) {
    providers.emplace_back(name, figures_of(*provider));
  }
  Figures figures{{"version", kVersion}};
  append_counts(figures, counts, 0, 2);
  figures.emplace_back("heal_rate", heal_rate(counts));
  append_counts(figures, counts, 2, counts.size());
  figures.emplace_back("providers", std::move(providers));
  figures.emplace_back("diagnosis_counts", diagnosis_counts(engine.diagnoser));
  figures.emplace_back("diagnosis_latency_us", diagnosis_latency(engine.diagnoser));
  figures.emplace_back("flywheel", figures_of(engine.learner));
  figures.emplace_back("metrics", figures_of(engine.metrics));
  return figures;
}

Figures loop_figures(const Surroundings& engine) {
  const CounterValues counts = engine.counters.snapshot();
  const auto metric = [&](const char* name) { return engine.metrics.counter(name); };
  Figures phases;
  for (const auto& [_, value] : kMapeKPhases) phases.emplace_back(value, "every_call");
  return {
      {"version", kVersion},
      {"total_calls", at(counts, Counter::kCall)},
      {"mapek_phases", std::move(phases)},
      {"heal_cascade", Figures{{"l1_retry", metric(metric::kHealedByRetry)},
                               {"l2_downgrade", at(counts, Counter::kL2Downgrade)},
                               {"l3_failover", at(counts, Counter::kL3Failover)},
                               {"l4_learned", at(counts, Counter::kL4Learned)}}},
      {"contract_validation", Figures{{"failed_strong_equiv", metric(metric::kContractBroken)},
                                      {"warning_tau_domain", metric(metric::kContractWarning)}}},
      {"semantic_boundaries",
       Figures{{"downgrade_blocked_oob", metric(metric::kDowngradeOutOfBounds)},
               {"failover_blocked_oob", std::int64_t{0}},
               {"drift_fail_loud", metric(metric::kDrift)}}},
      {"flywheel_rules", figures_of(engine.learner)}};
}

}  // namespace tarvomeldric
