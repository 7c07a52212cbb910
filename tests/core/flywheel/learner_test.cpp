#include "flywheel/learner.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "flywheel/bootstrap_rules.h"
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
  const RulePtr first = learner.rules().front();
  EXPECT_EQ(first->success_count, kBootstrapRules[0].success_count);
  EXPECT_EQ(first->fail_count, kBootstrapRules[0].fail_count);
  EXPECT_TRUE(stats.bootstrap_rules_loaded);
  learner.record({first->pattern, first->action, true, 1.0});  // known, so no new one
  EXPECT_TRUE(learner.stats().total_rules == 84 && learner.stats().total_records == 1);
  const auto stored = std::make_shared<LearnedRule>();
  learner.store("of:another", stored);
  EXPECT_EQ(learner.rules().back(), stored);
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

struct Fleet final : RulePublisher {
  void publish(const std::string& key, const LearnedRule&) override { told.push_back(key); }
  std::vector<std::string> told;
};

TEST_F(LearnerTest, TellsAFleetAndTakesFromItWhatIsMoreConfident) {
  Fleet fleet;
  learner.set_publisher(&fleet);
  learner.record({"odd", "failover:azure", true, 1.0});
  EXPECT_FALSE(learner.would_wait());
  learner.host_fields().sync_mode = "redis";
  learner.record({"odd", "failover:groq", true, 1.0});
  learner.record({"odd", "failover:groq", false, 1.0});
  EXPECT_TRUE(learner.would_wait());
  EXPECT_EQ(fleet.told, (std::vector<std::string>{"odd:failover:groq", "odd:failover:groq"}));
  const auto offer = [&](double confidence) {
    auto rule = std::make_shared<LearnedRule>(LearnedRule{.confidence = confidence});
    learner.merge("odd:failover:groq", rule);
    return learner.rules().back() == rule;
  };
  EXPECT_FALSE(offer(0.5));
  EXPECT_TRUE(offer(0.51));
}

TEST_F(LearnerTest, AdviceIsHadAtOnceUnlessSomebodyHoldsTheLock) {
  std::optional<Advice> advice;
  EXPECT_TRUE(learner.try_advise("rate_limit:openai", advice));
  EXPECT_EQ(advice->action, "failover:azure");
  EXPECT_FALSE(learner.mutex().locked());
  const MutexLock held(learner.mutex());
  EXPECT_FALSE(learner.try_advise("rate_limit:openai", advice));
}

TEST(LearnerFile, IsWrittenAtTheStartAndAtEveryTwentiethRecord) {
  const std::filesystem::path path =
      std::filesystem::path(::testing::TempDir()) / "learner_test" / "rules.json";
  std::filesystem::remove_all(path.parent_path());
  FlywheelLearner learner(path.string());
  const auto written = [&] { return std::filesystem::remove(path); };
  learner.seed();
  EXPECT_TRUE(written());
  std::vector<int> at;
  for (int i = 1; i <= 41; ++i) {
    learner.record({"odd", "failover:groq", true, 1.0});
    if (written()) at.push_back(i);
  }
  EXPECT_EQ(at, (std::vector<int>{20, 40}));
  std::filesystem::remove_all(path.parent_path());
}

}  // namespace
}  // namespace tarvomeldric
