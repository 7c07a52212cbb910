#include "guards/rate_limiter.h"

#include <algorithm>

namespace tarvomeldric {

RateLimiter::RateLimiter(const Clock& clock)
    : GuardedRecord(RateLimiterFields{.last_refill_s = clock.wall()}), clock_(clock) {}

bool RateLimiter::acquire(std::int64_t tokens) {
  MutexLock lock(mutex_);
  const double now = clock_.wall();
  const double elapsed = std::max(0.0, now - fields_.last_refill_s);
  fields_.tokens = std::min(static_cast<double>(fields_.max_tokens),
                            fields_.tokens + elapsed * fields_.refill_rate);
  fields_.last_refill_s = now;
  if (fields_.tokens < static_cast<double>(tokens)) {
    ++fields_.rejected;
    return false;
  }
  fields_.tokens -= static_cast<double>(tokens);
  return true;
}

void RateLimiter::refund() {
  MutexLock lock(mutex_, kUninterrupted);
  fields_.tokens += 1.0;
}

}  // namespace tarvomeldric
