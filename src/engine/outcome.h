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
  MapeKTrace trace;
};

// A call that ended without an answer.
struct CallFailed {
  enum class Kind : std::uint8_t {
    kRefused,        // no provider took the request; `message` says why
    kProviderError,  // the error that the `Io` kept of the last failed attempt
  };
  Kind kind;
  std::string message;
};

using CallOutcome = std::variant<CallAnswered, CallFailed>;

}  // namespace tarvomeldric
