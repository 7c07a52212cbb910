#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace tarvomeldric {

// One request that a call sent, and what became of it.
struct AttemptRecord {
  std::string provider;
  std::string model;
  double start_s = 0.0;     // seconds after the call's own start
  double duration_s = 0.0;  // seconds
  std::optional<std::int64_t> status;
  std::optional<std::string> fault;  // its label; nothing of an attempt that answered
};

// In the place of a fault's label: the request was ended, because another one had answered.
inline constexpr char kHedgeLost[] = "hedge_lost";

// What happens in a call, told while it happens to those who listen. `call_id` is the name of the
// call in its trace.
struct AttemptEvent {
  std::string call_id;
  AttemptRecord attempt;
};
// A failure was diagnosed.
struct FaultEvent {
  std::string call_id;
  std::string provider;
  std::string category;
  std::string label;
};
// The call is about to wait.
struct SleepEvent {
  std::string call_id;
  double seconds = 0.0;
  std::string reason;  // "back_pressure", "retry" or "retry_after"
};
// A provider's guards did not let the call in.
struct RefusalEvent {
  std::string call_id;
  std::string provider;
  std::string reason;  // "admission" or "category_breaker"
};
// A breaker changed with what this call recorded.
struct BreakerEvent {
  std::string call_id;
  std::string provider;
  std::string before;
  std::string after;
};
// The call was healed.
struct HealEvent {
  std::string call_id;
  std::string provider;
  std::string model;
  std::string level;
  std::string fault;
};
// The tokens that a provider counted for an answer, where it did.
struct TokenUsage {
  std::optional<std::int64_t> input;
  std::optional<std::int64_t> output;
};
// The call is over, and with it an answer that was streamed; told once, last.
struct EndEvent {
  std::string call_id;
  std::string outcome;  // "answered", "failed", or "abandoned" in the middle
  double duration_s = 0.0;
  std::string model = {};  // that the caller asked for; empty where the engine chose
  std::string api_type = {};
  TokenUsage tokens = {};
  std::optional<double> first_output_s = {};  // of a streamed answer, after the call's start
};

using CallEvent = std::variant<AttemptEvent, FaultEvent, SleepEvent, RefusalEvent, BreakerEvent,
                               HealEvent, EndEvent>;

}  // namespace tarvomeldric
