#include "providers/provider_config.h"

#include <gtest/gtest.h>

#include "manual_clock.h"

namespace tarvomeldric {
namespace {

struct ProviderConfigTest : ::testing::Test {
  void fail(int times, std::string_view category = "") {
    while (times-- > 0) provider.record_failure("HTTP 500", category);
  }
  double health_after(double seconds) { return clock.advance(seconds), provider.health_score(); }
  bool back_after(double seconds) {
    clock.advance(seconds - 0.5);
    const bool early = provider.is_available();
    clock.advance(0.5);
    return !early && provider.is_available();
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
  provider.host_fields().healthy = false;
  provider.circuit_breaker()->trip();
  EXPECT_FALSE(back_after(30));
  EXPECT_EQ(provider.circuit_breaker()->snapshot().state, CircuitState::kHalfOpen);
  provider.record_success(10.0);
  EXPECT_TRUE(provider.is_available());
}

TEST_F(ProviderConfigTest, CooldownIsThatOfTheFaultWhichOpenedTheBreaker) {
  fail(5);
  EXPECT_TRUE(back_after(30));
  fail(1, "rate_limit");
  fail(3, "model_not_found");  // open already: these change nothing
  EXPECT_TRUE(back_after(10));
  fail(1);  // no category: the cooldown persists
  EXPECT_TRUE(back_after(10));
}

TEST_F(ProviderConfigTest, AdmissionTakesATokenAndASlotOrNothing) {
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(provider.can_accept(0));
  EXPECT_FALSE(provider.can_accept(0.01));
  EXPECT_EQ(provider.rate_limiter()->snapshot().tokens, 50.0);
  provider.rate_limiter()->host_fields().tokens = 0.5;
  EXPECT_FALSE(provider.can_accept(60));
  EXPECT_EQ(provider.bulkhead()->snapshot().rejected, 1);  // not asked the second time
  for (int i = 0; i < 12; ++i) provider.release_slot();    // two too many
  const BulkheadFields slots = provider.bulkhead()->snapshot();
  EXPECT_TRUE(slots.active == 0 && slots.semaphore->permits() == 12);
}

}  // namespace
}  // namespace tarvomeldric
