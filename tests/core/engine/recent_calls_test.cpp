#include "engine/recent_calls.h"

#include <gtest/gtest.h>

#include "manual_clock.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

class RecentCallsTest : public testing::Test {
 protected:
  void attempt(const std::string& id, double start_s, double duration_s, const char* fault) {
    AttemptRecord made{"one", "m", start_s, duration_s, std::nullopt, std::nullopt};
    if (fault) made.fault = fault;
    recent_.record(AttemptEvent{id, made});
  }
  void end(const std::string& id, const char* outcome, double duration_s) {
    recent_.record(EndEvent{id, outcome, duration_s, "asked"});
  }

  ManualClock clock_;
  RecentCalls recent_{clock_};
};

TEST_F(RecentCallsTest, InterleavedCallsKeepTheirSteps) {
  clock_.advance(10);
  attempt("a", 1.0, 2.0, "timeout");  // began at 7
  recent_.record(RefusalEvent{"b", "two", "admission"});
  recent_.record(SleepEvent{"a", 4.0, "retry"});
  clock_.advance(5);
  recent_.record(HealEvent{"a", "one", "m", "l1_retry", "timeout"});
  attempt("a", 7.0, 1.0, nullptr);
  end("b", "failed", 5.5);
  end("a", "answered", 8.0);
  end("late", "abandoned", 0.0);  // heard of at its end alone

  const auto calls = recent_.calls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].steps.size(), 0U);
  const RecentCall& healed = calls[1];
  EXPECT_EQ(healed.id + healed.outcome + healed.heal_level + healed.fault + healed.model,
            "aansweredl1_retrytimeoutasked");
  EXPECT_DOUBLE_EQ(healed.start_s, 7.0);
  EXPECT_DOUBLE_EQ(healed.duration_s, 8.0);
  std::string strip;
  for (const CallStep& step : healed.steps) {
    strip += step.kind + ' ' + text::fixed(step.start_s, 0) + '+' +
             text::fixed(step.duration_s, 0) + ' ' + step.reason + '\n';
  }
  EXPECT_EQ(strip, "failed 8+2 timeout\nwait 10+4 retry\nanswered 14+1 \n");
  EXPECT_EQ(calls[2].steps.at(0).kind, "refused");
  EXPECT_DOUBLE_EQ(calls[2].start_s, 9.5);
}

TEST_F(RecentCallsTest, LittleIsKeptWhateverHappens) {
  const std::string text(10'000, 'x');
  for (int i = 0; i < 5000; ++i) attempt("abandoned " + std::to_string(i), 0, 0, text.c_str());
  for (int i = 0; i < 100; ++i) end(std::to_string(i), "answered", 1.0);
  for (int i = 0; i < 100; ++i) attempt("abandoned 4999", 0, 0, "timeout");
  end("abandoned 0", "answered", 1.0);  // forgotten, and so without steps

  const auto calls = recent_.calls();
  ASSERT_EQ(calls.size(), RecentCalls::kMostShown);
  EXPECT_EQ(calls[0].id, "abandoned 4999");
  EXPECT_EQ(calls[0].steps.size(), RecentCalls::kMostSteps);
  EXPECT_EQ(calls[0].steps_left_out, 61);
  EXPECT_EQ(calls[0].steps[0].reason.size(), RecentCalls::kMostCharacters);
  EXPECT_EQ(calls[RecentCalls::kMostShownUnderWay].id, "abandoned 0");
  EXPECT_TRUE(calls[RecentCalls::kMostShownUnderWay].steps.empty());
}

TEST_F(RecentCallsTest, TheHistoryHasItsStepsThroughSilence) {
  for (const double seconds : {4.0, 1.0, 2.0}) end("x", "answered", seconds);
  attempt("y", 0, 0, "timeout");
  end("y", "failed", 9.0);
  EXPECT_TRUE(recent_.history().empty());  // the step is not over
  clock_.advance(11);
  recent_.record(HealEvent{"z", "one", "m", "l1_retry", "timeout"});
  clock_.advance(5);
  auto history = recent_.history();
  ASSERT_EQ(history.size(), 3U);
  EXPECT_EQ(history[0].calls, 4);
  EXPECT_EQ(history[0].failed, 1);
  EXPECT_EQ(history[0].faults, 1);
  EXPECT_EQ(history[0].p50_s, 2.0);
  EXPECT_EQ(history[0].p95_s, 4.0);
  EXPECT_EQ(history[1].calls, 0);
  EXPECT_EQ(history[1].p50_s, std::nullopt);
  EXPECT_EQ(history[2].healed, 1);
  clock_.advance(1e7);
  end("x", "answered", 1.0);
  EXPECT_EQ(recent_.history().size(), CallHistory::kMostSteps);
  EXPECT_EQ(recent_.history().front().calls, 0);
}

}  // namespace
}  // namespace tarvomeldric
