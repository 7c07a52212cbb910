#include "engine/live_figures.h"

#include <string>

#include "engine/read_outs.h"
#include "support/samples.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

// Nothing of a provider that has not answered yet.
Figures latency_figures(const ProviderFields& fields) {
  if (fields.recent_latencies_ms.empty()) return {};
  const auto& newest = fields.recent_latencies_ms;
  const SortedSamples sorted({newest.begin(), newest.end()});
  return {{"p50", sorted.median()}, {"p95", sorted.quantile(0.95)}};
}

Figures live_figures(const ProviderConfig& provider) {
  const ProviderFields fields = provider.snapshot();
  const CircuitBreaker& breaker = *fields.circuit_breaker;
  const BulkheadFields slots = fields.bulkhead->snapshot();
  return {{"healthy", fields.healthy},
          {"circuit", std::string(value_of(breaker.standing_state()))},
          {"cooldown_left", breaker.cooldown_left_s()},
          {"left_alone", provider.left_alone_s()},
          {"slots", Figures{{"used", slots.active}, {"of", slots.max_concurrent}}},
          {"tokens", Figures{{"left", fields.rate_limiter->level()},
                             {"of", fields.rate_limiter->snapshot().max_tokens}}},
          {"success", fields.success_count},
          {"fail", fields.fail_count},
          {"latency_ms", latency_figures(fields)},
          {"last_error", std::string(text::first(fields.last_error, kShownErrorCharacters))}};
}

}  // namespace

Figures live_figures(const Registry& registry) {
  Figures figures;
  for (const auto& [name, provider] : registry.entries()) {
    figures.emplace_back(name, live_figures(*provider));
  }
  return figures;
}

Figures figures_of(const RecentCall& call) {
  return {{"number", call.number},
          {"id", call.id},
          {"model", call.model},
          {"start", call.start_s},
          {"duration", call.duration_s},
          {"outcome", call.outcome},
          {"heal_level", call.heal_level},
          {"fault", call.fault},
          {"steps_left_out", call.steps_left_out}};
}

Figures figures_of(const CallStep& step) {
  return {{"kind", step.kind},
          {"provider", step.provider},
          {"model", step.model},
          {"reason", step.reason},
          {"start", step.start_s},
          {"duration", step.duration_s},
          {"status", step.status.value_or(0)}};
}

Figures figures_of(const HistoryStep& step) {
  Figures latency;
  if (step.p50_s && step.p95_s) latency = {{"p50", *step.p50_s}, {"p95", *step.p95_s}};
  return {{"calls", step.calls},
          {"healed", step.healed},
          {"failed", step.failed},
          {"faults", step.faults},
          {"latency", latency}};
}

}  // namespace tarvomeldric
