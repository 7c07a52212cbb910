#include "guards/rate_limiter.h"

#include <algorithm>

namespace tarvomeldric {

RateLimiter::RateLimiter(const Clock& clock)
    : GuardedRecord(RateLimiterFields{.last_refill_s = clock.wall()}), clock_(clock) {}

bool RateLimiter::acquire(std::int64_t tokens) {
  MutexLock lock(mutex_);
  const double now_s = clock_.wall();
  fields_.tokens = level_locked(now_s);
  fields_.last_refill_s = now_s;
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

double RateLimiter::level() const {
  MutexLock lock(mutex_);
  return level_locked(clock_.wall());
}

double RateLimiter::level_locked(double now_s) const {
  const double elapsed_s = std::max(0.0, now_s - fields_.last_refill_s);
  return std::min(static_cast<double>(fields_.max_tokens),
                  fields_.tokens + elapsed_s * fields_.refill_rate);
}

}  // namespace tarvomeldric
