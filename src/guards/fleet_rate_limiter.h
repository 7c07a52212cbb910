#pragma once

#include <cstdint>
#include <functional>

#include "guards/fleet_share.h"
#include "guards/rate_limiter.h"
#include "support/fork.h"
#include "support/random.h"

namespace tarvomeldric {

// A rate limiter whose tokens come from a bucket that a fleet of processes has in common. Nothing
// here waits for Redis: somebody else carries what `ask` says to it and back, when `due_s` says so
// or `ring` is called, and what is not there yet is refused. Any thread.
class FleetRateLimiter : public RateLimiter {
 public:
  struct Figures {
    std::int64_t members, most, holding;
    double owed;
    bool connected;
  };

  // `ring` is called, with no lock held, when tokens run low and an exchange would help.
  FleetRateLimiter(double tokens_a_second, std::int64_t burst, bool shares_retry_after,
                   std::function<void()> ring, const Clock& clock = system_clock(),
                   const Random& random = system_random());

  using RateLimiter::acquire;
  bool acquire(std::int64_t tokens) override;
  void refund() override;
  bool charges_every_request() const override { return true; }
  void leave_alone(double seconds) override;
  double left_alone_s() const override;

  double due_s() const;
  FleetRequest ask();
  void settle(const FleetReply& reply);
  void fail();
  Figures figures();

  // The tokens are the parent's, and so is who asks for more.
  void renew_after_fork();

 private:
  void show_locked() REQUIRES(mutex_);

  const Clock& clock_;
  const Random& random_;
  const bool shares_retry_after_;
  const std::function<void()> ring_;
  FleetShare share_ GUARDED_BY(mutex_);
  bool rung_ GUARDED_BY(mutex_) = false;
  const FleetShare unused_;
  const ForkMember member_{*this};
};

}  // namespace tarvomeldric
