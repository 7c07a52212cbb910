#include "guards/fleet_rate_limiter.h"

#include <utility>

namespace tarvomeldric {

FleetRateLimiter::FleetRateLimiter(double tokens_a_second, std::int64_t burst,
                                   bool shares_retry_after, std::function<void()> ring,
                                   const Clock& clock, const Random& random)
    : RateLimiter({.max_tokens = burst, .refill_rate = 0.0, .tokens = 0.0}, clock),
      clock_(clock),
      random_(random),
      shares_retry_after_(shares_retry_after),
      ring_(std::move(ring)),
      share_(tokens_a_second, burst),
      unused_(share_) {}

bool FleetRateLimiter::acquire(std::int64_t tokens) {
  bool taken = false, rings = false;
  {
    MutexLock lock(mutex_);
    const double now_s = clock_.monotonic();
    taken = share_.take(tokens, now_s);
    if (!taken) ++fields_.rejected;
    show_locked();
    rings = !rung_ && share_.due_s(now_s) <= 0;
    rung_ = rung_ || rings;
  }
  if (rings) ring_();
  return taken;
}

void FleetRateLimiter::refund() {
  MutexLock lock(mutex_, kUninterrupted);
  share_.put_back(clock_.monotonic());
  show_locked();
}

void FleetRateLimiter::leave_alone(double seconds) {
  if (!shares_retry_after_) return;
  MutexLock lock(mutex_);
  share_.leave_alone(seconds, clock_.monotonic());
}

double FleetRateLimiter::left_alone_s() const {
  if (!shares_retry_after_) return 0.0;
  MutexLock lock(mutex_);
  return share_.left_alone_s(clock_.monotonic());
}

double FleetRateLimiter::due_s() const {
  MutexLock lock(mutex_);
  return share_.due_s(clock_.monotonic());
}

FleetRequest FleetRateLimiter::ask() {
  MutexLock lock(mutex_);
  rung_ = false;
  FleetRequest request = share_.ask(clock_.monotonic());
  show_locked();
  return request;
}

void FleetRateLimiter::settle(const FleetReply& reply) {
  MutexLock lock(mutex_);
  share_.settle(reply, clock_.monotonic(), random_.uniform());
  show_locked();
}

void FleetRateLimiter::fail() {
  MutexLock lock(mutex_);
  rung_ = false;
  share_.fail(clock_.monotonic(), random_.uniform());
}

FleetRateLimiter::Figures FleetRateLimiter::figures() {
  MutexLock lock(mutex_);
  show_locked();
  return {share_.members(), share_.most(), share_.holding(clock_.monotonic()), share_.owed(),
          share_.connected()};
}

void FleetRateLimiter::renew_after_fork() NO_THREAD_SAFETY_ANALYSIS {
  share_ = unused_;
  rung_ = false;
  fields_.tokens = 0.0;
}

// What read-outs and Python see of the share.
void FleetRateLimiter::show_locked() {
  fields_.tokens = static_cast<double>(share_.holding(clock_.monotonic()));
  fields_.last_refill_s = clock_.wall();
}

}  // namespace tarvomeldric
