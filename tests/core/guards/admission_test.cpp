#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <vector>

#include "guards/bulkhead.h"
#include "guards/rate_limiter.h"
#include "guards/semaphore.h"
#include "manual_clock.h"

namespace tarvomeldric {
namespace {

// One in line who is not a thread, and looks when the test says so.
struct Guest final : Semaphore::Waiter {
  explicit Guest(bool can_be_woken) : reachable(can_be_woken) {}
  bool wake() override { return ++wakes, reachable; }
  std::atomic<int> wakes{0};
  const bool reachable;
};
using GuestPtr = std::shared_ptr<Guest>;

// All permits are taken, and nobody has waited yet.
struct SemaphoreTest : ::testing::Test {
  GuestPtr arrive(bool reachable = true) {
    semaphore.join(guests.emplace_back(std::make_shared<Guest>(reachable)));
    return guests.back();
  }
  std::vector<GuestPtr> guests;
  ManualClock clock;
  Semaphore semaphore{0, clock};
};

TEST_F(SemaphoreTest, ReleaseWakesTheFirstWhoCanBeWoken) {
  const GuestPtr gone = arrive(false), first = arrive(), second = arrive();
  semaphore.release();
  EXPECT_TRUE(first->wakes == 1 && second->wakes == 0);
  EXPECT_FALSE(semaphore.look(*second));
  EXPECT_TRUE(semaphore.look(*first));
  semaphore.leave(*second);
  arrive(false);
  semaphore.join(std::make_shared<Guest>(true));  // destroyed at once
  semaphore.release();
  EXPECT_TRUE(semaphore.try_acquire());
}

TEST_F(SemaphoreTest, OneWhoLeavesAfterBeingWokenPassesTheWakeOn) {
  const GuestPtr first = arrive(), second = arrive(), third = arrive();
  semaphore.leave(*second);
  semaphore.release();
  semaphore.leave(*first);
  EXPECT_TRUE(second->wakes == 0 && third->wakes == 1);
  semaphore.release();
  EXPECT_TRUE(semaphore.try_acquire() && !semaphore.try_acquire());  // behind the third
  EXPECT_TRUE(semaphore.look(*third));
}

TEST_F(SemaphoreTest, WhoJoinsIsWokenForAFreePermitAndGoesBehindOnJoiningAgain) {
  semaphore.release();
  const GuestPtr first = arrive(), second = arrive();
  EXPECT_TRUE(first->wakes == 1 && second->wakes == 0);
  semaphore.join(first);
  EXPECT_EQ(second->wakes, 1);
  EXPECT_TRUE(semaphore.look(*second) && !semaphore.look(*first));
  semaphore.leave(*first);
  semaphore.join(first);
  semaphore.release();
  EXPECT_EQ(first->wakes, 2);
}

TEST_F(SemaphoreTest, OneWhoDoesNotComeHoldsTheOthersUpForAMomentOnly) {
  const GuestPtr lost = arrive(), other = arrive();
  semaphore.release();
  clock.advance(Semaphore::kGrace / 2);
  EXPECT_FALSE(semaphore.look(*other) || semaphore.try_acquire());
  clock.advance(Semaphore::kGrace);
  EXPECT_TRUE(semaphore.look(*other));
  semaphore.leave(*other);
  semaphore.release();
  EXPECT_TRUE(semaphore.try_acquire());
  EXPECT_FALSE(semaphore.look(*lost));
}

TEST_F(SemaphoreTest, AWakeThatIsLostCostsItsMomentHoweverBusyTheOthersAre) {
  const GuestPtr lost = arrive();
  semaphore.release();
  for (int i = 0; i < 5; ++i) {
    clock.advance(Semaphore::kGrace / 2);
    const GuestPtr passing = arrive();
    semaphore.release();
    ASSERT_TRUE(semaphore.look(*passing));
  }
  const GuestPtr last = arrive();
  EXPECT_TRUE(semaphore.look(*last));
}

TEST_F(SemaphoreTest, WhoWillNotWaitAnyLongerTakesAnyFreePermit) {
  arrive();
  for (double timeout : {0.0, -1.0, std::nan(""), 0.01}) {
    semaphore.release();
    EXPECT_FALSE(semaphore.try_acquire());  // the clock stands still: the grace does not end
    EXPECT_TRUE(semaphore.acquire(timeout) && !semaphore.acquire(timeout));
  }
  EXPECT_EQ(semaphore.waiting(), 0U);
}

TEST(Bulkhead, CountsWhoIsInsideUntilAForkStartsItAfresh) {
  Bulkhead bulkhead({.max_concurrent = 3});
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(bulkhead.acquire());
  bulkhead.release();
  EXPECT_EQ(bulkhead.snapshot().active, 2);
  ASSERT_TRUE(bulkhead.mutex().try_lock());  // by a thread that the child does not have
  bulkhead.reset_after_fork();
  EXPECT_TRUE(bulkhead.snapshot().active == 0 && bulkhead.semaphore()->permits() == 3);
}

TEST(RateLimiter, AllowsABurstThenTheRateWhateverTheWallClockDoes) {
  ManualClock clock;
  RateLimiter limiter(clock);
  const auto granted_of = [&](int wanted) {
    int granted = 0;
    while (wanted-- > 0) granted += limiter.acquire();
    return granted;
  };
  EXPECT_EQ(granted_of(61), 60);
  for (int granted : {0, 1}) {  // fractions add up
    clock.advance(0.0625);
    EXPECT_EQ(granted_of(2), granted);
  }
  clock.step_wall(-3600);  // counts as no time elapsed
  EXPECT_EQ(granted_of(1), 0);
  EXPECT_EQ(limiter.snapshot().rejected, 5);
  clock.advance(3600);
  limiter.refund();
  EXPECT_EQ(granted_of(61), 60);
}

}  // namespace
}  // namespace tarvomeldric
