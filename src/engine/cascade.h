#pragma once

#include "engine/admission.h"
#include "engine/outcome.h"
#include "engine/pass.h"
#include "support/task.h"

namespace tarvomeldric {

// The first attempt of a call, or the one of a race that counts. Once it is over its slot has been
// released; leave to test a breaker is kept until a failure is recorded.
struct FirstAttempt {
  Target target;
  Tried tried;
  AdmittedSlot slot;
  bool hedged = false;                    // whether a second provider was asked beside it
  std::optional<Diagnosis> fault = {};    // of a failure that is recorded already
  std::optional<std::string> other = {};  // that second provider, where it failed as well
};

// Heals a call whose first attempt a provider failed, or whose answer was refused: diagnoses the
// failure and updates the guards, then tries, in this order and as far as the fault allows,
//
//   L1  the same provider and model again, after growing delays, for transient faults
//   L2  the same provider with a cheaper model, once, for model and request faults
//   L3  the other providers (failover)
//
// A policy may ask the other providers first that have room at this moment, and L1 and L2 after
// them. A call out of the semantic bounds is not healed at all. Retries and the downgraded attempt
// are made without admission, unless the policy respects breakers or the provider's limiter charges
// every request: they hold no slot and spend no token. The pass outlives the task.
Task<CallOutcome> recover(Pass& pass, FirstAttempt failed);

}  // namespace tarvomeldric
