#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "diagnosis/diagnoser.h"
#include "engine/trace.h"
#include "semantic/topology.h"

namespace tarvomeldric {

// A call that was answered. The answer itself stays with the `Io`: nothing here looks inside it.
struct CallAnswered {
  std::string provider;
  std::string model;
  std::string original_provider;
  std::string original_model;
  double latency_ms = 0.0;
  std::string heal_level;  // empty for a plain first-attempt success
  SemanticDomain domain = SemanticDomain::kTauNeighborhood;
  std::optional<Diagnosis> fault;  // of a healed call
  bool downgraded = false;
  std::optional<bool> validation_passed;  // null when no contract was applied
  std::optional<MapeKTrace> trace;
};

// A call that ended without an answer.
struct CallFailed {
  enum class Kind : std::uint8_t {
    kRefused,        // no provider took the request; `message` says why
    kProviderError,  // the error that the `Io` kept of the last failed attempt
    kOutOfBounds,    // a fault in a call that must not be healed
    kContract,       // healed output broke its contract; the `Io` keeps the verdict for the message
    kDrift,          // healed output drifted in structure
  };
  Kind kind;
  std::string message;
  std::string domain = {};  // with kOutOfBounds, like the reason
  std::string reason = {};
};

using CallOutcome = std::variant<CallAnswered, CallFailed>;

}  // namespace tarvomeldric
