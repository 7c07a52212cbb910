#include <gtest/gtest.h>

#include <random>
#include <set>

#include "engine/admission.h"
#include "engine/scripted_io.h"
#include "guards/at_once.h"
#include "guards/circuit_breaker.h"
#include "guards/rate_limiter.h"

namespace tarvomeldric {
namespace {

// What befalls a breaker, one letter each: an outcome (s, f), a trip (t), a look at it (q, a), a
// probe (p); c lets it cool down.
void play(CircuitBreaker& breaker, ManualClock& clock, std::string_view acts) {
  for (char act : acts) {
    if (act == 's') breaker.record_success();
    if (act == 'f') breaker.record_failure("openai");
    if (act == 't') breaker.trip_with_fault("rate_limit");
    if (act == 'q') breaker.state();
    if (act == 'a') breaker.is_available();
    if (act == 'p') breaker.probe();
    if (act == 'c') clock.advance(30.0);
  }
}

// State, failures in a row, trips and probes.
std::string told(const CircuitBreakerFields& fields) {
  return std::string(value_of(fields.state)) + " " + std::to_string(fields.consecutive_fails) +
         " " + std::to_string(fields.trip_count) + " " + std::to_string(fields.half_open_tries);
}

// In no order of events does a closed breaker keep a run of failures that opens one.
void expect_whole(const CircuitBreakerFields& fields) {
  EXPECT_TRUE(fields.state != CircuitState::kClosed || fields.consecutive_fails < 5);
  EXPECT_TRUE(fields.state == CircuitState::kClosed || fields.trip_count > 0);
}

TEST(BreakerRaces, EndAsSomeOrderOfTheActsWouldEnd) {
  struct Race {
    const char *before, *one, *other;
    std::set<std::string> allowed;
  };
  const Race races[] = {
      {"", "t", "t", {"open 0 1 0"}},
      {"ffff", "f", "f", {"open 6 1 0"}},
      {"ffff", "f", "s", {"open 0 1 0", "closed 1 0 0"}},
      {"fffffcq", "f", "s", {"open 0 2 0", "closed 1 1 0"}},
      {"fffffcq", "p", "p", {"half_open 5 1 2"}},
      {"fffffcq", "p", "s", {"closed 0 1 0"}},
      {"fffffc", "q", "t", {"open 5 2 0", "half_open 5 1 0"}},
      {"fffffc", "aa", "s", {"closed 0 1 0", "half_open 0 1 0"}},
  };
  for (const Race& race : races) {
    for (int round = 0; round < 25; ++round) {
      ManualClock clock;
      CircuitBreaker breaker({}, clock);
      play(breaker, clock, race.before);
      at_once({[&] { play(breaker, clock, race.one); }, [&] { play(breaker, clock, race.other); },
               [&] { expect_whole(breaker.snapshot()); }});
      const std::string end = told(breaker.snapshot());
      ASSERT_TRUE(race.allowed.contains(end)) << race.one << "|" << race.other << ": " << end;
    }
  }
}

std::vector<std::function<void()>> eight(const std::function<void(unsigned seed)>& act) {
  std::vector<std::function<void()>> acts;
  for (unsigned seed = 1; seed <= 8; ++seed) acts.emplace_back([act, seed] { act(seed); });
  return acts;
}

TEST(RateLimiterCrowd, GivesOutNoTokenTwiceAndLosesNone) {
  // Moves on by a sixteenth of a second, which is a token, whenever it is asked.
  struct Ticking final : Clock {
    double wall() const override { return 0.0625 * static_cast<double>(++ticks); }
    double monotonic() const override { return wall(); }
    mutable std::atomic<std::int64_t> ticks{0};
  };
  const Ticking clock;
  RateLimiter limiter({.max_tokens = 1'000'000, .refill_rate = 16.0, .tokens = 100.0}, clock);
  std::atomic<std::int64_t> taken = 0, refused = 0;
  at_once(eight([&](unsigned seed) {
    std::minstd_rand random(seed);
    for (int i = 0; i < 1000; ++i) {
      const auto wanted = static_cast<std::int64_t>(random() % 4);
      if (!limiter.acquire(wanted)) {
        ++refused;
      } else if (taken += wanted; random() % 8 == 0) {
        limiter.refund();
        --taken;
      }
    }
  }));
  const RateLimiterFields end = limiter.snapshot();
  EXPECT_EQ(end.rejected, refused);
  EXPECT_EQ(end.tokens + static_cast<double>(taken), 100.0 + 16.0 * end.last_refill);
}

TEST(AdmissionCrowd, SpendsATokenForEachSlotAndGivesAllSlotsBack) {
  World world;
  const ProviderPtr provider = world.add("openai", 3);
  provider->rate_limiter()->host_fields() = {.max_tokens = 1000, .tokens = 1000.0};
  std::atomic<int> inside = 0, admitted = 0, refused = 0;
  at_once(eight([&](unsigned) {
    ManualClock clock;
    FlywheelLearner learner("", clock);
    ScriptedIo io(clock, learner);
    for (int i = 0; i < 250; ++i) {
      const auto slot = run_blocking(admit(provider, io, 0.5));
      ++(slot ? admitted : refused);
      if (!slot) continue;
      EXPECT_LE(++inside, 3);
      std::this_thread::yield();
      --inside;
    }
  }));
  const BulkheadFields slots = provider->bulkhead()->snapshot();
  EXPECT_TRUE(slots.active == 0 && slots.semaphore->permits() == 3);
  const RateLimiterFields limits = provider->rate_limiter()->snapshot();
  EXPECT_EQ(limits.tokens, 1000.0 - admitted);
  EXPECT_EQ(slots.rejected + limits.rejected, refused);
}

}  // namespace
}  // namespace tarvomeldric
