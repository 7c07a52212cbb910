#pragma once

#include "engine/call.h"
#include "engine/io.h"
#include "engine/outcome.h"
#include "support/task.h"

namespace tarvomeldric {

// The first attempt of a call, which a provider failed.
struct FailedAttempt {
  Target target;
  double start_s = 0.0;  // monotonic, seconds
  ApiFailure failure;
};

// Heals a call whose first attempt failed: diagnoses the failure and updates the guards, then
// tries, in this order and as far as the fault allows,
//
//   L1  the same provider and model again, after growing delays, for transient faults
//   L2  the same provider with a cheaper model, once, for model and request faults
//   L3  the other providers (failover)
//
// A call out of the semantic bounds is not healed at all. Retries and the downgraded attempt are
// made without admission: they hold no slot and spend no token. Everything handed in outlives the
// task.
Task<CallOutcome> recover(const CallRequest& request, Surroundings engine, Io& io, CallFacts& facts,
                          FailedAttempt failed);

}  // namespace tarvomeldric
