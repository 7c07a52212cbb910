#pragma once

#include <optional>
#include <string>

#include "diagnosis/diagnoser.h"
#include "engine/io.h"
#include "engine/outcome.h"
#include "engine/trace.h"
#include "flywheel/learner.h"
#include "observability/metrics_collector.h"
#include "providers/engine_counters.h"
#include "providers/registry.h"
#include "semantic/topology.h"
#include "support/clock.h"

namespace tarvomeldric {

// What the caller asked for, as far as it steers the call. The prompt and the other options travel
// with the `Io`.
struct CallRequest {
  std::optional<std::string> request_id;  // a fresh one is made when there is none
  std::string model;       // empty: model resolution chooses
  std::string task_type;
  bool has_schema = false;
  bool structured_output = false;
  std::optional<SemanticDomain> semantic_domain;
  double bulkhead_timeout = 1.0;  // seconds
};

// The members of the engine that a call works with. They outlive the call.
struct Surroundings {
  const Registry& registry;
  const SemanticTopology& topology;
  Diagnoser& diagnoser;
  FlywheelLearner& learner;
  MetricsCollector& metrics;
  EngineCounters& counters;
  const Clock& clock = system_clock();
};

// One pass through the loop, from the prompt to an answer or an error. The request, the surroundings
// and the `Io` outlive the task; a task that is abandoned gives back what it holds.
Task<CallOutcome> run_call(const CallRequest& request, Surroundings engine, Io& io);

// Eight random lower-case hexadecimal digits.
std::string fresh_request_id();

}  // namespace tarvomeldric
