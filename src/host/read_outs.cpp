#include "host/read_outs.h"

#include <algorithm>
#include <cmath>

#include "host/convert.h"
#include "host/views.h"
#include "support/text.h"
#include "support/version.h"

namespace tarvomeldric::host {
namespace {

constexpr std::size_t kShownError = 80;  // characters

template <class T>
void put_value(nb::dict& dict, const char* key, const T& value) {
  put(dict, key, Convert<T>::to(value));
}

nb::dict counts(const std::vector<std::pair<std::string, std::int64_t>>& entries) {
  nb::dict dict;
  for (const auto& [name, value] : entries) dict[from_utf8(name)] = value;
  return dict;
}

// One decimal, as the host's `round` does it.
nb::object rounded(double value) {
  return nb::module_::import_("builtins").attr("round")(value, 1);
}

}  // namespace

nb::dict to_dict(CircuitBreaker& breaker) {
  const CircuitSummary summary = breaker.summary();
  nb::dict dict;
  put(dict, "state", from_utf8(value_of(summary.state)));
  put_value(dict, "consecutive_fails", summary.consecutive_fails);
  put_value(dict, "trip_count", summary.trip_count);
  put_value(dict, "window_errors", summary.window_errors);
  put_value(dict, "window_total", summary.window_total);
  return dict;
}

// Read without the limiter's lock, like its fields.
nb::dict to_dict(RateLimiter& limiter) {
  const RateLimiterFields& fields = limiter.host_fields();
  nb::dict dict;
  put(dict, "tokens_remaining", rounded(fields.tokens));
  put_value(dict, "max", fields.max_tokens);
  put_value(dict, "refill_rate", fields.refill_rate);
  put_value(dict, "rejected", fields.rejected);
  return dict;
}

nb::dict to_dict(Bulkhead& bulkhead) {
  const BulkheadFields& fields = bulkhead.host_fields();
  nb::dict dict;
  put_value(dict, "active", fields.active);
  put_value(dict, "max", fields.max_concurrent);
  put_value(dict, "rejected", fields.rejected);
  return dict;
}

nb::dict to_dict(ProviderConfig& provider) {
  const ProviderFields fields = provider.snapshot();
  nb::dict dict;
  put_value(dict, "name", fields.name);
  put_value(dict, "base_url", fields.base_url);
  put_value(dict, "healthy", fields.healthy);
  put_value(dict, "available", provider.is_available());
  put_value(dict, "health_score", text::fixed(provider.health_score(), 1));
  put_value(dict, "success", fields.success_count);
  put_value(dict, "fail", fields.fail_count);
  put_value(dict, "avg_latency_ms", text::fixed(provider.avg_latency(), 1));
  put(dict, "circuit", to_dict(*fields.circuit_breaker));
  put(dict, "rate_limiter", to_dict(*fields.rate_limiter));
  put(dict, "bulkhead", to_dict(*fields.bulkhead));
  put_value(dict, "last_error", std::string(text::first(fields.last_error, kShownError)));
  return dict;
}

nb::dict to_dict(const MapeKTrace& trace) {
  nb::dict dict;
  put_value(dict, "request_id", trace.request_id);
  put_value(dict, "phases", trace.phases);
  put_value(dict, "monitor_result", trace.monitor_result);
  put_value(dict, "analyze_result", trace.analyze_result);
  put_value(dict, "plan_result", trace.plan_result);
  put_value(dict, "execute_result", trace.execute_result);
  put_value(dict, "knowledge_recorded", trace.knowledge_recorded);
  put_value(dict, "total_loop_us", trace.total_loop_us);
  return dict;
}

nb::dict to_dict(const LearnedRule& rule) {
  nb::dict dict;
  put_value(dict, "pattern", rule.pattern);
  put_value(dict, "action", rule.action);
  put_value(dict, "success_count", rule.success_count);
  put_value(dict, "fail_count", rule.fail_count);
  put_value(dict, "confidence", rule.confidence);
  put_value(dict, "last_seen", rule.last_seen);
  put_value(dict, "avg_heal_time_ms", rule.avg_heal_time_ms);
  put_value(dict, "source", rule.source);
  return dict;
}

nb::dict stats_of(Diagnoser& diagnoser) { return host_dict(diagnoser.host_fields().stats); }

nb::dict latency_stats_of(const Diagnoser& diagnoser) {
  nb::dict dict;
  const auto stats = diagnoser.latency_stats();
  if (!stats) return dict;
  put_value(dict, "count", static_cast<std::int64_t>(stats->count));
  put_value(dict, "p50", stats->p50);
  put_value(dict, "p95", stats->p95);
  put_value(dict, "avg", stats->avg);
  return dict;
}

nb::dict stats_of(const FlywheelLearner& learner) {
  const LearnerStats stats = learner.stats();
  nb::dict dict;
  put_value(dict, "total_rules", stats.total_rules);
  put_value(dict, "total_records", stats.total_records);
  put_value(dict, "high_confidence_rules", stats.high_confidence_rules);
  put_value(dict, "bootstrap_rules_loaded", stats.bootstrap_rules_loaded);
  put_value(dict, "sync_mode", stats.sync_mode);
  return dict;
}

nb::dict all_of(const MetricsCollector& metrics) {
  const MetricsSnapshot all = metrics.snapshot_all();
  nb::dict gauges;
  for (const auto& [name, value] : all.gauges) gauges[from_utf8(name)] = value;
  nb::dict histograms;
  for (const auto& [name, summary] : all.histograms) {
    nb::dict entry;
    put_value(entry, "count", static_cast<std::int64_t>(summary.count));
    put_value(entry, "p50", summary.p50);
    put_value(entry, "p95", summary.p95);
    put_value(entry, "p99", summary.p99);
    put_value(entry, "avg", summary.avg);
    histograms[from_utf8(name)] = entry;
  }
  nb::dict dict;
  put(dict, "counters", counts(all.counters));
  put(dict, "gauges", gauges);
  put(dict, "histograms", histograms);
  return dict;
}

nb::dict health_of(const MetricsCollector& metrics) {
  const HealthDocument health = metrics.health();
  nb::dict dict;
  put_value(dict, "status", std::string(health.degraded ? "degraded" : "healthy"));
  put_value(dict, "version", std::string(kVersion));
  put_value(dict, "uptime_checks", health.calls);
  put_value(dict, "error_count", health.error_count);
  put(dict, "metrics_summary", counts(health.summary));
  return dict;
}

nb::dict span_of(const MetricsCollector& metrics, const std::string& name, nb::handle attrs) {
  auto counters = metrics.counters();
  std::ranges::sort(counters);
  nb::list events;
  for (const auto& [counter, value] : counters) {
    nb::dict attributes;
    put_value(attributes, "value", value);
    nb::dict event;
    put_value(event, "name", "tm." + counter);
    put(event, "attributes", attributes);
    events.append(event);
  }
  nb::dict service;
  put_value(service, "service.name", std::string("tarvomeldric"));
  put_value(service, "service.version", std::string(kVersion));
  nb::dict resource;
  put(resource, "attributes", service);
  nb::dict status;
  put_value(status, "code", std::int64_t{0});
  nb::dict span;
  put_value(span, "name", name);
  put_value(span, "kind", std::int64_t{1});
  put_value(span, "startTime", static_cast<std::int64_t>(system_clock().wall() * 1e9));
  put(span, "attributes", attrs.is_none() || nb::len(attrs) == 0 ? nb::dict() : nb::borrow(attrs));
  put(span, "status", status);
  put(span, "resource", resource);
  put(span, "events", events);
  return span;
}

}  // namespace tarvomeldric::host
