#include "engine/call.h"

#include <algorithm>
#include <utility>

#include "engine/admission.h"
#include "engine/cascade.h"
#include "engine/selection.h"
#include "observability/metric_names.h"
#include "providers/models.h"

namespace tarvomeldric {
namespace {

constexpr double kLearnedRoutingConfidence = 0.7;
constexpr double kBackPressureSeconds = 0.5;  // seconds
constexpr double kBackPressureRatio = 0.3;
constexpr std::int64_t kBackPressureCalls = 10;
constexpr std::size_t kUsualPhases = 5;
constexpr std::string_view kFailoverAction = "failover:";

// The working values of one call.
class Call {
 public:
  Call(const CallRequest& request, Surroundings engine, Io& io)
      : request_(request), engine_(engine), io_(io) {
    facts_.start_s = engine.clock.monotonic();
    facts_.trace = &trace_;
    trace_.phases.reserve(kUsualPhases);
    trace_.request_id = request.request_id ? *request.request_id : fresh_request_id();
  }

  Task<void> run();
  // How a finished run ended.
  CallOutcome&& take() { return std::move(outcome_); }

 private:
  void classify();
  bool under_back_pressure() const;
  bool monitor();
  Task<void> analyze();
  Task<std::optional<AdmittedSlot>> plan();
  Task<void> execute(AdmittedSlot slot);
  Task<void> succeed(double latency_ms);

  Target target_at(const NamedProvider& at) const;
  Task<std::string> learned_provider() const;
  void refuse(std::string message);

  const CallRequest& request_;
  Surroundings engine_;
  Io& io_;
  CallFacts facts_;
  MapeKTrace trace_;
  std::vector<NamedProvider> available_;
  Target target_;
  bool learned_ = false;
  std::string refusal_;
  CallOutcome outcome_;  // large, so it is handed on as seldom as can be
};

Task<void> Call::run() {
  classify();
  trace_.enter(MapeKPhase::kMonitor, engine_.clock);
  if (under_back_pressure()) co_await io_.sleep(kBackPressureSeconds);
  if (!monitor()) co_return refuse("No healthy providers available.");
  co_await analyze();
  std::optional<AdmittedSlot> slot = co_await plan();
  if (!slot) co_return refuse(refusal_);
  co_await execute(std::move(*slot));
}

void Call::classify() {
  facts_.classification = engine_.topology.classify_request(request_.task_type, request_.has_schema,
                                                            request_.structured_output);
  if (!request_.semantic_domain) return;
  facts_.classification.domain = *request_.semantic_domain;
  facts_.classification.reason = "user_explicit";
}

// Counted before this call is, so that a call does not thin out the ratio it is judged by.
bool Call::under_back_pressure() const {
  const auto limited = engine_.metrics.counter(metric::kRateLimitFault);
  const auto calls = engine_.metrics.counter(metric::kCalls);
  return calls > kBackPressureCalls &&
         static_cast<double>(limited) / static_cast<double>(calls) > kBackPressureRatio;
}

bool Call::monitor() {
  engine_.counters.count({Counter::kCall});
  engine_.metrics.inc(metric::kCalls);
  available_ = available_providers(engine_.registry);
  if (available_.empty()) {
    engine_.metrics.inc(metric::kNoProvider);
    trace_.monitor_result = "no_provider";
    return false;
  }
  target_ = target_at(pick_provider(request_.model, available_));
  facts_.original_provider = target_.name;
  facts_.original_model = target_.model;
  trace_.monitor_result = "provider_selected";
  return true;
}

Task<void> Call::analyze() {
  trace_.enter(MapeKPhase::kAnalyze, engine_.clock);
  const std::string name = co_await learned_provider();
  if (name.empty() || name == target_.name) co_return;
  const auto learned = std::ranges::find(available_, name, &NamedProvider::name);
  if (learned == available_.end()) co_return;
  learned_ = true;
  target_ = target_at(*learned);
  engine_.counters.count({Counter::kL4Learned});
  engine_.metrics.inc(metric::kLearnedRouting);
}

// Where a confident rule sends requests of this kind; empty when there is none.
Task<std::string> Call::learned_provider() const {
  const auto hint = model_to_error_hint(request_.model);
  if (!hint) co_return std::string();
  const std::optional<Advice> advice = co_await io_.advise(*hint);
  if (!advice || advice->confidence <= kLearnedRoutingConfidence) co_return std::string();
  std::string name = advice->action;
  for (std::size_t at = 0; (at = name.find(kFailoverAction, at)) != std::string::npos;) {
    name.erase(at, kFailoverAction.size());
  }
  co_return name;
}

// Admission by the chosen provider, else by the one fallback; a refusal leaves its message behind.
Task<std::optional<AdmittedSlot>> Call::plan() {
  trace_.enter(MapeKPhase::kPlan, engine_.clock);
  auto slot = co_await admit(target_.provider, io_, request_.bulkhead_timeout_s);
  if (!slot) {
    engine_.metrics.inc(metric::kRateLimited);
    engine_.counters.count({Counter::kRateLimited});
    auto fallbacks = available_;
    std::erase_if(fallbacks, [&](const auto& entry) { return entry.name == target_.name; });
    if (fallbacks.empty()) {
      trace_.plan_result = "blocked";
      refusal_ = "Primary rate-limited, no fallback available.";
      co_return std::nullopt;
    }
    target_ = target_at(pick_fallback(fallbacks));
    slot = co_await admit(target_.provider, io_, request_.bulkhead_timeout_s);
  }
  if (!slot) {
    engine_.metrics.inc(metric::kBulkheadRejected);
    engine_.counters.count({Counter::kBulkheadRejected});
    trace_.plan_result = "blocked";
    refusal_ = "All providers rate-limited or at capacity.";
    co_return std::nullopt;
  }
  trace_.plan_result = learned_ ? "l4_learned" : "direct";
  co_return slot;
}

Task<void> Call::execute(AdmittedSlot slot) {
  const double start_s = trace_.enter(MapeKPhase::kExecute, engine_.clock);
  Attempt attempt = co_await io_.execute(target_.provider, target_.model);
  const double latency_ms = engine_.ms_since(start_s);
  if (attempt.ok()) {
    target_.provider->record_success(latency_ms);
    slot.release();
    co_await succeed(latency_ms);
    co_return;
  }
  slot.release();
  FailedAttempt failed{std::move(target_), start_s, std::move(*attempt.failure)};
  outcome_ = co_await recover(request_, engine_, io_, facts_, std::move(failed));
}

Task<void> Call::succeed(double latency_ms) {
  trace_.execute_result = "ok";
  trace_.analyze_result = "nominal";
  trace_.enter(MapeKPhase::kKnowledge, engine_.clock);
  Outcome success{"success", "direct:" + target_.name, true, latency_ms};
  co_await io_.learn(std::move(success));
  trace_.knowledge_recorded = true;
  trace_.total_loop_us = engine_.us_since(facts_.start_s);
  engine_.metrics.inc(metric::kPrimarySuccess);
  engine_.metrics.observe(metric::kPrimaryLatency, latency_ms);
  CallAnswered& answered = outcome_.emplace<CallAnswered>();
  answered.answer = facts_.answered_by(target_, latency_ms, learned_ ? "l4_learned" : "");
  answered.trace = std::move(trace_);
}

Target Call::target_at(const NamedProvider& at) const {
  return {at.name, at.provider, resolve_model(at.name, request_.model)};
}

void Call::refuse(std::string message) {
  trace_.total_loop_us = engine_.us_since(facts_.start_s);
  outcome_ = CallFailed{CallFailed::Kind::kRefused, std::move(message)};
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

Task<CallOutcome> run_call(const CallRequest& request, Surroundings engine, Io& io) {
  Call call(request, engine, io);
  co_await call.run();
  co_return call.take();
}

}  // namespace tarvomeldric
