#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "guards/fleet_rate_limiter.h"
#include "manual_clock.h"
#include "providers/provider_config.h"

namespace tarvomeldric {
namespace {

// A member of a fleet with a limit of 60 a second, so that a slice is three tokens.
struct FleetLimitTest : ::testing::Test {
  struct Half final : Random {
    double uniform() const override { return 0.5; }
  };

  FleetRequest exchange(FleetReply reply) {
    const FleetRequest asked = limiter.ask();
    limiter.settle(reply);
    return asked;
  }
  std::int64_t taken(int tries) {
    std::int64_t count = 0;
    for (int i = 0; i < tries; ++i) count += limiter.acquire();
    return count;
  }

  Half half;
  ManualClock clock;
  int rings = 0;
  FleetRateLimiter limiter{60.0, 12, true, [this] { ++rings; }, clock, half};
};

TEST_F(FleetLimitTest, BusyMemberLeasesItsPartOfTheBurstAndRingsAtHalf) {
  EXPECT_FALSE(limiter.acquire());
  EXPECT_EQ(rings, 1);
  EXPECT_EQ(exchange({.granted = 6, .members = 2}).wanted, 12);
  EXPECT_EQ(limiter.snapshot().tokens, 6.0);
  EXPECT_EQ(taken(2), 2);
  EXPECT_EQ(rings, 1);
  EXPECT_EQ(taken(2), 2);
  EXPECT_EQ(rings, 2) << "3 of 6 are left; once is enough";
  const FleetRequest asked = exchange({.granted = 4, .members = 2});
  EXPECT_EQ(asked.held, 2);
  EXPECT_EQ(asked.wanted, 4);
  EXPECT_EQ(taken(9), 6);
}

TEST_F(FleetLimitTest, UnusedTokensLapseAndAreGivenBack) {
  taken(1);
  exchange({.granted = 4, .members = 3});
  clock.advance(1.9);
  EXPECT_EQ(taken(1), 1);
  clock.advance(60.0);
  EXPECT_EQ(taken(1), 0) << "a process that was stopped wakes with nothing";
  limiter.refund();
  const FleetRequest asked = exchange({});
  EXPECT_EQ(asked.held, 0);
  EXPECT_EQ(asked.returned, 4) << "three that lapsed, and one whose lease is over";
}

TEST_F(FleetLimitTest, RefundMakesNoTokenBeyondTheLease) {
  taken(1);
  exchange({.granted = 2, .members = 4});
  EXPECT_EQ(taken(1), 1);
  limiter.refund();
  limiter.refund();
  EXPECT_EQ(taken(3), 2);
  EXPECT_EQ(exchange({}).returned, 1);
}

TEST_F(FleetLimitTest, IdleMemberKeepsASliceUntilItIsAskedBack) {
  EXPECT_EQ(exchange({.granted = 3}).wanted, 3);
  clock.advance(1.5);
  EXPECT_LE(limiter.due_s(), 0.0);
  EXPECT_EQ(exchange({}).held, 3);
  EXPECT_EQ(limiter.snapshot().tokens, 3.0);
  clock.advance(1.5);
  limiter.ask();
  EXPECT_EQ(taken(2), 2);
  limiter.settle({.granted = -3});
  EXPECT_EQ(taken(1), 0);
  EXPECT_EQ(exchange({}).owed, 2.0) << "spent while they were being given back";
}

TEST_F(FleetLimitTest, MembersInNeedTakeTurns) {
  taken(1);
  exchange({.members = 200, .in_need = 10, .wait_s = 0.01});
  const double one_of_ten = limiter.due_s();
  taken(1);
  EXPECT_GT(limiter.due_s(), 0.0);
  EXPECT_EQ(rings, 1) << "ringing brings nothing before its turn";
  clock.advance(one_of_ten);
  exchange({.members = 200, .in_need = 20, .wait_s = 0.01});
  EXPECT_NEAR(limiter.due_s() - 0.01, 2 * (one_of_ten - 0.01), 1e-9);
  exchange({.members = 200, .in_need = 1'000'000, .wait_s = 1e300});
  EXPECT_LE(limiter.due_s(), 1.5);
}

TEST_F(FleetLimitTest, MemberThatIsCutOffSpendsItsPartForAMinuteAndOwesIt) {
  limiter.fail();
  clock.advance(10.0);
  EXPECT_EQ(taken(9), 0) << "it never saw Redis";
  exchange({.granted = 1, .members = 2, .most = 6, .born_us = 7});
  limiter.fail();
  EXPECT_EQ(taken(9), 1) << "what it held";
  double count = 0;
  for (int i = 0; i < 900; ++i) clock.advance(0.1), count += static_cast<double>(taken(3));
  EXPECT_NEAR(count, 600, 1) << "a sixth of the limit, for 60 s";
  EXPECT_EQ(limiter.figures().owed, count);
  EXPECT_FALSE(limiter.figures().connected);
  const FleetRequest asked = exchange({});
  EXPECT_EQ(asked.owed, count);
  EXPECT_EQ(asked.born_us, 7);
  EXPECT_NEAR(asked.cut_off_s, 90.0, 1e-6);
  EXPECT_EQ(limiter.figures().owed, 0.0);
  EXPECT_EQ(taken(9), 0);
  exchange({.granted = 4, .members = 2, .most = 6});
  limiter.fail();
  clock.advance(1.9);
  EXPECT_EQ(taken(9), 5) << "at once no more than a slice and a sixth of the burst";
}

TEST_F(FleetLimitTest, LostReplyGrantsNothing) {
  taken(1);
  exchange({.granted = 12});
  taken(8);
  EXPECT_EQ(limiter.ask().held, 4);
  taken(1);
  limiter.fail();
  limiter.settle({.granted = 8});
  EXPECT_EQ(taken(9), 3);
}

TEST_F(FleetLimitTest, NothingInAReplyGrantsMoreThanWasAskedFor) {
  const double huge = 1e308, none = std::numeric_limits<double>::quiet_NaN();
  const std::int64_t most = std::numeric_limits<std::int64_t>::max(), least = -most - 1;
  for (const std::int64_t count : {least, std::int64_t{-1}, std::int64_t{0}, most}) {
    for (const double time : {-huge, none, huge}) {
      limiter.acquire();
      const FleetRequest asked = exchange({count, count, count, count, time, count, time});
      EXPECT_LE(taken(20), asked.held + asked.wanted);
      EXPECT_LE(limiter.left_alone_s(), 900.0);
      EXPECT_LE(limiter.due_s(), 1.5);
      EXPECT_GE(asked.wanted, 0);
    }
  }
}

TEST_F(FleetLimitTest, ProviderTellsTheFleetToLeaveItAlone) {
  const auto shared = std::make_shared<FleetRateLimiter>(
      60.0, 12, true, [] {}, clock, half);
  ProviderConfig provider({.name = "main", .rate_limiter = shared}, clock);
  provider.leave_alone(3600.0);
  EXPECT_EQ(shared->ask().alone_s, 900.0);
  shared->settle({.alone_s = 1000.0});
  clock.advance(890.0);
  EXPECT_NEAR(provider.left_alone_s(), 10.0, 1e-6);
  provider.leave_alone(0.0);
  EXPECT_NEAR(provider.left_alone_s(), 10.0, 1e-6) << "others heard of more";
}

TEST_F(FleetLimitTest, ChildOfAForkHasNothing) {
  taken(1);
  exchange({.granted = 12, .members = 1, .most = 1});
  limiter.renew_after_fork();
  EXPECT_EQ(taken(1), 0);
  EXPECT_EQ(rings, 2);
  limiter.fail();
  clock.advance(5.0);
  EXPECT_EQ(taken(1), 0);
}

}  // namespace
}  // namespace tarvomeldric
