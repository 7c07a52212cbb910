#pragma once

#include <optional>
#include <string>

#include "engine/admission.h"
#include "engine/call.h"
#include "engine/policy_state.h"

namespace tarvomeldric {

// A request that was sent, and what became of it. A failure is the provider's; an answer is refused
// when the policy looks at every answer and this one is no good.
struct Tried {
  std::optional<ApiFailure> failure;
  std::optional<Diagnosis> refused;
  std::size_t answer_length = 0;          // characters
  std::optional<bool> validation_passed;  // null when the contract has not been applied
  double start_s = 0.0;                   // monotonic, seconds
  double latency_ms = 0.0;
  bool cut = false;            // by the deadline, so that nobody is to blame
  bool clients_fault = false;  // what is wrong is the body, which somebody else's client wrote

  bool ok() const { return !failure && !refused; }
  bool is_providers_fault() const { return failure && !cut && !clients_fault; }
};

// Whether a fault is that of an answer which was refused: the provider is well.
bool is_bad_answer(const Diagnosis& fault);

// One call on its way through the stages: what was asked, what it works with, and the steps that
// all stages have in common. What the policy says about a step is decided here, so that the stages
// read the same with any policy. What is handed in outlives it; of one call, and so of one thread
// at a time.
struct Pass {
  Pass(const CallRequest& asked, Surroundings surroundings, Io& serving, CallFacts settled);
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  const CallPolicy& policy() const { return state.policy(); }
  SemanticDomain domain() const { return facts.classification.domain; }

  // A token and a slot, and leave to test the breaker where that is respected; nothing when
  // refused.
  Task<std::optional<AdmittedSlot>> admit(const Target& target, double wait_s);
  // What of these can be had without waiting; listeners hear of no refusal.
  std::optional<AdmittedSlot> admit_now(const Target& target);
  // Sends one request, and puts down what became of it; false when the policy forbids another one.
  // An answer is recorded with the guards, unless it is still being streamed. `whole`: such a one
  // is wanted to its end first.
  Task<bool> attempt(const Target& target, Tried& tried, bool whole = false);
  // What was sent and came out, each moment on the monotonic clock in seconds. An answer is
  // recorded as above; the record is for `keep`.
  Tried weigh(const Target& target, Attempt made, double sent_s, double over_s,
              AttemptRecord& record);
  // Tells of a request that is over, and keeps its record.
  void keep(AttemptRecord record);
  // The same of a request that was ended because another one was faster: nobody is to blame.
  void note_lost(const Target& target, double sent_s);
  // What a failed attempt comes down to; the guards hear of it, and the learner of a bad answer.
  Task<Diagnosis> diagnose(const Target& target, const Tried& tried, const AdmittedSlot& slot);
  // Gives the slot back once the attempt is over; that of a streamed answer goes along with it.
  void settle(const Target& target, const Tried& tried, AdmittedSlot& slot);
  // Whether retries need a token and a slot of their own.
  bool admits_retries(const Target& target) const {
    return policy().respect_breakers || request.streamed ||
           target.provider->rate_limiter()->charges_every_request();
  }
  void record_failure(const Target& target, const std::string& text, const std::string& category,
                      const AdmittedSlot* slot = nullptr);
  // Whether the wait was made; one that would end after the deadline is not begun.
  Task<bool> sleep(double seconds, const char* reason);
  // What the times of such a request belong to.
  std::string lane_of(const Target& target) const {
    return HedgeBook::lane(target.name, target.model, request.streamed);
  }
  // How long the provider wants to be left alone, where the policy heeds that.
  double left_alone_s(const ProviderPtr& provider) const;
  Task<void> learn(std::string label, std::string action, bool success, double latency_ms = 0.0);

  // What an answer must be not to be refused.
  Demand demand() const;
  // Whether a healed answer's verdict could end the call, so that it is wanted whole.
  bool judges_whole(bool elsewhere) const;
  // Holds an answer against the caller's contract: false, and kept as the newest error, for one
  // that breaks it in an exact domain; elsewhere that is only counted.
  bool holds_contract(const std::string& message, std::optional<bool>& validation_passed);
  // What a call ends with that ran out of time, or of requests.
  CallFailed out_of_time();
  CallFailed out_of_requests();

  template <class Event, class... Parts>
  void tell(Parts&&... parts) {
    if (io.heard()) io.tell(Event{call_id, std::forward<Parts>(parts)...});
  }
  // Null for a call that was left in the middle.
  void tell_end(const CallOutcome* outcome);

  const CallRequest& request;
  Surroundings engine;
  Io& io;
  CallFacts facts;
  const double start_s;       // monotonic, seconds
  const std::string call_id;  // as the trace has it, where there is one
  PolicyState state;
  Candidates candidates;

 private:
  bool judged_ = true;  // whether the newest answer is there to be held against the contract
  bool may_pass(const Target& target) const;
  void keep_permit(const Target& target, std::optional<AdmittedSlot>& slot);
  void judge(const Target& target, const Attempt& answer, Tried& tried);
  template <class Record>
  void recording(const Target& target, Record&& record);
};

}  // namespace tarvomeldric
