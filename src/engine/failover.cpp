#include "engine/failover.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "engine/admission.h"
#include "observability/metric_names.h"
#include "providers/models.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr double kAdmissionWaitSeconds = 1.0;  // seconds
constexpr double kAdviceWeight = 30.0;
constexpr double kLatencyBonus = 10.0;
constexpr double kSlowLatencyMs = 2000.0;
constexpr double kLatencyMsPerPoint = 200.0;
constexpr std::string_view kUnhealableDrift = "structure_mismatch_cannot_heal";

class Failover {
 public:
  Failover(const FailoverRequest& request, Surroundings engine, Io& io)
      : request_(request), engine_(engine), io_(io) {}

  Task<CallOutcome> run();

 private:
  using Ended = std::optional<CallOutcome>;

  SemanticDomain domain() const { return request_.facts.classification.domain; }
  std::string category() const { return std::string(value_of(request_.diagnosis.category)); }

  Task<std::vector<NamedProvider>> candidates() const;
  Task<Ended> try_candidate(const NamedProvider& candidate);
  Task<Ended> judge(const NamedProvider& candidate, std::size_t answer_length,
                    std::optional<bool>& validation_passed);
  Task<CallOutcome> break_contract(const NamedProvider& candidate);
  Task<CallOutcome> heal(Target target, double latency_ms, std::optional<bool> validation_passed);
  Task<CallOutcome> give_up();
  Task<void> learn(std::string action, bool success, double latency_ms = 0.0);
  void close_trace(const char* execute_result);

  const FailoverRequest& request_;
  Surroundings engine_;
  Io& io_;
  bool any_failed_ = false;
};

Task<CallOutcome> Failover::run() {
  const std::vector<NamedProvider> ordered = co_await candidates();
  for (const NamedProvider& candidate : ordered) {
    Ended ended = co_await try_candidate(candidate);
    if (ended) co_return std::move(*ended);
  }
  co_return co_await give_up();
}

// Best first. The priority of each is taken once; equals keep the order of registration.
Task<std::vector<NamedProvider>> Failover::candidates() const {
  struct Ranked {
    double priority;
    NamedProvider candidate;
  };
  std::vector<Ranked> ranked;
  const std::string pattern(request_.diagnosis.fault_label());
  std::vector<NamedProvider> available = available_providers(engine_.registry);
  ranked.reserve(available.size());
  for (NamedProvider& candidate : available) {
    if (candidate.name == request_.failed_provider) continue;
    const std::optional<Advice> advice = co_await io_.advise(pattern);
    const double priority = provider_priority(candidate, advice);
    ranked.push_back({priority, std::move(candidate)});
  }
  std::ranges::stable_sort(ranked, std::greater{}, &Ranked::priority);
  std::vector<NamedProvider> ordered;
  ordered.reserve(ranked.size());
  for (Ranked& entry : ranked) ordered.push_back(std::move(entry.candidate));
  co_return ordered;
}

// Nothing when the candidate was skipped or failed, and the next one is to be tried.
Task<Failover::Ended> Failover::try_candidate(const NamedProvider& candidate) {
  ProviderConfig& provider = *candidate.provider;
  Target target{candidate.name, candidate.provider, resolve_model(candidate.name, request_.model)};
  if (!provider.category_circuit_breaker(category())->is_available()) {
    engine_.metrics.inc(metric::kCategoryBlocked);
    co_return std::nullopt;
  }
  std::optional<AdmittedSlot> slot = co_await admit(candidate.provider, io_, kAdmissionWaitSeconds);
  if (!slot) {
    engine_.metrics.inc(metric::kRateLimitedInFailover);
    co_return std::nullopt;
  }
  const double start_s = engine_.clock.monotonic();
  const Attempt tried = co_await io_.execute(target.provider, target.model);
  const double latency_ms = engine_.ms_since(start_s);
  if (!tried.ok()) {
    slot->release();
    provider.record_failure(tried.failure->text, category());
    any_failed_ = true;
    co_await learn("failover:" + candidate.name, false);
    co_return std::nullopt;
  }
  provider.record_success(latency_ms);
  slot->release();
  std::optional<bool> validation_passed;
  Ended broken = co_await judge(candidate, tried.answer_length, validation_passed);
  if (broken) co_return broken;
  co_return co_await heal(std::move(target), latency_ms, validation_passed);
}

// Holds the answer against the contract. A broken one ends the call in an exact domain, and in a
// tolerant one when a declared structure is gone; otherwise it is only counted.
Task<Failover::Ended> Failover::judge(const NamedProvider& candidate, std::size_t answer_length,
                                      std::optional<bool>& validation_passed) {
  if (!io_.has_contract() || domain() == SemanticDomain::kOutOfBounds) co_return std::nullopt;
  validation_passed = io_.validate();
  if (*validation_passed) co_return std::nullopt;
  if (domain() == SemanticDomain::kStrongEquivalence) co_return co_await break_contract(candidate);
  engine_.metrics.inc(metric::kContractWarning);
  const bool structured = io_.contract_has_schema();
  const SemanticClassification drift = engine_.topology.classify_response_drift(
      static_cast<std::int64_t>(request_.prompt_length), static_cast<std::int64_t>(answer_length),
      structured, !structured);
  if (drift.domain != SemanticDomain::kStrongEquivalence || drift.reason != kUnhealableDrift) {
    co_return std::nullopt;
  }
  engine_.metrics.inc(metric::kDrift);
  co_return CallFailed{CallFailed::Kind::kDrift, "Response drift detected: " + drift.reason +
                                                     ". Structure mismatch cannot be healed."};
}

Task<CallOutcome> Failover::break_contract(const NamedProvider& candidate) {
  engine_.counters.count({Counter::kHeal, Counter::kL3Failover});
  co_await learn("failover:" + candidate.name, false);
  engine_.metrics.inc(metric::kContractBroken);
  engine_.metrics.inc(metric::kHealedByFailover);
  close_trace("contract_violation");
  co_return CallFailed{CallFailed::Kind::kContract,
                       "Contract validation failed after L3 failover to " + candidate.name + ": "};
}

Task<CallOutcome> Failover::heal(Target target, double latency_ms,
                                 std::optional<bool> validation_passed) {
  engine_.counters.count({Counter::kHeal, Counter::kL3Failover});
  io_.report({category(), target.name, target.model, "failover", latency_ms,
              request_.diagnosis.sub_category});
  co_await learn("failover:" + target.name, true, latency_ms);
  engine_.metrics.inc(metric::kHealedByFailover);
  engine_.metrics.observe(metric::kFailoverLatency, latency_ms);
  if (domain() == SemanticDomain::kTauNeighborhood) engine_.metrics.inc(metric::kTolerantFailover);
  if (domain() == SemanticDomain::kOutOfBounds) engine_.metrics.inc(metric::kOutOfBoundsFailover);
  close_trace("healed");
  CallAnswered answered{request_.facts.answered_by(target, latency_ms, "l3_failover"),
                        request_.diagnosis, std::nullopt};
  answered.answer.validation_passed = validation_passed;
  if (const MapeKTrace* trace = request_.facts.trace) answered.trace = *trace;
  co_return answered;
}

Task<CallOutcome> Failover::give_up() {
  co_await learn("all_failed", false);
  engine_.metrics.inc(metric::kAllProvidersFailed);
  close_trace("failed");
  if (any_failed_) co_return CallFailed{CallFailed::Kind::kProviderError, {}};
  co_return CallFailed{CallFailed::Kind::kRefused, "All providers failed"};
}

Task<void> Failover::learn(std::string action, bool success, double latency_ms) {
  Outcome outcome{std::string(request_.diagnosis.fault_label()), std::move(action), success,
                  latency_ms};
  co_await io_.learn(std::move(outcome));
}

void Failover::close_trace(const char* execute_result) {
  MapeKTrace* trace = request_.facts.trace;
  if (!trace) return;
  trace->execute_result = execute_result;
  trace->enter(MapeKPhase::kKnowledge, engine_.clock);
  trace->knowledge_recorded = true;
  const double start_s = request_.facts.start_s;
  trace->total_loop_us = start_s != 0 ? engine_.us_since(start_s) : 0.0;
}

}  // namespace

double provider_priority(const NamedProvider& candidate, const std::optional<Advice>& advice) {
  double score = candidate.provider->health_score();
  if (advice && text::contains(advice->action, "failover:" + candidate.name)) {
    score += advice->confidence * kAdviceWeight;
  }
  const double latency_ms = candidate.provider->avg_latency();
  if (latency_ms > 0 && latency_ms < kSlowLatencyMs) {
    score += std::max(0.0, kLatencyBonus - latency_ms / kLatencyMsPerPoint);
  }
  return score;
}

Task<CallOutcome> run_failover(const FailoverRequest& request, Surroundings engine, Io& io) {
  Failover failover(request, engine, io);
  co_return co_await failover.run();
}

}  // namespace tarvomeldric
