#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "support/bounded_queue.h"
#include "support/clock.h"
#include "support/guarded_record.h"

namespace tarvomeldric {

enum class CircuitState : std::uint8_t { kClosed, kOpen, kHalfOpen };

inline constexpr std::array<std::pair<const char*, const char*>, 3> kCircuitStates{{
    {"CLOSED", "closed"},
    {"OPEN", "open"},
    {"HALF_OPEN", "half_open"},
}};

constexpr std::string_view value_of(CircuitState state) {
  return kCircuitStates[static_cast<std::size_t>(state)].second;
}

// What a breaker is set to, and what it has counted.
struct CircuitBreakerFields {
  std::int64_t failure_threshold = 5;  // failures in a row that open it
  double error_rate_threshold = 0.5;   // share of failures in a full window that opens it
  std::int64_t window_size = 20;       // outcomes the window must hold before the rate counts
  double cooldown_seconds = 30.0;      // how long an open breaker bars traffic
  std::int64_t half_open_max = 1;      // probes allowed while half-open
  CircuitState state = CircuitState::kClosed;
  std::int64_t consecutive_fails = 0;
  BoundedQueue<bool, 20> window;  // true for a success
  double opened_at_s = 0.0;       // wall clock, seconds
  std::int64_t half_open_tries = 0;
  std::string last_provider;
  std::int64_t trip_count = 0;
};

// The read-out of a breaker.
struct CircuitSummary {
  CircuitState state;
  std::int64_t consecutive_fails;
  std::int64_t trip_count;
  std::int64_t window_errors;
  std::int64_t window_total;
};

// Bars traffic to what keeps failing. It opens on `failure_threshold` failures in a row, or when at
// least `error_rate_threshold` of a full window failed; an open breaker turns half-open when
// it is asked after the cooldown; a success then closes it, and the failure that reaches a
// threshold again opens it again.
//
//   breaker.record_failure("openai");
//   if (breaker.is_available()) { ... }
//
// Any thread; every operation holds the breaker's own lock for its whole duration. The cooldown
// runs on the wall clock: setting that back lengthens it.
class CircuitBreaker : public GuardedRecord<CircuitBreakerFields> {
 public:
  explicit CircuitBreaker(CircuitBreakerFields fields = {}, const Clock& clock = system_clock())
      : GuardedRecord(std::move(fields)), clock_(clock) {}

  void record_success();
  void record_failure(std::string_view provider = "");
  void trip();
  // Opens it, and sets the cooldown that suits the fault, for this and every later trip. A breaker
  // that is open already keeps the moment it opened.
  void trip_with_fault(std::string_view fault_category);

  bool is_available();
  // A call's leave to go through, for those who test a half-open breaker with `half_open_max`
  // requests at a time and no more. Nothing while it is open, or while others test it.
  static std::optional<class ProbePermit> pass(const std::shared_ptr<CircuitBreaker>& breaker);
  // Counts a probe while half-open; false in any other state. The gate is `is_available`.
  bool probe();
  CircuitState state();
  // The state as it stands, of one that has cooled down, too. Looking changes nothing.
  CircuitState standing_state() const;
  CircuitSummary summary();
  // Seconds for which an open breaker still bars traffic, 0 of any other. Looking changes nothing.
  double cooldown_left_s() const;

  // In the child of a fork nobody tests it.
  void renew_after_fork();

 private:
  friend class ProbePermit;
  void give_back_permit(std::uint64_t generation);

  void open_locked() REQUIRES(mutex_);
  void half_open_if_cooled_locked() REQUIRES(mutex_);
  bool failing_locked() const REQUIRES(mutex_);

  const Clock& clock_;
  std::int64_t permits_out_ GUARDED_BY(mutex_) = 0;
  std::uint64_t generation_ GUARDED_BY(mutex_) = 0;  // of permits; those of earlier ones are void
  const ForkMember member_{*this};
};

// The leave to go through a breaker, given back with its owner, however the attempt ends: a probe
// that is abandoned must not bar the provider for good. A closed breaker needs none, and gives one
// that is empty. Of one thread at a time.
class ProbePermit {
 public:
  ProbePermit() = default;
  ProbePermit(std::shared_ptr<CircuitBreaker> tested, std::uint64_t generation)
      : tested_(std::move(tested)), generation_(generation) {}
  ProbePermit(ProbePermit&&) noexcept = default;
  ProbePermit& operator=(ProbePermit&& other) noexcept {
    std::swap(tested_, other.tested_);
    std::swap(generation_, other.generation_);
    return *this;
  }
  ~ProbePermit() {
    if (tested_) tested_->give_back_permit(generation_);
  }

  // The breaker that the attempt tests, null when it was closed.
  CircuitBreaker* tested() const { return tested_.get(); }

 private:
  std::shared_ptr<CircuitBreaker> tested_;
  std::uint64_t generation_ = 0;
};

// Seconds; also the table behind `trip_with_fault`.
double cooldown_for(std::string_view fault_category);

}  // namespace tarvomeldric
