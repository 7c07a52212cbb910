#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "diagnosis/diagnoser.h"
#include "engine/outcome.h"
#include "engine/pass.h"

namespace tarvomeldric {

// The call that moves to another provider, as Python code may start it by hand.
struct FailoverRequest {
  CallRequest call;             // its prompt's length and model count
  std::string failed_provider;  // not tried again
  Diagnosis diagnosis;
  CallFacts facts;
};

// How a step of healing ended the call; nothing when the next step is due.
using Healed = std::optional<CallOutcome>;

// The order of failover candidates: health, what the learner advises for this kind of fault, and
// measured latency. Higher is better.
double provider_priority(const NamedProvider& candidate, const std::optional<Advice>& advice);

// L3: tries the other available providers, best first, one after the other, until one answers;
// checks its answer against the caller's contract and for drift. No provider is sent the request
// twice. Of one call.
class Failover {
 public:
  // The pass outlives it.
  Failover(Pass& pass, std::string failed_provider)
      : pass_(pass), asked_{std::move(failed_provider)} {}

  // Nobody of this name is asked any more.
  void leave_out(const std::string& provider) { asked_.insert(provider); }

  // Those who have a free slot and a token at this moment.
  Task<Healed> at_once(Diagnosis fault);
  // All who have not been asked yet; waits a second for each one's slot.
  Task<Healed> in_turn(Diagnosis fault);
  // How the call ends after both.
  Task<CallOutcome> give_up(Diagnosis fault);

 private:
  enum class Patience { kNone, kSome };

  SemanticDomain domain() const { return pass_.domain(); }
  std::string category() const { return std::string(value_of(fault_.category)); }

  Task<Healed> go_through(Diagnosis fault, Patience patience);
  Task<std::vector<NamedProvider>> candidates() const;
  Task<bool> wait_for(const NamedProvider& candidate, Patience patience);
  Task<Healed> try_candidate(const NamedProvider& candidate, Patience patience);
  Task<Healed> judge(const Target& target, Tried& tried);
  Task<CallOutcome> heal(Target target, const Tried& tried);
  Task<void> learn(std::string action, bool success, double latency_ms = 0.0);
  void close_trace(const char* execute_result);

  Pass& pass_;
  const Surroundings& engine_ = pass_.engine;
  std::set<std::string> asked_;
  Diagnosis fault_;  // that the call moves away from
  bool any_failed_ = false;
};

// A failover by hand. What is handed in outlives the task.
Task<void> run_failover(const FailoverRequest& request, Surroundings engine, Io& io,
                        CallOutcome& outcome);

}  // namespace tarvomeldric
