#pragma once

#include <cstdint>

#include "support/clock.h"
#include "support/guarded_record.h"

namespace tarvomeldric {

// What a limiter is set to, and what it has left.
struct RateLimiterFields {
  std::int64_t max_tokens = 60;
  double refill_rate = 10.0;   // tokens a second
  double tokens = 60.0;        // as of `last_refill_s`
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
  virtual ~RateLimiter() = default;

  // Takes the tokens if they are there; a refusal is counted.
  virtual bool acquire(std::int64_t tokens);
  bool acquire() { return acquire(1); }
  // Gives one token back, for an admission that came to nothing. Clean-up: waits uninterrupted.
  virtual void refund();
  // The tokens that are there now. Looking changes nothing.
  double level() const;

  // Whether retries are charged, too, which by themselves spend no token.
  virtual bool charges_every_request() const { return false; }
  // A limiter that others share tells them how long the provider wants to be left alone, and says
  // what they told.
  virtual void leave_alone(double) {}
  virtual double left_alone_s() const { return 0.0; }

 private:
  double level_locked(double now_s) const REQUIRES(mutex_);

  const Clock& clock_;
};

}  // namespace tarvomeldric
