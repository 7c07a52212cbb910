#include "engine/call.h"

#include <algorithm>
#include <utility>

#include "engine/cascade.h"
#include "engine/hedge.h"
#include "engine/pass.h"
#include "observability/metric_names.h"
#include "providers/models.h"

namespace tarvomeldric {
namespace {

constexpr double kLearnedRoutingConfidence = 0.7;
constexpr double kBackPressureSeconds = 0.5;
constexpr double kBackPressureRatio = 0.3;
constexpr std::int64_t kBackPressureCalls = 10;
constexpr std::size_t kUsualPhases = 5;
constexpr std::string_view kFailoverAction = "failover:";

CallFacts facts_of(const CallRequest& request, const Surroundings& engine, MapeKTrace& trace) {
  CallFacts facts;
  trace.phases.reserve(kUsualPhases);
  facts.start_s = trace.enter(MapeKPhase::kMonitor, engine.clock);
  trace.request_id = request.request_id ? *request.request_id : fresh_request_id();
  facts.trace = &trace;
  return facts;
}

// The working values of one call.
class Call {
 public:
  Call(const CallRequest& request, Surroundings engine, Io& io, MapeKTrace& trace,
       CallOutcome& outcome)
      : trace_(trace),
        outcome_(outcome),
        pass_(request, engine, io, facts_of(request, engine, trace)) {}

  Task<void> run();
  void tell_end() { pass_.tell_end(&outcome_); }
  void tell_of_failure() { pass_.tell_end(nullptr); }

 private:
  void classify();
  bool under_back_pressure() const;
  void look_around();
  void find_nobody();
  std::optional<std::string> pattern() const;
  void follow(const Advice& advice);
  Task<std::optional<AdmittedSlot>> admit();
  void block();
  Task<void> execute(AdmittedSlot& slot);
  void succeed(const Tried& tried);
  Task<void> heal(FirstAttempt& failed);

  void choose(const NamedProvider& at) { target_ = pass_.candidates.target(at); }
  Task<bool> wait_for_the_soonest();
  void choose_first();
  void pass_over_losers();
  bool is_passed_over(const NamedProvider& at) const {
    return pass_.policy().hedge_after &&
           engine_.hedging.is_aside(pass_.lane_of(pass_.candidates.target(at)));
  }
  void refuse(CallFailed::Kind kind, const char* message);
  void run_out_of_time();
  void end(CallFailed failed);

  MapeKTrace& trace_;
  CallOutcome& outcome_;
  Pass pass_;
  const Surroundings& engine_ = pass_.engine;
  std::vector<NamedProvider> available_;
  Target target_;
  bool learned_ = false;
  bool hedged_ = false;
};

Task<void> Call::run() {
  classify();
  const bool pausing = under_back_pressure() && pass_.state.left_s() > kBackPressureSeconds;
  if (pausing) co_await pass_.sleep(kBackPressureSeconds, "back_pressure");
  look_around();
  bool somebody = !available_.empty();
  if (somebody && pass_.policy().retry_after) somebody = co_await wait_for_the_soonest();
  if (!somebody) co_return find_nobody();
  choose_first();

  trace_.enter(MapeKPhase::kAnalyze, engine_.clock);
  std::optional<Advice> advice;
  std::optional<std::string> asked = pattern();
  if (asked) co_await pass_.io.advise(std::move(*asked), advice);
  if (advice) follow(*advice);

  trace_.enter(MapeKPhase::kPlan, engine_.clock);
  std::optional<AdmittedSlot> slot = co_await admit();
  if (!slot || !pass_.state.may_send()) co_return block();
  trace_.plan_result = learned_ ? "l4_learned" : "direct";
  co_await execute(*slot);
}

void Call::classify() {
  const CallRequest& request = pass_.request;
  SemanticClassification& classification = pass_.facts.classification;
  classification = engine_.topology.classify_request(request.task_type, request.has_schema,
                                                     request.structured_output);
  if (!request.semantic_domain) return;
  classification.domain = *request.semantic_domain;
  classification.reason = "user_explicit";
}

// Counted before this call is, so that a call does not thin out the ratio it is judged by.
bool Call::under_back_pressure() const {
  const auto limited = engine_.metrics.counter(metric::kRateLimitFault);
  if (limited == 0) return false;
  const auto calls = engine_.metrics.counter(metric::kCalls);
  return calls > kBackPressureCalls &&
         static_cast<double>(limited) / static_cast<double>(calls) > kBackPressureRatio;
}

void Call::look_around() {
  engine_.counters.count({Counter::kCall});
  engine_.metrics.inc(metric::kCalls);
  available_ = pass_.candidates.available(engine_.registry);
}

void Call::find_nobody() {
  engine_.metrics.inc(metric::kNoProvider);
  trace_.monitor_result = "no_provider";
  refuse(CallFailed::Kind::kNoProvider, "No healthy providers available.");
  if (pass_.state.ended_by_deadline()) run_out_of_time();
}

// Leaves those out who asked to be left alone. Where all did, the first one who may be asked again
// is waited for; false when that is too long.
Task<bool> Call::wait_for_the_soonest() {
  const auto alone_s = [&](const NamedProvider& at) { return pass_.left_alone_s(at.provider); };
  const NamedProvider soonest = *std::ranges::min_element(available_, {}, alone_s);
  const double soonest_s = alone_s(soonest);
  if (soonest_s <= 0) {
    std::erase_if(available_, [&](const auto& at) { return alone_s(at) > 0; });
    co_return true;
  }
  available_ = {soonest};
  const std::optional<double> wait_s = pass_.state.wait_s(soonest_s);
  if (!wait_s) co_return false;
  const bool waited = co_await pass_.sleep(*wait_s, "retry_after");
  co_return waited;
}

void Call::choose_first() {
  choose(pass_.candidates.pick(available_));
  if (pass_.policy().hedge_after) pass_over_losers();
  pass_.facts.original_provider = target_.name;
  pass_.facts.original_model = target_.model;
  trace_.monitor_result = "provider_selected";
}

// A call that hedges leaves those alone who keep losing to a second provider, while others are
// there.
void Call::pass_over_losers() {
  const CallPolicy& policy = pass_.policy();
  engine_.hedging.budget(policy.hedge_ratio, policy.hedge_burst)->deposit();
  std::vector<NamedProvider> others;
  while (!engine_.hedging.claim(pass_.lane_of(target_))) {
    if (others.empty()) others = available_;
    std::erase_if(others, [&](const auto& one) { return one.name == target_.name; });
    if (others.empty()) return choose(pass_.candidates.pick(available_));
    choose(pass_.candidates.pick(others));
  }
}

// What the learner is asked about requests of this kind; nothing where a route says it all.
std::optional<std::string> Call::pattern() const {
  if (pass_.request.route) return std::nullopt;
  return model_to_error_hint(pass_.request.model);
}

// Goes where a confident rule sends requests of this kind.
void Call::follow(const Advice& advice) {
  if (advice.confidence <= kLearnedRoutingConfidence) return;
  std::string name = advice.action;
  for (std::size_t at = 0; (at = name.find(kFailoverAction, at)) != std::string::npos;) {
    name.erase(at, kFailoverAction.size());
  }
  if (name.empty() || name == target_.name) return;
  const auto learned = std::ranges::find(available_, name, &NamedProvider::name);
  if (learned == available_.end() || is_passed_over(*learned)) return;
  learned_ = true;
  choose(*learned);
  engine_.counters.count({Counter::kL4Learned});
  engine_.metrics.inc(metric::kLearnedRouting);
}

// Admission by the chosen provider, else by the one fallback.
Task<std::optional<AdmittedSlot>> Call::admit() {
  const double wait_s = pass_.request.bulkhead_timeout_s;
  // A wait that would use up the deadline is for the last one to be asked.
  const bool waiting = wait_s < pass_.state.left_s() || available_.size() == 1;
  std::optional<AdmittedSlot> slot = co_await pass_.admit(target_, waiting ? wait_s : 0.0);
  if (slot) co_return slot;
  engine_.metrics.inc(metric::kRateLimited);
  engine_.counters.count({Counter::kRateLimited});
  auto fallbacks = available_;
  std::erase_if(fallbacks, [&](const auto& entry) { return entry.name == target_.name; });
  if (fallbacks.empty()) {
    refuse(CallFailed::Kind::kBusy, "Primary rate-limited, no fallback available.");
    co_return std::nullopt;
  }
  choose(pass_.candidates.pick_next(fallbacks));
  slot = co_await pass_.admit(target_, wait_s);
  if (slot) co_return slot;
  engine_.metrics.inc(metric::kBulkheadRejected);
  engine_.counters.count({Counter::kBulkheadRejected});
  refuse(CallFailed::Kind::kBusy, "All providers rate-limited or at capacity.");
  co_return std::nullopt;
}

void Call::block() {
  trace_.plan_result = "blocked";
  if (!pass_.state.may_send()) run_out_of_time();
}

Task<void> Call::execute(AdmittedSlot& slot) {
  trace_.enter(MapeKPhase::kExecute, engine_.clock);
  FirstAttempt first{std::move(target_), {}, std::move(slot)};
  bool sent = false;
  if (pass_.policy().hedge_after) {
    sent = co_await attempt_hedged(pass_, first);
  } else {
    sent = co_await pass_.attempt(first.target, first.tried);
    if (sent) pass_.settle(first.target, first.tried, first.slot);
  }
  if (!sent) co_return run_out_of_time();
  hedged_ = first.hedged;
  if (first.tried.ok()) {
    target_ = std::move(first.target);
    trace_.enter(MapeKPhase::kKnowledge, engine_.clock);
    co_await pass_.learn("success", "direct:" + target_.name, true, first.tried.latency_ms);
    co_return succeed(first.tried);
  }
  co_await heal(first);
}

// Apart, so that a call that needs no healing has no room for it in its frames.
Task<void> Call::heal(FirstAttempt& failed) {
  outcome_ = co_await recover(pass_, std::move(failed));
  if (auto* answered = std::get_if<CallAnswered>(&outcome_)) answered->answer.hedged = hedged_;
}

void Call::succeed(const Tried& tried) {
  trace_.execute_result = "ok";
  trace_.analyze_result = "nominal";
  trace_.knowledge_recorded = true;
  trace_.total_loop_us = engine_.us_since(pass_.facts.start_s);
  engine_.metrics.inc(metric::kPrimarySuccess);
  engine_.metrics.observe(metric::kPrimaryLatency, tried.latency_ms);
  CallAnswered& answered = outcome_.emplace<CallAnswered>();
  answered.answer =
      pass_.facts.answered_by(target_, tried.latency_ms, learned_ ? "l4_learned" : "");
  answered.answer.validation_passed = tried.validation_passed;
  answered.answer.hedged = hedged_;
}

void Call::refuse(CallFailed::Kind kind, const char* message) { end({kind, message}); }

void Call::run_out_of_time() { end(pass_.out_of_time()); }

void Call::end(CallFailed failed) {
  trace_.total_loop_us = engine_.us_since(pass_.facts.start_s);
  outcome_ = std::move(failed);
}

}  // namespace

Answer CallFacts::answered_by(const Target& target, double latency_ms,
                              const char* heal_level) const {
  return {.provider = target.name,
          .model = target.model,
          .original_provider = original_provider,
          .original_model = original_model,
          .latency_ms = latency_ms,
          .heal_level = heal_level,
          .semantic_domain = std::string(value_of(classification.domain))};
}

Task<void> run_call(const CallRequest& request, Surroundings engine, Io& io, MapeKTrace& trace,
                    CallOutcome& outcome) {
  Call call(request, engine, io, trace, outcome);
  try {
    co_await call.run();
  } catch (...) {
    call.tell_of_failure();
    throw;
  }
  call.tell_end();
}

}  // namespace tarvomeldric
