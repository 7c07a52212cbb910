#include "providers/provider_config.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "manual_clock.h"

namespace tarvomeldric {
namespace {

struct ProviderConfigTest : ::testing::Test {
  void fail(int times, std::string_view category = "") {
    while (times-- > 0) provider.record_failure("HTTP 500", category);
  }
  double health_after(double seconds) { return clock.advance(seconds), provider.health_score(); }
  void expect_back_after(double seconds) {
    clock.advance(seconds - 0.5);
    EXPECT_FALSE(provider.is_available());
    clock.advance(0.5);
    EXPECT_TRUE(provider.is_available());
  }
  ManualClock clock;
  ProviderConfig provider{{.name = "openai"}, clock};
};

TEST_F(ProviderConfigTest, HealthIsTheShareOfSuccessesLessForFreshFaultsAndAnOpenBreaker) {
  EXPECT_EQ(provider.health_score(), 50.0);
  fail(1);
  for (int i = 0; i < 9; ++i) provider.record_success(10.0);  // does not lift the penalty
  EXPECT_DOUBLE_EQ(health_after(59), 90.0 * 0.7);
  provider.circuit_breaker()->trip();
  EXPECT_DOUBLE_EQ(health_after(0), 90.0 * 0.7 * 0.1);
  EXPECT_DOUBLE_EQ(health_after(1), 90.0 * 0.1);
  EXPECT_DOUBLE_EQ(health_after(29), 90.0 * 0.5);
}

TEST_F(ProviderConfigTest, BreakerIsAskedFirstAndASuccessMakesHealthy) {
  provider.interpreter_locked_fields().healthy = false;
  provider.circuit_breaker()->trip();
  clock.advance(30);
  EXPECT_FALSE(provider.is_available());
  EXPECT_EQ(provider.circuit_breaker()->snapshot().state, CircuitState::kHalfOpen);
  provider.record_success(10.0);
  EXPECT_TRUE(provider.is_available());
}

TEST_F(ProviderConfigTest, CooldownIsThatOfTheFaultWhichOpenedTheBreaker) {
  fail(5);
  expect_back_after(30);
  fail(1, "rate_limit");
  fail(3, "model_not_found");  // open already: these change nothing
  expect_back_after(10);
  fail(1);  // no category: the cooldown persists
  expect_back_after(10);
}

TEST_F(ProviderConfigTest, AdmissionWithoutATokenAsksForNoSlot) {
  provider.rate_limiter()->interpreter_locked_fields().tokens = 0.5;
  EXPECT_FALSE(provider.can_accept(60));
  EXPECT_EQ(provider.bulkhead()->snapshot().rejected, 0);
  provider.release_slot();  // of nobody
  EXPECT_EQ(provider.bulkhead()->snapshot().active, 0);
  EXPECT_EQ(provider.bulkhead()->semaphore()->permits(), 11);
}

TEST_F(ProviderConfigTest, CrowdSpendsATokenForEachSlotAndGivesAllSlotsBack) {
  for (int i = 0; i < 7; ++i) provider.bulkhead()->semaphore()->take_any();  // three are left
  provider.rate_limiter()->interpreter_locked_fields() = {.max_tokens = 100'000, .tokens = 100'000};
  std::atomic<int> inside = 0, admitted = 0;
  const auto visit = [&](unsigned seed) {
    std::minstd_rand random(seed);
    for (int i = 0; i < 5000; ++i) {
      if (!provider.can_accept(0.00001 * static_cast<double>(random() % 4))) continue;
      ++admitted;
      EXPECT_LE(++inside, 3);
      if (i % 4 == 0) std::this_thread::yield();
      --inside;
      provider.release_slot();
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned seed = 1; seed <= 8; ++seed) threads.emplace_back(visit, seed);
  threads.clear();
  EXPECT_EQ(provider.rate_limiter()->snapshot().tokens, 100'000 - admitted);
  EXPECT_EQ(provider.bulkhead()->snapshot().rejected, 40'000 - admitted);
  EXPECT_EQ(provider.bulkhead()->snapshot().active, 0);
  EXPECT_EQ(provider.bulkhead()->semaphore()->permits(), 3);
}

}  // namespace
}  // namespace tarvomeldric
