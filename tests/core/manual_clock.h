#pragma once

#include "support/clock.h"

namespace tarvomeldric {

// A clock that stands still until a test moves it.
class ManualClock final : public Clock {
 public:
  double wall() const override { return wall_; }
  double monotonic() const override { return monotonic_; }
  void advance(double seconds) { wall_ += seconds, monotonic_ += seconds; }
  void step_wall(double seconds) { wall_ += seconds; }  // as when the machine's clock is set

 private:
  double wall_ = 1.0e9, monotonic_ = 1000.0;
};

}  // namespace tarvomeldric
