#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "diagnosis/diagnoser.h"
#include "semantic/topology.h"

namespace tarvomeldric {

// What is said of an answer: where it came from and how it came about.
struct Answer {
  std::string provider;
  std::string model;
  bool success = true;
  std::string original_provider;
  std::string original_model;
  double latency_ms = 0.0;
  bool from_cache = false;
  bool downgraded = false;
  std::string heal_level;  // empty for a plain first-attempt success
  std::string semantic_domain;
  bool hedged = false;  // a second provider was asked before the first one was done
  std::optional<bool> validation_passed;  // null when no contract was applied
};

// A call that was answered. The answer's text stays with the `Io`: nothing here looks inside it.
struct CallAnswered {
  Answer answer;
  std::optional<Diagnosis> fault;  // of a healed call
};

// A call that ended without an answer.
struct CallFailed {
  enum class Kind : std::uint8_t {
    kNoProvider,   // nobody can be asked; `message` says why, like in the next two
    kBusy,         // nobody has room for the request
    kAllFailed,    // nobody was left to be asked after a fault
    kNewestError,  // the error that the `Io` keeps of the newest attempt
    kOutOfBounds,  // a fault in a call that must not be healed
    kDrift,        // healed output drifted in structure
    kDeadline,     // the policy's time is over
  };
  Kind kind;
  std::string message;
  std::string domain = {};  // with kOutOfBounds, like the reason
  std::string reason = {};
};

using CallOutcome = std::variant<CallAnswered, CallFailed>;

}  // namespace tarvomeldric
