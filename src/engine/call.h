#pragma once

#include <optional>
#include <string>

#include "diagnosis/diagnoser.h"
#include "engine/candidates.h"
#include "engine/io.h"
#include "engine/outcome.h"
#include "engine/policy.h"
#include "engine/trace.h"
#include "flywheel/learner.h"
#include "guards/hedge_book.h"
#include "observability/metrics_collector.h"
#include "providers/engine_counters.h"
#include "providers/registry.h"
#include "semantic/topology.h"
#include "support/clock.h"
#include "support/random.h"

namespace tarvomeldric {

// The policy of a call that asked for none.
const CallPolicy& default_policy();

// What the caller asked for, as far as it steers the call. The prompt and the other options travel
// with the `Io`.
struct CallRequest {
  std::optional<std::string> request_id;  // a fresh one is made when there is none
  std::size_t prompt_length = 0;          // characters
  std::string model;                      // empty: model resolution chooses
  std::string api_type = "chat";
  std::string task_type;
  bool has_schema = false;
  bool structured_output = false;
  std::optional<SemanticDomain> semantic_domain;
  double bulkhead_timeout_s = 1.0;               // seconds
  bool streamed = false;                         // answered from the first output on
  std::optional<Route> route;                    // of the model, by which it is sent then
  const CallPolicy* policy = &default_policy();  // outlives the call
};

// The members of the engine that a call works with. They outlive the call.
struct Surroundings {
  const Registry& registry;
  const SemanticTopology& topology;
  Diagnoser& diagnoser;
  FlywheelLearner& learner;
  MetricsCollector& metrics;
  EngineCounters& counters;
  HedgeBook& hedging;
  const Clock& clock = system_clock();
  const Random& random = system_random();

  double us_since(double moment_s) const { return (clock.monotonic() - moment_s) * 1e6; }
};

// What is settled about a call before its first attempt, and the trace that goes with it.
struct CallFacts {
  SemanticClassification classification;
  std::string original_provider;
  std::string original_model;
  double start_s = 0.0;         // monotonic, seconds; 0 when unknown
  MapeKTrace* trace = nullptr;  // left alone when null

  // What is said of an answer by this target; the level that healed the call adds how.
  Answer answered_by(const Target& target, double latency_ms, const char* heal_level) const;
};

// One pass through the loop, from the prompt to an answer or an error, which is put down in
// `outcome`. The request, the surroundings, the `Io`, the outcome and the trace, which is fresh,
// outlive the task; a task that is abandoned gives back what it holds.
Task<void> run_call(const CallRequest& request, Surroundings engine, Io& io, MapeKTrace& trace,
                    CallOutcome& outcome);

// Eight random lower-case hexadecimal digits.
std::string fresh_request_id();

}  // namespace tarvomeldric
