#include "engine/cascade.h"

#include <optional>
#include <utility>

#include "engine/failover.h"
#include "observability/metric_names.h"
#include "providers/models.h"

namespace tarvomeldric {
namespace {

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
  Cascade(Pass& pass, FirstAttempt failed)
      : pass_(pass),
        target_(std::move(failed.target)),
        tried_(std::move(failed.tried)),
        slot_(std::move(failed.slot)),
        recorded_(std::move(failed.fault)),
        failover_(pass, target_.name) {
    if (failed.other) failover_.leave_out(*failed.other);
  }

  Task<CallOutcome> run();

 private:
  ProviderConfig& provider() const { return *target_.provider; }
  bool answered_badly() const { return is_bad_answer(first_); }
  bool transient() const { return first_.should_retry && !first_.skip_to_failover; }

  Task<void> analyze();
  Task<CallOutcome> block();
  Task<Healed> retry();
  Task<Healed> downgrade();
  bool retry_is_hopeless() const;
  Task<bool> wait_before(int attempt);
  Task<bool> admit_again(std::optional<AdmittedSlot>& slot);
  Task<Healed> heal(Level level, Diagnosis fault, std::string action, Tried tried);

  Pass& pass_;
  const Surroundings& engine_ = pass_.engine;
  MapeKTrace& trace_ = *pass_.facts.trace;
  Target target_;
  Tried tried_;  // the first attempt
  AdmittedSlot slot_;
  std::optional<Diagnosis> recorded_;
  Failover failover_;
  Diagnosis first_;  // of the first attempt
  Diagnosis last_;   // of the latest failed attempt that was diagnosed
};

Task<CallOutcome> Cascade::run() {
  co_await analyze();
  if (pass_.domain() == SemanticDomain::kOutOfBounds) co_return co_await block();
  Healed healed;
  if (pass_.policy().order == AttemptOrder::kFailoverFirst && transient()) {
    trace_.plan_result = "l3_failover";
    healed = co_await failover_.at_once(last_);
  }
  if (!healed && transient()) healed = co_await retry();
  if (!healed && first_.skip_to_failover) {
    engine_.counters.count({Counter::kL1Skip});
    engine_.metrics.inc(metric::kRetrySkipped);
  }
  if (!healed) healed = co_await downgrade();
  if (!healed) {
    trace_.plan_result = "l3_failover";
    healed = co_await failover_.in_turn(last_);
  }
  if (!healed) healed = co_await failover_.give_up(last_);
  co_return std::move(*healed);
}

Task<void> Cascade::analyze() {
  if (recorded_) {
    first_ = *recorded_;
  } else {
    first_ = co_await pass_.diagnose(target_, tried_, slot_);
  }
  last_ = first_;
  trace_.monitor_result = std::string(value_of(first_.category));
  trace_.analyze_result = first_.fault_label();
  slot_ = {};
}

Task<CallOutcome> Cascade::block() {
  trace_.plan_result = "blocked_oob";
  trace_.execute_result = "failed";
  trace_.enter(MapeKPhase::kKnowledge, engine_.clock);
  if (!tried_.cut) {
    const std::string label(first_.fault_label());
    co_await pass_.learn(label, "blocked:oob:" + target_.name, false);
  }
  trace_.knowledge_recorded = true;
  trace_.total_loop_us = engine_.us_since(pass_.facts.start_s);
  const std::string& reason = pass_.facts.classification.reason;
  co_return CallFailed{
      CallFailed::Kind::kOutOfBounds,
      "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=" + pass_.request.task_type +
          ", reason=" + reason + "). Original error: " + std::string(value_of(first_.category)),
      std::string(value_of(pass_.domain())), reason};
}

// L1. The first diagnosis steers the whole series; each failure is diagnosed for what comes after
// it. An answer that was no good is asked for once more, at once.
Task<Healed> Cascade::retry() {
  trace_.plan_result = "l1_retry";
  const std::string label(first_.fault_label());
  const std::string category(value_of(first_.category));
  const std::string action = "retry:" + target_.name;
  const std::int64_t retries = answered_badly() ? 1 : pass_.policy().max_retries;
  for (int attempt = 0; attempt < retries; ++attempt) {
    if (retry_is_hopeless() || !pass_.state.may_send()) break;
    const bool waited = co_await wait_before(attempt);
    if (!waited) break;
    std::optional<AdmittedSlot> slot;
    const bool admitted = co_await admit_again(slot);
    if (!admitted) break;
    engine_.metrics.inc(metric::kRetry + std::to_string(attempt));
    Tried tried;
    const bool sent = co_await pass_.attempt(target_, tried, pass_.judges_whole(false));
    if (!sent) break;
    if (slot) pass_.settle(target_, tried, *slot);
    if (tried.cut) break;
    if (tried.ok()) {
      const Level level{"l1_retry", "retry", metric::kHealedByRetry, kRetryBroken, std::nullopt};
      co_return co_await heal(level, first_, action, std::move(tried));
    }
    if (tried.is_providers_fault()) {
      pass_.record_failure(target_, tried.failure->text, category, slot ? &*slot : nullptr);
    }
    slot.reset();
    co_await pass_.learn(label, action, false);
    if (tried.refused) {
      last_ = *tried.refused;
      break;
    }
    last_ = engine_.diagnoser.diagnose(tried.failure->text, tried.failure->status,
                                       tried.failure->reading_s);
    pass_.tell<FaultEvent>(target_.name, std::string(value_of(last_.category)),
                           std::string(last_.fault_label()));
  }
  co_return std::nullopt;
}

bool Cascade::retry_is_hopeless() const {
  if (!pass_.policy().respect_breakers) return false;
  return !provider().circuit_breaker()->is_available() || last_.skip_to_failover;
}

// Whether the retry may be made after the pause that is due before it.
Task<bool> Cascade::wait_before(int attempt) {
  const double alone_s = pass_.left_alone_s(target_.provider);
  std::optional<double> delay_s = answered_badly() ? pass_.state.wait_s(alone_s)
                                                   : pass_.state.delay_s(attempt, first_, alone_s);
  if (!delay_s) co_return false;
  if (answered_badly() && *delay_s == 0) co_return true;
  const char* reason = alone_s > 0 ? "retry_after" : "retry";
  const bool waited = co_await pass_.sleep(*delay_s, reason);
  co_return waited;
}

// Whether the same provider may be asked again; with a slot, where its guards are asked.
Task<bool> Cascade::admit_again(std::optional<AdmittedSlot>& slot) {
  if (!pass_.admits_retries(target_)) co_return true;
  slot = co_await pass_.admit(target_, 0.0);
  co_return slot.has_value();
}

// L2. A failure here is not diagnosed: what comes after it goes by the fault that led here.
Task<Healed> Cascade::downgrade() {
  const bool fitting =
      last_.is(FaultCategory::kModelNotFound) || last_.is(FaultCategory::kValidationError);
  if (!fitting || is_bad_answer(last_) || !pass_.candidates.may_downgrade()) co_return std::nullopt;
  const auto cheaper = downgraded_model(target_.name, target_.model);
  if (!cheaper || *cheaper == target_.model || !pass_.state.may_send()) co_return std::nullopt;
  std::optional<AdmittedSlot> slot;
  const bool admitted = co_await admit_again(slot);
  if (!admitted) co_return std::nullopt;
  trace_.plan_result = "l2_downgrade";
  engine_.metrics.inc(metric::kDowngrade);
  const std::string action = "downgrade:" + target_.name + ":" + *cheaper;
  const Target cheap{target_.name, target_.provider, *cheaper};
  Tried tried;
  const bool sent = co_await pass_.attempt(cheap, tried, pass_.judges_whole(false));
  if (!sent) co_return std::nullopt;
  if (slot) pass_.settle(cheap, tried, *slot);
  if (tried.cut) co_return std::nullopt;
  if (tried.ok()) {
    const Level level{"l2_downgrade", "downgrade", metric::kHealedByDowngrade, kDowngradeBroken,
                      Counter::kL2Downgrade};
    target_ = cheap;
    co_return co_await heal(level, last_, action, std::move(tried));
  }
  if (tried.is_providers_fault()) {
    pass_.record_failure(target_, tried.failure->text, std::string(value_of(last_.category)),
                         slot ? &*slot : nullptr);
  }
  const std::string label(last_.fault_label());
  co_await pass_.learn(label, action, false);
  co_return std::nullopt;
}

Task<Healed> Cascade::heal(Level level, Diagnosis fault, std::string action, Tried tried) {
  trace_.execute_result = "healed";
  const std::string label(fault.fault_label());
  if (!pass_.holds_contract(level.contract_message, tried.validation_passed)) {
    co_await pass_.learn(label, action, false);
    engine_.metrics.inc(metric::kContractBroken);
    co_return CallFailed{CallFailed::Kind::kNewestError, {}};
  }
  trace_.enter(MapeKPhase::kKnowledge, engine_.clock);
  co_await pass_.learn(label, action, true, tried.latency_ms);
  trace_.knowledge_recorded = true;
  trace_.total_loop_us = engine_.us_since(pass_.facts.start_s);
  engine_.metrics.inc(level.success_metric);
  if (level.counter) {
    engine_.counters.count({Counter::kHeal, *level.counter});
  } else {
    engine_.counters.count({Counter::kHeal});
  }
  pass_.io.report({std::string(value_of(fault.category)), target_.name, target_.model, level.action,
                   tried.latency_ms, fault.sub_category});
  pass_.tell<HealEvent>(target_.name, target_.model, level.heal_level, label);
  CallAnswered answered{pass_.facts.answered_by(target_, tried.latency_ms, level.heal_level),
                        std::move(fault)};
  answered.answer.downgraded = level.counter.has_value();
  answered.answer.validation_passed = tried.validation_passed;
  co_return answered;
}

}  // namespace

Task<CallOutcome> recover(Pass& pass, FirstAttempt failed) {
  Cascade cascade(pass, std::move(failed));
  co_return co_await cascade.run();
}

}  // namespace tarvomeldric
