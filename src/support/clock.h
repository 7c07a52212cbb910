#pragma once

#include <chrono>

namespace tarvomeldric {

// Where guards, learner and traces read the time. Tests hand in a clock that they move by hand.
// Any thread.
class Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since the epoch, fractional; may step when the machine's clock is set.
  virtual double wall() const = 0;
  // Seconds of a high-resolution clock that never steps back; only differences mean anything.
  virtual double monotonic() const = 0;
};

const Clock& system_clock();

// The moment `seconds` from now, far in the future for a span that no clock can hold.
std::chrono::steady_clock::time_point steady_deadline(double seconds);

}  // namespace tarvomeldric
