#include "guards/circuit_breaker.h"

#include <gtest/gtest.h>

#include "manual_clock.h"

namespace tarvomeldric {
namespace {

struct CircuitBreakerTest : ::testing::Test {
  // Outcomes in order, 's' for a success and 'f' for a failure.
  void play(std::string_view outcomes) {
    for (char c : outcomes) c == 's' ? breaker.record_success() : breaker.record_failure("openai");
  }
  void expect_open_for(double seconds) {
    clock.advance(seconds - 0.5);
    EXPECT_FALSE(breaker.is_available());
    clock.advance(0.5);
    EXPECT_TRUE(breaker.is_available() && breaker.state() == CircuitState::kHalfOpen);
  }
  ManualClock clock;
  CircuitBreaker breaker{{}, clock};
};

TEST_F(CircuitBreakerTest, OpensOnARunOfFailuresOrOnTheirShareOfAFullWindow) {
  const std::string ten = "sfsfsfsfsf", run = "ssssssssssss";
  const std::pair<std::string, bool> cases[] = {
      {"ffffsffff", false},  {"fffff", true},         {ten + "sfsfsfsfs", false},
      {ten + ten, true},     {run + ten + ten, true}, {run + ten + "sfsfsfsf", false},
      {run + "ffff", false}, {run + "ffffff", true},  {ten + run + ten, false}};
  for (const auto& [outcomes, opens] : cases) {
    breaker.host_fields() = {};
    play(outcomes);
    EXPECT_EQ(breaker.state() == CircuitState::kOpen, opens) << outcomes;
    EXPECT_EQ(breaker.summary().trip_count, opens) << outcomes;
  }
}

TEST_F(CircuitBreakerTest, StaysOpenAsLongAsTheLatestNamedFaultAsks) {
  const std::pair<std::string_view, double> cases[] = {
      {"rate_limit", 10},       {"timeout", 15},
      {"connection_error", 20}, {"server_error", 20},
      {"auth_error", 300},      {"quota_exceeded", 300},
      {"unknown", 30},          {"", 30},
      {"model_not_found", 600}};
  for (const auto& [category, seconds] : cases) {
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
  breaker.trip_with_fault("rate_limit");
  play("fs");
  expect_open_for(1);
  breaker.trip();
  clock.step_wall(-100);
  expect_open_for(110);
}

TEST_F(CircuitBreakerTest, HalfOpenProbesThenClosesOrOpensAtTheFirstOutcome) {
  play("fffff");
  EXPECT_FALSE(breaker.probe());
  expect_open_for(30);
  EXPECT_TRUE(breaker.probe() && !breaker.is_available());
  play("f");  // the run of failures goes on
  EXPECT_EQ(breaker.snapshot().last_provider, "openai");
  expect_open_for(30);
  EXPECT_TRUE(breaker.is_available());  // probes are counted anew
  play("s");
  EXPECT_EQ(breaker.state(), CircuitState::kClosed);
  play("fffff");
  clock.advance(30);
  EXPECT_EQ(breaker.summary().state, CircuitState::kHalfOpen);
}

}  // namespace
}  // namespace tarvomeldric
