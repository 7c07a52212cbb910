#include "engine/pass.h"

#include <algorithm>
#include <array>
#include <utility>

#include "engine/recording.h"
#include "observability/metric_names.h"

namespace tarvomeldric {
namespace {

// What is wrong with an answer that a provider gave in good health.
Diagnosis bad_answer(const char* label) {
  Diagnosis diagnosis;
  diagnosis.category = FaultCategory::kValidationError;
  diagnosis.confidence = 1.0;
  diagnosis.should_retry = true;
  diagnosis.sub_category = label;
  return diagnosis;
}

constexpr std::array<std::int64_t, 4> kBadRequests{400, 413, 415, 422};

// Whether a provider that refuses a request with this label finds fault with its body.
bool is_bad_request(std::optional<std::int64_t> status, std::string_view label) {
  return status && std::ranges::find(kBadRequests, *status) != kBadRequests.end() &&
         (label == "unknown" || label.starts_with("validation_error"));
}

}  // namespace

bool is_bad_answer(const Diagnosis& fault) { return fault.sub_category.starts_with("answer:"); }

const CallPolicy& default_policy() {
  static const CallPolicy policy;
  return policy;
}

Pass::Pass(const CallRequest& asked, Surroundings surroundings, Io& serving, CallFacts settled)
    : request(asked),
      engine(surroundings),
      io(serving),
      facts(std::move(settled)),
      start_s(facts.start_s != 0 ? facts.start_s : engine.clock.monotonic()),
      call_id(facts.trace ? facts.trace->request_id : asked.request_id.value_or("")),
      state(*asked.policy, engine.clock, engine.random, start_s),
      candidates(asked.model, *asked.policy, asked.route) {}

Task<std::optional<AdmittedSlot>> Pass::admit(const Target& target, double wait_s) {
  std::optional<AdmittedSlot> slot;
  if (may_pass(target)) {
    Admission asked(target.provider);
    if (asked.must_wait()) {
      const double longest_s = std::min(wait_s, state.left_s());
      const bool granted = co_await io.wait_for_permit(asked.semaphore(), longest_s);
      asked.waited(granted);
    }
    slot = asked.take();
  }
  if (slot && policy().respect_breakers) keep_permit(target, slot);
  if (!slot) tell<RefusalEvent>(target.name, "admission");
  co_return slot;
}

// Whether waiting for a slot makes sense.
bool Pass::may_pass(const Target& target) const {
  return !policy().respect_breakers || CircuitBreaker::pass(target.provider->circuit_breaker());
}

// The breaker may have changed during the wait: what was admitted in vain is given back.
void Pass::keep_permit(const Target& target, std::optional<AdmittedSlot>& slot) {
  std::optional<ProbePermit> permit = CircuitBreaker::pass(target.provider->circuit_breaker());
  if (permit) {
    slot->keep(std::move(*permit));
  } else {
    slot.reset();
    target.provider->rate_limiter()->refund();
  }
}

std::optional<AdmittedSlot> Pass::admit_now(const Target& target) {
  std::optional<AdmittedSlot> slot;
  if (may_pass(target)) slot = Admission(target.provider).take();
  if (slot && policy().respect_breakers) keep_permit(target, slot);
  return slot;
}

Task<bool> Pass::attempt(const Target& target, Tried& tried, bool whole) {
  if (!state.take_request()) co_return false;
  judged_ = whole || !request.streamed;
  const double sent_s = engine.clock.monotonic();
  const AttemptTerms terms{state.attempt_limit_s(), whole};
  Attempt made = co_await io.execute(target.provider, target.model, terms);
  AttemptRecord record;
  const double over_s = engine.clock.monotonic();
  tried = weigh(target, std::move(made), sent_s, over_s, record);
  keep(std::move(record));
  co_return true;
}

Tried Pass::weigh(const Target& target, Attempt made, double sent_s, double over_s,
                  AttemptRecord& record) {
  Tried tried;
  tried.start_s = sent_s;
  tried.latency_ms = (over_s - sent_s) * 1e3;
  record = {target.name,     target.model, sent_s - start_s,
            over_s - sent_s, made.status,  std::nullopt};
  if (made.ok()) {
    if (!request.streamed) {
      recording(target, [&] { target.provider->record_success(tried.latency_ms); });
    }
    judge(target, made, tried);
    if (tried.refused) record.fault = tried.refused->sub_category;
  } else {
    ApiFailure& failure = tried.failure.emplace(std::move(*made.failure));
    record.status = failure.status;
    record.fault = fault_label_of(failure.text, failure.status);
    tried.clients_fault = request.route && is_bad_request(failure.status, *record.fault);
    tried.cut = state.cut_by_deadline(over_s);
    if (tried.cut) state.stop_at_deadline();
    if (failure.retry_after_s) target.provider->leave_alone(*failure.retry_after_s);
  }
  return tried;
}

void Pass::note_lost(const Target& target, double sent_s) {
  const double lasted_s = engine.clock.monotonic() - sent_s;
  keep({target.name, target.model, sent_s - start_s, lasted_s, std::nullopt, kHedgeLost});
}

void Pass::keep(AttemptRecord record) {
  tell<AttemptEvent>(record);
  io.keep(std::move(record));
}

Task<Diagnosis> Pass::diagnose(const Target& target, const Tried& tried, const AdmittedSlot& slot) {
  Diagnosis fault;
  if (tried.refused) {
    fault = *tried.refused;
    co_await learn(fault.sub_category, "direct:" + target.name, false);
  } else {
    const ApiFailure& failure = *tried.failure;
    fault = engine.diagnoser.diagnose(failure.text, failure.status, failure.reading_s);
  }
  const std::string category(value_of(fault.category));
  if (tried.is_providers_fault()) {
    record_failure(target, tried.failure->text, category, &slot);
    target.provider->category_circuit_breaker(category)->record_failure(target.name);
  }
  engine.metrics.inc(metric::kFault + category);
  engine.metrics.observe(metric::kFaultLatency, engine.us_since(tried.start_s));
  tell<FaultEvent>(target.name, category, std::string(fault.fault_label()));
  co_return fault;
}

void Pass::settle(const Target& target, const Tried& tried, AdmittedSlot& slot) {
  if (request.streamed && tried.ok()) {
    io.hold(target.provider, std::move(slot));
  } else {
    slot.release();
  }
}

Demand Pass::demand() const {
  if (policy().validate != Validation::kAll || request.streamed) return Demand::kNothing;
  return domain() == SemanticDomain::kStrongEquivalence ? Demand::kContract : Demand::kContent;
}

bool Pass::judges_whole(bool elsewhere) const {
  if (!request.streamed || !io.has_contract()) return false;
  if (domain() == SemanticDomain::kStrongEquivalence) return true;
  return elsewhere && domain() == SemanticDomain::kTauNeighborhood && io.contract_has_schema();
}

void Pass::judge(const Target& target, const Attempt& answer, Tried& tried) {
  tried.answer_length = answer.answer_length;
  if (demand() == Demand::kNothing) return;
  if (answer.refused) {
    tried.refused = bad_answer(answer.refused);
  } else if (answer.empty) {
    io.refuse_empty(target.name);
    tried.refused = bad_answer("answer:empty");
  } else if (domain() != SemanticDomain::kOutOfBounds &&
             !holds_contract("Contract validation failed: ", tried.validation_passed)) {
    tried.refused = bad_answer("answer:contract");
    engine.metrics.inc(metric::kContractBroken);
  }
}

bool Pass::holds_contract(const std::string& message, std::optional<bool>& validation_passed) {
  if (!io.has_contract() || !judged_) return true;
  if (!validation_passed) {
    validation_passed = io.validate();
    if (*validation_passed) return true;
    if (domain() == SemanticDomain::kStrongEquivalence) {
      io.refuse_broken(message);
    } else {
      engine.metrics.inc(metric::kContractWarning);
    }
  }
  return *validation_passed || domain() != SemanticDomain::kStrongEquivalence;
}

void Pass::record_failure(const Target& target, const std::string& text,
                          const std::string& category, const AdmittedSlot* slot) {
  recording(target, [&] { tarvomeldric::record_failure(*target.provider, text, category, slot); });
}

template <class Record>
void Pass::recording(const Target& target, Record&& record) {
  if (!io.heard()) return record();
  const auto moved =
      breaker_move(*target.provider, target.name, call_id, std::forward<Record>(record));
  if (moved) io.tell(*moved);
}

Task<bool> Pass::sleep(double seconds, const char* reason) {
  if (!state.may_wait(seconds)) co_return false;
  tell<SleepEvent>(seconds, reason);
  co_await io.sleep(seconds);
  co_return true;
}

double Pass::left_alone_s(const ProviderPtr& provider) const {
  return policy().retry_after ? provider->left_alone_s() : 0.0;
}

Task<void> Pass::learn(std::string label, std::string action, bool success, double latency_ms) {
  return io.learn({std::move(label), std::move(action), success, latency_ms});
}

CallFailed Pass::out_of_time() {
  engine.metrics.inc(metric::kDeadline);
  return {CallFailed::Kind::kDeadline, {}};
}

CallFailed Pass::out_of_requests() {
  engine.metrics.inc(metric::kRequestsSpent);
  return {CallFailed::Kind::kNewestError, {}};
}

void Pass::tell_end(const CallOutcome* outcome) {
  if (!io.heard()) return;
  const char* how = "abandoned";
  if (outcome) how = std::holds_alternative<CallAnswered>(*outcome) ? "answered" : "failed";
  tell<EndEvent>(how, engine.clock.monotonic() - start_s, request.model, request.api_type,
                 io.tokens());
}

}  // namespace tarvomeldric
