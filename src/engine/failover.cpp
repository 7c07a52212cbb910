#include "engine/failover.h"

#include <algorithm>
#include <utility>

#include "observability/metric_names.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr double kAdmissionWaitSeconds = 1.0;
constexpr double kAdviceWeight = 30.0;
constexpr double kLatencyBonus = 10.0;
constexpr double kSlowLatencyMs = 2000.0;
constexpr double kLatencyMsPerPoint = 200.0;
constexpr std::string_view kUnhealableDrift = "structure_mismatch_cannot_heal";

}  // namespace

Task<Healed> Failover::at_once(Diagnosis fault) {
  co_return co_await go_through(std::move(fault), Patience::kNone);
}

Task<Healed> Failover::in_turn(Diagnosis fault) {
  co_return co_await go_through(std::move(fault), Patience::kSome);
}

Task<Healed> Failover::go_through(Diagnosis fault, Patience patience) {
  if (!pass_.state.may_send()) co_return std::nullopt;
  fault_ = std::move(fault);
  const std::vector<NamedProvider> ordered = co_await candidates();
  for (const NamedProvider& candidate : ordered) {
    Healed ended = co_await try_candidate(candidate, patience);
    if (ended) co_return ended;
    if (!pass_.state.may_send()) break;
  }
  co_return std::nullopt;
}

// Best first, and those last who asked to be left alone. The priority of each is taken once; equals
// keep the order of registration.
Task<std::vector<NamedProvider>> Failover::candidates() const {
  struct Ranked {
    double priority;
    NamedProvider candidate;
  };
  std::vector<Ranked> ranked;
  const std::string pattern(fault_.fault_label());
  std::vector<NamedProvider> available = pass_.candidates.available(engine_.registry);
  ranked.reserve(available.size());
  for (NamedProvider& candidate : available) {
    if (asked_.contains(candidate.name)) continue;
    double priority = 0.0;
    if (!pass_.candidates.ordered()) {
      std::optional<Advice> advice;
      co_await pass_.io.advise(pattern, advice);
      priority = provider_priority(candidate, advice);
    }
    ranked.push_back({priority, std::move(candidate)});
  }
  std::ranges::stable_sort(ranked, std::greater{}, &Ranked::priority);
  std::stable_partition(ranked.begin(), ranked.end(), [&](const Ranked& entry) {
    return pass_.left_alone_s(entry.candidate.provider) <= 0;
  });
  std::vector<NamedProvider> ordered;
  ordered.reserve(ranked.size());
  for (Ranked& entry : ranked) ordered.push_back(std::move(entry.candidate));
  co_return ordered;
}

// Whether the candidate may be asked now, or after the time for which it wants to be left alone.
Task<bool> Failover::wait_for(const NamedProvider& candidate, Patience patience) {
  const double alone_s = pass_.left_alone_s(candidate.provider);
  if (alone_s <= 0) co_return true;
  if (patience == Patience::kNone) co_return false;
  const std::optional<double> wait_s = pass_.state.wait_s(alone_s);
  if (!wait_s) co_return false;
  const bool waited = co_await pass_.sleep(*wait_s, "retry_after");
  co_return waited;
}

// Nothing when the candidate was skipped or failed, and the next one is to be tried.
Task<Healed> Failover::try_candidate(const NamedProvider& candidate, Patience patience) {
  const bool may_be_asked = co_await wait_for(candidate, patience);
  if (!may_be_asked) co_return std::nullopt;
  const Target target = pass_.candidates.target(candidate);
  if (!target.provider->category_circuit_breaker(category())->is_available()) {
    engine_.metrics.inc(metric::kCategoryBlocked);
    pass_.tell<RefusalEvent>(target.name, "category_breaker");
    co_return std::nullopt;
  }
  const double wait_s = patience == Patience::kNone ? 0.0 : kAdmissionWaitSeconds;
  std::optional<AdmittedSlot> slot = co_await pass_.admit(target, wait_s);
  if (!slot) {
    engine_.metrics.inc(metric::kRateLimitedInFailover);
    co_return std::nullopt;
  }
  Tried tried;
  const bool sent = co_await pass_.attempt(target, tried, pass_.judges_whole(true));
  if (!sent) co_return std::nullopt;
  pass_.settle(target, tried, *slot);
  asked_.insert(target.name);
  if (tried.ok()) {
    Healed broken = co_await judge(target, tried);
    if (broken) co_return broken;
    co_return co_await heal(target, tried);
  }
  any_failed_ = true;
  if (tried.cut) co_return std::nullopt;
  if (tried.is_providers_fault())
    pass_.record_failure(target, tried.failure->text, category(), &*slot);
  slot.reset();
  co_await learn("failover:" + target.name, false);
  co_return std::nullopt;
}

// Holds the answer against the contract. A broken one ends the call in an exact domain, and in a
// tolerant one when a declared structure is gone; otherwise it is only counted.
Task<Healed> Failover::judge(const Target& target, Tried& tried) {
  if (domain() == SemanticDomain::kOutOfBounds) co_return std::nullopt;
  if (!pass_.holds_contract("Contract validation failed after L3 failover to " + target.name + ": ",
                            tried.validation_passed)) {
    engine_.counters.count({Counter::kHeal, Counter::kL3Failover});
    co_await learn("failover:" + target.name, false);
    engine_.metrics.inc(metric::kContractBroken);
    engine_.metrics.inc(metric::kHealedByFailover);
    close_trace("contract_violation");
    co_return CallFailed{CallFailed::Kind::kNewestError, {}};
  }
  if (tried.validation_passed.value_or(true)) co_return std::nullopt;
  const bool structured = pass_.io.contract_has_schema();
  const SemanticClassification drift = engine_.topology.classify_response_drift(
      static_cast<std::int64_t>(pass_.request.prompt_length),
      static_cast<std::int64_t>(tried.answer_length), structured, !structured);
  if (drift.domain != SemanticDomain::kStrongEquivalence || drift.reason != kUnhealableDrift) {
    co_return std::nullopt;
  }
  engine_.metrics.inc(metric::kDrift);
  co_return CallFailed{CallFailed::Kind::kDrift, "Response drift detected: " + drift.reason +
                                                     ". Structure mismatch cannot be healed."};
}

Task<CallOutcome> Failover::heal(Target target, const Tried& tried) {
  engine_.counters.count({Counter::kHeal, Counter::kL3Failover});
  pass_.io.report(
      {category(), target.name, target.model, "failover", tried.latency_ms, fault_.sub_category});
  co_await learn("failover:" + target.name, true, tried.latency_ms);
  engine_.metrics.inc(metric::kHealedByFailover);
  engine_.metrics.observe(metric::kFailoverLatency, tried.latency_ms);
  if (domain() == SemanticDomain::kTauNeighborhood) engine_.metrics.inc(metric::kTolerantFailover);
  if (domain() == SemanticDomain::kOutOfBounds) engine_.metrics.inc(metric::kOutOfBoundsFailover);
  close_trace("healed");
  pass_.tell<HealEvent>(target.name, target.model, "l3_failover",
                        std::string(fault_.fault_label()));
  CallAnswered answered{pass_.facts.answered_by(target, tried.latency_ms, "l3_failover"), fault_};
  answered.answer.validation_passed = tried.validation_passed;
  co_return answered;
}

Task<CallOutcome> Failover::give_up(Diagnosis fault) {
  fault_ = std::move(fault);
  if (pass_.state.ended_by_deadline() || pass_.state.ended_by_count()) {
    close_trace("failed");
    co_return pass_.state.ended_by_deadline() ? pass_.out_of_time() : pass_.out_of_requests();
  }
  co_await learn("all_failed", false);
  engine_.metrics.inc(metric::kAllProvidersFailed);
  close_trace("failed");
  if (any_failed_ || is_bad_answer(fault_))
    co_return CallFailed{CallFailed::Kind::kNewestError, {}};
  co_return CallFailed{CallFailed::Kind::kAllFailed, "All providers failed"};
}

Task<void> Failover::learn(std::string action, bool success, double latency_ms) {
  co_await pass_.learn(std::string(fault_.fault_label()), std::move(action), success, latency_ms);
}

void Failover::close_trace(const char* execute_result) {
  MapeKTrace* trace = pass_.facts.trace;
  if (!trace) return;
  trace->execute_result = execute_result;
  trace->enter(MapeKPhase::kKnowledge, engine_.clock);
  trace->knowledge_recorded = true;
  const double start_s = pass_.facts.start_s;
  trace->total_loop_us = start_s != 0 ? engine_.us_since(start_s) : 0.0;
}

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

Task<void> run_failover(const FailoverRequest& request, Surroundings engine, Io& io,
                        CallOutcome& outcome) {
  Pass pass(request.call, engine, io, request.facts);
  Failover failover(pass, request.failed_provider);
  Healed healed;
  try {
    healed = co_await failover.in_turn(request.diagnosis);
    if (!healed) healed = co_await failover.give_up(request.diagnosis);
  } catch (...) {
    pass.tell_end(nullptr);
    throw;
  }
  pass.tell_end(&*healed);
  outcome = std::move(*healed);
}

}  // namespace tarvomeldric
