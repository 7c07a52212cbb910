#include "flywheel/learner.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <random>

#include "flywheel/bootstrap_rules.h"
#include "manual_clock.h"

namespace tarvomeldric {
namespace {

// Starts from the bootstrap rules; what is recorded here is about "odd" faults.
struct LearnerTest : ::testing::Test {
  LearnerTest() { learner.seed(); }
  std::string advice(std::string_view pattern) {
    const RulePtr rule = learner.match(pattern);
    return rule ? rule->action : "";
  }
  RulePtr record(const char* action, bool success, double heal_time_ms = 1.0) {
    learner.record({"odd", action, success, heal_time_ms});
    return learner.rules().back();
  }
  ManualClock clock;
  FlywheelLearner learner{"", clock};
};

TEST_F(LearnerTest, StartsFromTheBootstrapRules) {
  const LearnerStats stats = learner.stats();
  EXPECT_EQ(stats.total_rules, 84);
  EXPECT_EQ(stats.high_confidence_rules, 62);
  EXPECT_TRUE(stats.bootstrap_rules_loaded);
  const RulePtr first = learner.rules().front();
  EXPECT_EQ(first->success_count, kBootstrapRules.front().success_count);
  EXPECT_EQ(first->fail_count, kBootstrapRules.front().fail_count);
  learner.record({first->pattern, first->action, true, 1.0});  // known, so no new one
  EXPECT_EQ(learner.stats().total_rules, 84);
  EXPECT_EQ(learner.stats().total_records, 1);
}

TEST_F(LearnerTest, AdviceIsTheMostConfidentOfThePatternElseOfItsCategory) {
  EXPECT_EQ(advice("rate_limit:openai"), "failover:azure");
  EXPECT_EQ(advice("rate_limit:groq"), "failover:deepseek");
  EXPECT_EQ(advice("model_not_found"), "downgrade_model");  // the earlier of two equals
  EXPECT_EQ(advice("unknown:x"), "");                       // the best one is not above 0.6
}

TEST_F(LearnerTest, ConfidenceIsTheShareOfSuccesses) {
  const RulePtr rule = record("failover:groq", false, 50.0);
  EXPECT_EQ(rule->source, "learned");
  EXPECT_EQ(rule->confidence, 0.0);
  clock.advance(5);
  record("failover:groq", true, 0.0);
  EXPECT_EQ(rule->confidence, 0.5);
  EXPECT_EQ(rule->last_seen_s, clock.wall());
  for (int i = 1; i <= 51; ++i) record("failover:groq", true, 1.0 * i);
  EXPECT_DOUBLE_EQ(rule->avg_heal_time_ms, 39.0);  // the mean of 27 to 51
}

TEST(LearnedRule, CountsFromOutsideGiveAShareOrNone) {
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

TEST_F(LearnerTest, AdviceIsHadAtOnceUnlessSomebodyHoldsTheLock) {
  std::optional<Advice> advice;
  EXPECT_TRUE(learner.try_advise("rate_limit:openai", advice));
  EXPECT_EQ(advice->action, "failover:azure");
  EXPECT_FALSE(learner.mutex().locked());
  const MutexLock held(learner.mutex());
  EXPECT_FALSE(learner.try_advise("rate_limit:openai", advice));
}

// Two tables with the same history: the rules of one are handed out, so that each is looked at.
TEST(Advice, IsTheSameWhetherRulesAreLookedUpOrWalked) {
  std::mt19937 random(11);
  const auto below = [&](int bound) {
    return static_cast<int>(random() % static_cast<unsigned>(bound));
  };
  const auto one_of = [&](const auto& these) { return these[random() % std::size(these)]; };
  const std::array patterns{"timeout", "timeout:azure", "rate_limit", "odd:x", "odd", ""};
  const std::array actions{"retry:openai", "failover:groq", "failover:azure"};
  ManualClock clock;
  FlywheelLearner looked_up{"", clock};
  FlywheelLearner walked{"", clock};
  looked_up.seed();
  walked.seed();
  for (int step = 0; step < 4000; ++step) {
    const Outcome outcome{one_of(patterns), one_of(actions), below(4) != 0, 1.0};
    if (below(50) == 0) clock.advance((below(60) - 25) * 86400.0);  // set back, too
    const bool from_fleet = below(4) == 0;
    const LearnedRule offered{.pattern = outcome.error_pattern,
                              .last_seen_s = clock.wall() - below(40) * 86400.0,
                              .confidence = 0.1 * below(11),
                              .action = outcome.action};
    for (FlywheelLearner* learner : {&looked_up, &walked}) {
      if (from_fleet) {
        learner->merge(rule_key(offered.pattern, offered.action),
                       std::make_shared<LearnedRule>(offered));
      } else {
        learner->record(outcome);
      }
    }
    const std::string_view asked = one_of(patterns);
    const RulePtr expected = walked.match(asked);
    const std::optional<Advice> advice = looked_up.advise(asked);
    ASSERT_EQ(advice ? advice->action : "", expected ? expected->action : "") << asked << step;
    ASSERT_EQ(advice ? advice->confidence : 0, expected ? expected->confidence : 0) << asked;
  }
}

TEST_F(LearnerTest, AdviceHeedsWhatIsDoneToRulesThatWereHandedOut) {
  EXPECT_EQ(learner.advise("rate_limit:groq")->action, "failover:deepseek");
  learner.rules().front()->pattern = "rate_limit:groq";
  EXPECT_EQ(learner.advise("rate_limit:groq")->action, learner.rules().front()->action);
  FlywheelLearner other{"", clock};
  for (const char* pattern : {"old", "new"}) {
    other.store("a key", std::make_shared<LearnedRule>(LearnedRule{
                             .pattern = pattern, .last_seen_s = clock.wall(), .confidence = 1}));
  }
  EXPECT_FALSE(other.advise("old"));
  EXPECT_TRUE(other.advise("new"));
}

struct Fleet final : RulePublisher {
  void publish(const std::string& key, const LearnedRule&) override { told += key + " "; }
  std::string told;
};

TEST_F(LearnerTest, KeepsWhatIsToBeRecordedLaterInOrderAndAsksOnce) {
  EXPECT_TRUE(learner.keep({"odd", "first", true}));
  EXPECT_FALSE(learner.keep({"odd", "second", false}));
  EXPECT_TRUE(learner.would_wait());
  EXPECT_EQ(learner.stats().total_records, 0);
  learner.record_kept();
  EXPECT_FALSE(learner.would_wait());
  EXPECT_EQ(learner.rules()[84]->action, "first");
  EXPECT_EQ(learner.rules()[85]->action, "second");
  EXPECT_TRUE(learner.keep({"odd", "third", true}));
  learner.forget_kept();
  learner.record_kept();
  EXPECT_EQ(learner.rules().size(), 86U);
}

TEST_F(LearnerTest, TellsAFleetAndTakesFromItOnlyWhatIsMoreConfident) {
  Fleet fleet;
  learner.set_publisher(&fleet);
  record("failover:azure", true);
  EXPECT_FALSE(learner.would_wait());
  learner.interpreter_locked_fields().sync_mode = "redis";
  const RulePtr known = record("failover:groq", true);
  EXPECT_TRUE(learner.would_wait());
  EXPECT_EQ(fleet.told, "odd:failover:groq ");
  const auto offered = std::make_shared<LearnedRule>(LearnedRule{.confidence = 1.0});
  learner.merge("odd:failover:groq", offered);
  EXPECT_EQ(learner.rules().back(), known);
  known->confidence = 0.99;
  learner.merge("odd:failover:groq", offered);
  EXPECT_EQ(learner.rules().back(), offered);
}

RulePtr rule_of_confidence(double confidence) {
  return std::make_shared<LearnedRule>(LearnedRule{.confidence = confidence});
}

TEST(SharedRules, NewOnesFillTheTableUpToTenThousandAndKnownOnesGoOn) {
  FlywheelLearner learner;
  for (int i = 0; i < 10'001; ++i) learner.merge(std::to_string(i), rule_of_confidence(0.5));
  learner.take_over("new", rule_of_confidence(0.5));
  EXPECT_EQ(learner.stats().total_rules, 10'000);
  EXPECT_EQ(learner.rules_passed_over(), 2);
  learner.merge("0", rule_of_confidence(0.7));
  learner.take_over("1", rule_of_confidence(0.2));
  EXPECT_EQ(learner.rules()[0]->confidence, 0.7);
  EXPECT_EQ(learner.rules()[1]->confidence, 0.2);
  learner.store("from the file", rule_of_confidence(0.5));
  learner.record({"odd", "recorded here", true, 1.0});
  EXPECT_EQ(learner.stats().total_rules, 10'002);
  EXPECT_EQ(learner.rules_passed_over(), 2);
}

TEST(LearnerFile, IsWrittenAtTheStartAndAtEveryTwentiethRecord) {
  const std::filesystem::path path = ::testing::TempDir() + "learner_test.json";
  FlywheelLearner learner(path.string());
  learner.seed();
  std::vector<int> written;
  for (int records = 0; records <= 41; ++records) {
    if (std::filesystem::remove(path)) written.push_back(records);
    learner.record({"odd", "failover:groq", true, 1.0});
  }
  EXPECT_EQ(written, (std::vector<int>{0, 20, 40}));
}

}  // namespace
}  // namespace tarvomeldric
