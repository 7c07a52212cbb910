#pragma once

#include <cstdint>

#include "support/clock.h"
#include "support/guarded_record.h"

namespace tarvomeldric {

struct RateLimiterFields {
  std::int64_t max_tokens = 60;
  double refill_rate = 10.0;   // tokens a second
  double tokens = 60.0;        // as of `last_refill`
  double last_refill_s = 0.0;  // wall clock, seconds
  std::int64_t rejected = 0;
};

// A token bucket: a burst of `max_tokens`, then `refill_rate` a second. It answers at once,
// whatever the answer. Refilled when asked, on the wall clock; a clock that steps back counts as no
// time elapsed, so the level stays between 0 and `max_tokens`. Any thread.
class RateLimiter : public GuardedRecord<RateLimiterFields> {
 public:
  explicit RateLimiter(const Clock& clock = system_clock());
  explicit RateLimiter(RateLimiterFields fields, const Clock& clock = system_clock())
      : GuardedRecord(fields), clock_(clock) {}

  // Takes the tokens if they are there; a refusal is counted.
  bool acquire(std::int64_t tokens = 1);
  // Gives one token back, for an admission that came to nothing. Clean-up: waits uninterrupted.
  void refund();
  // The tokens that are there now. Looking changes nothing.
  double level() const;

 private:
  double level_locked(double now_s) const REQUIRES(mutex_);

  const Clock& clock_;
};

}  // namespace tarvomeldric
