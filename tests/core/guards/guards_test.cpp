#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "guards/bulkhead.h"
#include "guards/circuit_breaker.h"
#include "guards/rate_limiter.h"
#include "manual_clock.h"

namespace tarvomeldric {
namespace {

struct CircuitBreakerTest : ::testing::Test {
  // What befalls it, one letter each: an outcome (s, f), a trip (t), a question whether
  // it is available (a) or a probe (p); c lets it cool down. The answers are y or n.
  std::string play(std::string_view acts) {
    std::string answers;
    for (char act : acts) {
      if (act == 's') breaker.record_success();
      if (act == 'f') breaker.record_failure("openai");
      if (act == 't') breaker.trip_with_fault("rate_limit");
      if (act == 'a') answers += breaker.is_available() ? 'y' : 'n';
      if (act == 'p') answers += breaker.probe() ? 'y' : 'n';
      if (act == 'c') clock.advance(30.0);
    }
    return answers;
  }
  // State, failures in a row, trips and probes.
  std::string after(std::string_view acts) {
    play(acts);
    const CircuitBreakerFields fields = breaker.snapshot();
    return std::string(value_of(fields.state)) + " " + std::to_string(fields.consecutive_fails) +
           " " + std::to_string(fields.trip_count) + " " + std::to_string(fields.half_open_tries);
  }
  void expect_open_for(double seconds) {
    clock.advance(seconds - 0.5);
    EXPECT_FALSE(breaker.is_available());
    clock.advance(0.5);
    EXPECT_TRUE(breaker.is_available());
    EXPECT_EQ(breaker.state(), CircuitState::kHalfOpen);
  }
  ManualClock clock;
  CircuitBreaker breaker{{}, clock};
};

TEST_F(CircuitBreakerTest, OpensOnARunOfFailuresOrOnTheirShareOfAFullWindow) {
  const std::string ten = "sfsfsfsfsf", run = "ssssssssssss";
  const std::pair<std::string, const char*> cases[] = {
      {"ffffsffff", "closed 4 0 0"},       {"fffff", "open 5 1 0"},
      {ten + "sfsfsfsfs", "closed 0 0 0"}, {ten + ten, "open 1 1 0"},
      {run + ten + ten, "open 1 1 0"},     {run + ten + "sfsfsfsf", "closed 1 0 0"},
      {run + "ffff", "closed 4 0 0"},      {run + "ffffff", "open 6 1 0"},
      {ten + run + ten, "closed 1 0 0"}};
  for (const auto& [outcomes, end] : cases) {
    breaker.interpreter_locked_fields() = {};
    EXPECT_EQ(after(outcomes), end) << outcomes;
  }
}

TEST_F(CircuitBreakerTest, StaysOpenAsLongAsTheLatestNamedFaultAsks) {
  const std::pair<std::string_view, double> cases[] = {
      {"rate_limit", 10},   {"timeout", 15},         {"connection_error", 20},
      {"server_error", 20}, {"auth_error", 300},     {"quota_exceeded", 300},
      {"unknown", 30},      {"model_not_found", 600}};
  for (const auto& [category, seconds] : cases) {
    SCOPED_TRACE(category);
    breaker.trip_with_fault(category);
    expect_open_for(seconds);
    play("s");
  }
  play("fffff");
  expect_open_for(600);
}

TEST_F(CircuitBreakerTest, OpenBreakerKeepsTheMomentItOpened) {
  breaker.trip();
  clock.advance(9);
  play("tfs");
  expect_open_for(1);
  EXPECT_DOUBLE_EQ(breaker.cooldown_left_s(), 0.0);
  breaker.trip();
  clock.step_wall(-100);
  EXPECT_DOUBLE_EQ(breaker.cooldown_left_s(), 110.0);
  expect_open_for(110);
}

TEST_F(CircuitBreakerTest, HalfOpenProbesThenClosesOrOpensAtTheFirstOutcome) {
  EXPECT_EQ(play("fffffpcapa"), "nyyn");
  EXPECT_EQ(after(""), "half_open 5 1 1");
  EXPECT_EQ(after("f"), "open 6 2 1");  // the run of failures goes on
  EXPECT_EQ(breaker.snapshot().last_provider, "openai");
  EXPECT_EQ(after("ca"), "half_open 6 2 0");  // probes are counted anew
  EXPECT_EQ(after("s"), "closed 0 2 0");
  play("fffffc");
  EXPECT_EQ(breaker.summary().state, CircuitState::kHalfOpen);
}

TEST(Bulkhead, CountsWhoIsInsideUntilAForkStartsItAfresh) {
  Bulkhead bulkhead({.max_concurrent = 3});
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(bulkhead.acquire());
  bulkhead.release();
  EXPECT_EQ(bulkhead.snapshot().active, 2);
  const auto before_the_fork = bulkhead.semaphore();
  ASSERT_TRUE(bulkhead.mutex().try_lock());  // by a thread that the child does not have
  EXPECT_EXIT(
      {
        std::cerr << bulkhead.snapshot().active << " taken, " << bulkhead.semaphore()->permits()
                  << " free, " << before_the_fork->permits() << " free of old";
        std::exit(0);
      },
      testing::ExitedWithCode(0), "0 taken, 3 free, 0 free of old");
  EXPECT_EQ(before_the_fork->permits(), 1);  // the parent's are as they were
  bulkhead.mutex().unlock();
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
  EXPECT_DOUBLE_EQ(limiter.level(), 0.25);
  clock.advance(3600);
  limiter.refund();
  EXPECT_DOUBLE_EQ(limiter.level(), 60.0);
  EXPECT_EQ(granted_of(61), 60);
}

}  // namespace
}  // namespace tarvomeldric
