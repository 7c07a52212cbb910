#include "flywheel/learner.h"

#include <gtest/gtest.h>

#include "manual_clock.h"

namespace tarvomeldric {
namespace {

struct LearnerTest : ::testing::Test {
  LearnerTest() { learner.seed(); }
  std::string advice(std::string_view pattern) {
    const RulePtr rule = learner.match(pattern);
    return rule ? rule->action : "";
  }
  ManualClock clock;
  FlywheelLearner learner{"", clock};
};

TEST_F(LearnerTest, SeededAdviceIsTheMostConfidentOfThePatternElseOfItsCategory) {
  const LearnerStats stats = learner.stats();
  EXPECT_TRUE(stats.total_rules == 84 && stats.high_confidence_rules == 62);
  EXPECT_EQ(advice("rate_limit:openai"), "failover:azure");
  EXPECT_EQ(advice("rate_limit:groq"), "failover:deepseek");
  EXPECT_EQ(advice("model_not_found"), "downgrade_model");  // the earlier of two equals
  EXPECT_EQ(advice("unknown:x"), "");                       // the best one is not above 0.6
}

TEST_F(LearnerTest, ConfidenceIsTheShareOfSuccesses) {
  learner.record({"odd", "failover:groq", false, 50.0});
  const RulePtr rule = learner.rules().back();
  EXPECT_TRUE(rule->source == "learned" && rule->confidence == 0.0);
  clock.advance(5);
  learner.record({"odd", "failover:groq", true, 0.0});
  EXPECT_TRUE(rule->confidence == 0.5 && rule->last_seen == clock.wall());
  for (int i = 1; i <= 51; ++i) learner.record({"odd", "failover:groq", true, 1.0 * i});
  EXPECT_DOUBLE_EQ(rule->avg_heal_time_ms, 39.0);  // the mean of 27 to 51
}

TEST_F(LearnerTest, CountsFromOutsideGiveAShareOrNone) {
  const auto most = std::numeric_limits<std::int64_t>::max();
  const std::tuple<std::int64_t, std::int64_t, double> cases[] = {
      {0, 0, 1.0}, {0, -1, 0.0}, {most, most, 0.5}, {most, 0, 1.0}};
  for (const auto& [successes, failures, confidence] : cases) {
    LearnedRule rule{.success_count = successes, .fail_count = failures};
    rule.update(true, 0.0, 0.0);
    EXPECT_EQ(rule.confidence, confidence) << successes << " " << failures;
  }
}

TEST_F(LearnerTest, RulesGoneStaleLoseHalfTheirConfidenceAtEachMatch) {
  const RulePtr stale = learner.rules().front();
  clock.advance(30 * 86400.0);
  EXPECT_EQ(advice("rate_limit"), "failover:deepseek");
  clock.advance(1);
  learner.record({"timeout", "failover:deepseek", true, 1.0});
  EXPECT_EQ(advice("rate_limit"), "");
  EXPECT_DOUBLE_EQ(stale->confidence, 0.472);
  EXPECT_EQ(advice("timeout"), "failover:deepseek");
  stale->confidence = 0.1;
  learner.match("");
  EXPECT_EQ(stale->confidence, 0.1);
}

}  // namespace
}  // namespace tarvomeldric
