#include "engine/cascade.h"

#include <cmath>
#include <optional>
#include <utility>

#include "engine/failover.h"
#include "observability/metric_names.h"
#include "providers/limits.h"
#include "providers/models.h"

namespace tarvomeldric {
namespace {

constexpr double kFirstDelaySeconds = 1.0;  // seconds

// One level of healing on the provider that failed, as far as it differs from the other one.
struct Level {
  const char* heal_level;  // in the result
  const char* action;      // as the telemetry hears it
  const char* success_metric;
  const char* contract_message;
  std::optional<Counter> counter;  // beside the one for every healed call
};

constexpr const char* kRetryBroken = "Contract validation failed after L1 retry: ";
constexpr const char* kDowngradeBroken = "Contract validation failed after L2 downgrade: ";

class Cascade {
 public:
  Cascade(const CallRequest& request, Surroundings engine, Io& io, CallFacts& facts,
          FailedAttempt failed)
      : request_(request),
        engine_(engine),
        io_(io),
        facts_(facts),
        target_(std::move(failed.target)),
        start_s_(failed.start_s),
        failure_(std::move(failed.failure)) {}

  Task<CallOutcome> run();

 private:
  using Healed = std::optional<CallOutcome>;

  ProviderConfig& provider() const { return *target_.provider; }
  SemanticDomain domain() const { return facts_.classification.domain; }

  void analyze();
  Task<CallOutcome> block();
  Task<Healed> retry();
  Task<Healed> downgrade();
  Task<CallOutcome> heal(Level level, Diagnosis fault, std::string action, double latency_ms);
  Task<bool> breaks_contract(std::string label, std::string action,
                             std::optional<bool>& validation_passed);
  Task<void> learn(std::string label, std::string action, bool success, double latency_ms = 0.0);
  Task<void> fail(const ApiFailure& failure, std::string category, std::string label,
                  std::string action);
  double delay_before(int attempt) const;
  Task<CallOutcome> fail_over();

  const CallRequest& request_;
  Surroundings engine_;
  Io& io_;
  CallFacts& facts_;
  MapeKTrace& trace_ = *facts_.trace;
  Target target_;
  double start_s_;
  ApiFailure failure_;
  Diagnosis first_;  // of the first attempt
  Diagnosis last_;   // of the latest failed attempt that was diagnosed
};

Task<CallOutcome> Cascade::run() {
  analyze();
  if (domain() == SemanticDomain::kOutOfBounds) co_return co_await block();
  if (first_.should_retry && !first_.skip_to_failover) {
    Healed healed = co_await retry();
    if (healed) co_return std::move(*healed);
  }
  if (first_.skip_to_failover) {
    engine_.counters.count({Counter::kL1Skip});
    engine_.metrics.inc(metric::kRetrySkipped);
  }
  if (last_.is(FaultCategory::kModelNotFound) || last_.is(FaultCategory::kValidationError)) {
    Healed healed = co_await downgrade();
    if (healed) co_return std::move(*healed);
  }
  co_return co_await fail_over();
}

void Cascade::analyze() {
  first_ = engine_.diagnoser.diagnose(failure_.text, failure_.status, failure_.reading_s);
  last_ = first_;
  const std::string category(value_of(first_.category));
  trace_.monitor_result = category;
  trace_.analyze_result = first_.fault_label();
  provider().record_failure(failure_.text, category);
  provider().category_circuit_breaker(category)->record_failure(target_.name);
  engine_.metrics.inc(metric::kFault + category);
  engine_.metrics.observe(metric::kFaultLatency, engine_.us_since(start_s_));
}

Task<CallOutcome> Cascade::block() {
  trace_.plan_result = "blocked_oob";
  trace_.execute_result = "failed";
  trace_.enter(MapeKPhase::kKnowledge, engine_.clock);
  const std::string label(first_.fault_label());
  co_await learn(label, "blocked:oob:" + target_.name, false);
  trace_.knowledge_recorded = true;
  trace_.total_loop_us = engine_.us_since(facts_.start_s);
  const std::string& reason = facts_.classification.reason;
  co_return CallFailed{CallFailed::Kind::kOutOfBounds,
                       "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=" + request_.task_type +
                           ", reason=" + reason +
                           "). Original error: " + std::string(value_of(first_.category)),
                       std::string(value_of(domain())), reason};
}

// L1. The first diagnosis steers the whole series; each failure is diagnosed for what comes after
// it.
Task<Cascade::Healed> Cascade::retry() {
  trace_.plan_result = "l1_retry";
  const std::string label(first_.fault_label());
  const std::string category(value_of(first_.category));
  const std::string action = "retry:" + target_.name;
  for (int attempt = 0; attempt < kMaxRetries; ++attempt) {
    co_await io_.sleep(delay_before(attempt));
    engine_.metrics.inc(metric::kRetry + std::to_string(attempt));
    const double start_s = engine_.clock.monotonic();
    const Attempt tried = co_await io_.execute(target_.provider, target_.model);
    const double latency_ms = engine_.ms_since(start_s);
    if (tried.ok()) {
      const Level level{"l1_retry", "retry", metric::kHealedByRetry, kRetryBroken, std::nullopt};
      co_return co_await heal(level, first_, action, latency_ms);
    }
    co_await fail(*tried.failure, category, label, action);
    last_ = engine_.diagnoser.diagnose(tried.failure->text, tried.failure->status,
                                       tried.failure->reading_s);
  }
  co_return std::nullopt;
}

double Cascade::delay_before(int attempt) const {
  if (first_.retry_after_s && *first_.retry_after_s != 0) return *first_.retry_after_s;
  return std::ldexp(kFirstDelaySeconds, attempt);
}

// L2. A failure here is not diagnosed: what comes after it goes by the fault that led here.
Task<Cascade::Healed> Cascade::downgrade() {
  const auto cheaper = downgraded_model(target_.name, target_.model);
  if (!cheaper || *cheaper == target_.model) co_return std::nullopt;
  trace_.plan_result = "l2_downgrade";
  engine_.metrics.inc(metric::kDowngrade);
  const std::string action = "downgrade:" + target_.name + ":" + *cheaper;
  const double start_s = engine_.clock.monotonic();
  const Attempt tried = co_await io_.execute(target_.provider, *cheaper);
  const double latency_ms = engine_.ms_since(start_s);
  if (tried.ok()) {
    const Level level{"l2_downgrade", "downgrade", metric::kHealedByDowngrade, kDowngradeBroken,
                      Counter::kL2Downgrade};
    target_.model = *cheaper;
    co_return co_await heal(level, last_, action, latency_ms);
  }
  const std::string category(value_of(last_.category));
  const std::string label(last_.fault_label());
  co_await fail(*tried.failure, category, label, action);
  co_return std::nullopt;
}

Task<CallOutcome> Cascade::heal(Level level, Diagnosis fault, std::string action,
                                double latency_ms) {
  provider().record_success(latency_ms);
  trace_.execute_result = "healed";
  const std::string label(fault.fault_label());
  std::optional<bool> validation_passed;
  if (co_await breaks_contract(label, action, validation_passed)) {
    co_return CallFailed{CallFailed::Kind::kContract, level.contract_message};
  }
  trace_.enter(MapeKPhase::kKnowledge, engine_.clock);
  co_await learn(label, action, true, latency_ms);
  trace_.knowledge_recorded = true;
  trace_.total_loop_us = engine_.us_since(facts_.start_s);
  engine_.metrics.inc(level.success_metric);
  if (level.counter) {
    engine_.counters.count({Counter::kHeal, *level.counter});
  } else {
    engine_.counters.count({Counter::kHeal});
  }
  io_.report({std::string(value_of(fault.category)), target_.name, target_.model, level.action,
              latency_ms, fault.sub_category});
  CallAnswered answered{facts_.answered_by(target_, latency_ms, level.heal_level), std::move(fault),
                        trace_};
  answered.answer.downgraded = level.counter.has_value();
  answered.answer.validation_passed = validation_passed;
  co_return answered;
}

// Applies the contract to healed output: in an exact domain a broken one ends the call, elsewhere
// it is only counted.
Task<bool> Cascade::breaks_contract(std::string label, std::string action,
                                    std::optional<bool>& validation_passed) {
  if (!io_.has_contract()) co_return false;
  validation_passed = io_.validate();
  if (*validation_passed) co_return false;
  if (domain() != SemanticDomain::kStrongEquivalence) {
    engine_.metrics.inc(metric::kContractWarning);
    co_return false;
  }
  co_await learn(std::move(label), std::move(action), false);
  engine_.metrics.inc(metric::kContractBroken);
  co_return true;
}

Task<void> Cascade::fail(const ApiFailure& failure, std::string category, std::string label,
                         std::string action) {
  provider().record_failure(failure.text, category);
  co_await learn(std::move(label), std::move(action), false);
}

Task<void> Cascade::learn(std::string label, std::string action, bool success, double latency_ms) {
  Outcome outcome{std::move(label), std::move(action), success, latency_ms};
  co_await io_.learn(std::move(outcome));
}

Task<CallOutcome> Cascade::fail_over() {
  trace_.plan_result = "l3_failover";
  const FailoverRequest request{request_.prompt_length, request_.model, target_.name, last_,
                                facts_};
  co_return co_await run_failover(request, engine_, io_);
}

}  // namespace

Task<CallOutcome> recover(const CallRequest& request, Surroundings engine, Io& io, CallFacts& facts,
                          FailedAttempt failed) {
  Cascade cascade(request, engine, io, facts, std::move(failed));
  co_return co_await cascade.run();
}

}  // namespace tarvomeldric
