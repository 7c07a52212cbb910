#pragma once

#include <cstddef>
#include <string>

#include "diagnosis/diagnoser.h"
#include "engine/call.h"
#include "engine/outcome.h"
#include "engine/trace.h"
#include "semantic/topology.h"

namespace tarvomeldric {

// The call that moves to another provider.
struct FailoverRequest {
  std::size_t prompt_length = 0;  // characters
  std::string model;              // as the caller asked for it; empty when they did not
  std::string failed_provider;    // not tried again
  Diagnosis diagnosis;
  CallFacts facts;
};

// The order of failover candidates: health, what the learner advises for this kind of fault, and
// measured latency. Higher is better.
double provider_priority(const NamedProvider& candidate, const std::optional<Advice>& advice);

// L3: tries every other available provider, best first, one after the other, until one answers;
// checks its answer against the caller's contract and for drift. What is handed in outlives the
// task.
Task<CallOutcome> run_failover(const FailoverRequest& request, Surroundings engine, Io& io);

}  // namespace tarvomeldric
