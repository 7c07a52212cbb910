#pragma once

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/call.h"
#include "engine/io.h"
#include "host/calls/engine.h"
#include "host/calls/exchange.h"
#include "host/interpreter/collected.h"
#include "host/interpreter/coroutine.h"
#include "host/interpreter/python.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

struct Raced;
class BlockingRace;

// One call as Python code made it: its arguments, the members of the engine that it works with, and
// what its attempts left behind. The Python objects are members, visible to the garbage collector
// while the call is suspended.
struct CallState {
  nb::object engine;
  nb::object prompt;
  nb::object contract;
  nb::object options;   // of every execution, `api_type` included
  nb::object relayed;   // gives the body, as bytes, for a model; null where the prompt is sent
  nb::object headers;   // that go along with such a body
  nb::object settings;  // of the package's own stream, where the answer is streamed
  nb::object lease;     // what such an answer holds of its provider

  Parts parts;
  std::optional<PythonRegistry> registry;

  nb::object answer = nb::none();
  nb::object raw_response;  // of a native exchange
  nb::object report;        // of exchanges below a replacement of the execution
  nb::object response;      // the decoded body of the latest answer
  nb::object error;         // the newest, of a failed attempt or a refused answer
  nb::object verdict;       // of the contract on the latest answer
  nb::object fault;         // the diagnosis that Python code handed in, where it did
  nb::object given_trace;   // and its trace
  Exchange exchange;
  nb::object race;  // what the two requests of a race are waited for by
  std::shared_ptr<Raced> raced_first, raced_second;
  nb::object abort;                   // what a request that is under way in this thread is ended by
  nb::object policy;                  // None for a call on the engine itself
  bool own_error = false;             // whether `error` was made here
  std::shared_ptr<MapeKTrace> trace;  // of a call from its beginning
  std::vector<AttemptRecord> attempts;
  std::optional<std::string> untold_end;  // the name of a call that was told of, but not its end
  std::optional<EndEvent> owed_end;       // of a stream, to be told once its answer has been read

  Engine& native() const { return *nb::inst_ptr<Engine>(engine); }
  // Takes hold of the engine's parts; type errors name one of the wrong type.
  Surroundings surroundings();
  const CallPolicy& asked_policy() const;
  auto held() {
    return std::tie(engine, prompt, contract, options, relayed, headers, answer, raw_response,
                    report, response, policy, error, verdict, fault, given_trace, settings, lease,
                    race, abort, parts, exchange, raced_first, raced_second);
  }
};

// Whether anybody listens; the garbage collector may have taken the listeners away.
inline bool is_observed(const Engine& engine) {
  return engine.observations.is_valid() && PyTuple_GET_SIZE(engine.observations.ptr()) != 0;
}

// Tells those who listen to the engine. Remembers a call whose end is still to be told.
void tell_of(CallState& state, const CallEvent& event);

// What came of one request of a race, and the state that it left. Nothing while it is under way.
struct Raced {
  std::optional<Finish> finish;
  bool good = false;  // its answer meets what was demanded, as far as it is one
  CallState state;
};
inline int visit_python(const std::shared_ptr<Raced>& raced, visitproc visit, void* arg) {
  return raced ? visit_python(raced->state, visit, arg) : 0;
}

// An operation of the engine that Python code may replace, and the engine's own form of it.
// Both members are set when the engine is bound, and stay.
struct Seam {
  nb::handle name;
  nb::handle native;
};
inline Seam execute_sync_seam;
inline Seam execute_seam;

// The execution of attempts: the replacement that a subclass or an instance put in place of the
// engine's own execution, else the native exchange, which is all that a stream has. With a
// suspension it suspends the call's coroutine, on the loop's thread; without one it blocks the
// calling thread, and every await is ready at once. Of one call, with the interpreter lock held.
class CallIo final : public Io {
 public:
  CallIo(CallState& state, Suspension* suspension) : state_(state), suspension_(suspension) {}
  Task<Attempt> execute(ProviderPtr provider, std::string model, AttemptTerms terms) override;
  bool may_race(const ProviderPtr& provider) const override;
  Task<Finish> race(Leg first, double patience_s, Rival& rival) override {
    return suspension_ ? race_tasks(std::move(first), patience_s, rival)
                       : race_threads(std::move(first), patience_s, rival);
  }
  Task<Finish> other() override;
  std::optional<Finish> end_race() override;
  void leave_race() noexcept override;
  // The label of what is wrong with an answer, by what is demanded of it; null when nothing is.
  const char* objection(Demand demand, const Attempt& made);
  // Closes a streamed answer that nobody wants.
  static void discard(const CallState& left);
  void hold(const ProviderPtr& provider, AdmittedSlot slot) override;
  Task<void> sleep(double seconds) override;
  Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout_s) override;
  Task<void> learn(Outcome outcome) override;
  Task<void> advise(std::string error_pattern, std::optional<Advice>& advice) override;
  bool has_contract() const override { return !state_.contract.is_none(); }
  bool contract_has_schema() const override;
  bool validate() override;
  void refuse_empty(const std::string& provider) override;
  void refuse_broken(const std::string& message) override;
  void report(const Recovery& recovery) override;
  void keep(AttemptRecord attempt) override { state_.attempts.push_back(std::move(attempt)); }
  bool heard() const override { return is_observed(state_.native()); }
  void tell(const CallEvent& event) override;
  TokenUsage tokens() const override;

 private:
  PythonLearner& learner() const { return *nb::inst_ptr<PythonLearner>(state_.parts.learner); }
  // Leaves the answer in the call's state.
  Task<void> perform(const ProviderPtr& provider, const std::string& model, AttemptTerms terms);

  // The replacement of the engine's own execution, or null.
  nb::object replacement() const;
  nb::object call_replacement(nb::handle replacement, const ProviderPtr& provider,
                              const std::string& model) const;
  Task<void> await_replacement(nb::object answering, ContextValue context, double limit_s,
                               double end_s, std::string provider);
  void prepare_exchange(ProviderConfig& provider, const std::string& model, AttemptTerms terms);
  // Where exchanges below the replacement of the execution leave what they received.
  ContextValue open_report(double limit_s);
  Task<void> sleep_awaited(double seconds);
  // Whether waiting for the learner could cost the call its deadline.
  bool hurried() const { return state_.asked_policy().deadline_s.has_value(); }
  void learn_later(Outcome outcome);
  Task<void> learn_in_worker(Outcome outcome);
  Task<void> advise_in_worker(std::string error_pattern, std::optional<Advice>& advice);
  Task<Finish> race_tasks(Leg first, double patience_s, Rival& rival);
  Task<Finish> race_threads(Leg first, double patience_s, Rival& rival);
  // Takes what came of a request of a race as the newest of the call.
  Finish adopt(Raced& raced);
  // What the latest exchange received: "status", "headers" or "body"; None without one.
  nb::object received(nb::handle what) const;
  void put_newest(nb::object error);

  CallState& state_;
  Suspension* suspension_;
  std::shared_ptr<BlockingRace> race_;
};

}  // namespace tarvomeldric::host
