#include <gtest/gtest.h>

#include "engine/scripted_io.h"

namespace tarvomeldric {
namespace {

using Play = ScriptedIo::Play;

Play answer(double seconds) { return {.seconds = seconds}; }
Play failure(double seconds) {
  return {.failure = ApiFailure{"it broke", 500}, .seconds = seconds};
}

// A world in which openai is asked first, and anthropic beside it after 2 seconds.
struct Hedged : World {
  explicit Hedged(CallPolicy by = {.attempt_timeout_s = 60.0, .hedge_after = HedgeAfter{2.0}})
      : policy(std::move(by)) {
    for (const char* name : {"openai", "anthropic", "deepseek"}) add(name);
  }
  // Who answered, what was counted of second requests, and what became of every request.
  std::string race(Play first, std::optional<Play> second = {}, CallRequest request = {}) {
    io.script["openai"] = {std::move(first)};
    io.script["anthropic"].clear();
    if (second) io.script["anthropic"] = {*second};
    if (request.model.empty()) request.model = "gpt-4o";
    request.policy = &policy;
    io.attempts.clear();
    const std::string ended = World::ask(request);
    return ended.substr(0, ended.find(" for ")) + "; " + sent();
  }
  std::string sent() const {
    return joined(io.attempts, [](const AttemptRecord& one) {
      return told(one.provider, " ", one.start_s, "+", one.duration_s, " ",
                  one.fault.value_or("ok"));
    });
  }
  std::string hedges() const {
    return told(metrics.counter("hedge_sent"), " sent, ", metrics.counter("hedge_won"), " won, ",
                metrics.counter("hedge_denied"), " denied");
  }
  bool hedged() const { return answered().answer.hedged; }

  CallPolicy policy;
};

TEST(Hedge, TheFirstGoodAnswerCountsAndTheLoserIsNobodysFailure) {
  Hedged world;
  EXPECT_EQ(world.race(answer(1)), "direct openai gpt-4o; openai 0+1 ok");
  EXPECT_FALSE(world.hedged());
  EXPECT_EQ(world.race(answer(9), answer(1)),
            "direct anthropic claude-3-5-haiku-20241022; openai 0+3 hedge_lost, anthropic 2+1 ok");
  EXPECT_TRUE(world.hedged());
  EXPECT_EQ(world.race(answer(3), answer(5)),
            "direct openai gpt-4o; anthropic 2+1 hedge_lost, openai 0+3 ok");
  EXPECT_TRUE(world.hedged());
  EXPECT_EQ(world.hedges(), "2 sent, 1 won, 0 denied");
  EXPECT_EQ(world.provider("openai")->snapshot().fail_count, 0);
  EXPECT_EQ(world.provider("openai")->snapshot().success_count, 2);
  EXPECT_EQ(world.slots(), "openai 10/0, anthropic 10/0, deepseek 10/0");
}

TEST(Hedge, AFailureIsRecordedAndTheOtherOneWaitedFor) {
  Hedged world;
  EXPECT_EQ(world.race(failure(3), answer(4)),
            "direct anthropic claude-3-5-haiku-20241022; "
            "openai 0+3 server_error:http_500, anthropic 2+4 ok");
  EXPECT_EQ(world.provider("openai")->snapshot().fail_count, 1);
  EXPECT_EQ(world.race(answer(4), failure(1)),
            "direct openai gpt-4o; anthropic 2+1 server_error:http_500, openai 0+4 ok");
  EXPECT_EQ(world.provider("anthropic")->snapshot().fail_count, 1);
  EXPECT_EQ(world.slots(), "openai 10/0, anthropic 10/0, deepseek 10/0");
}

TEST(Hedge, WhenBothFailTheCascadeGoesOnAndAsksNobodyElseTwice) {
  Hedged world({.order = AttemptOrder::kFailoverFirst, .hedge_after = HedgeAfter{2.0}});
  EXPECT_EQ(world.race(failure(3), failure(4)),
            "l3_failover deepseek deepseek-chat; openai 0+3 server_error:http_500, "
            "anthropic 2+4 server_error:http_500, deepseek 6+0 ok");
  EXPECT_TRUE(world.hedged());
  EXPECT_EQ(world.provider("openai")->snapshot().fail_count, 1);
  EXPECT_EQ(world.provider("anthropic")->snapshot().fail_count, 1);
  EXPECT_EQ(world.metrics.counter("fault_server_error"), 2);
}

TEST(Hedge, AnAnswerThatWouldBeRefusedWinsNothing) {
  Hedged world({.validate = Validation::kAll, .hedge_after = HedgeAfter{2.0}});
  EXPECT_EQ(world.race(answer(9), Play{.seconds = 1, .empty = true}),
            "direct openai gpt-4o; anthropic 2+1 answer:empty, openai 0+9 ok");
  EXPECT_EQ(
      world.race(Play{.seconds = 3, .empty = true}, answer(5)),
      "direct anthropic claude-3-5-haiku-20241022; openai 0+3 answer:empty, anthropic 2+5 ok");
}

TEST(Hedge, NobodyIsAskedWhoHasNoRoomOrIsOutOfBounds) {
  Hedged world;
  const auto busy = [&](const char* name, std::int64_t slots) {
    for (; slots > 0; --slots) world.provider(name)->bulkhead()->acquire(0);
  };
  busy("anthropic", 8);  // of 10
  EXPECT_EQ(world.race(answer(9)),
            "direct deepseek deepseek-chat; openai 0+2 hedge_lost, deepseek 2+0 ok");
  busy("deepseek", 8);
  EXPECT_EQ(world.race(answer(9)), "direct openai gpt-4o; openai 0+9 ok");
  EXPECT_EQ(world.hedges(), "1 sent, 1 won, 1 denied");

  Hedged bounded;
  CallRequest request{.semantic_domain = SemanticDomain::kOutOfBounds};
  EXPECT_EQ(bounded.race(answer(9), {}, request), "direct openai gpt-4o; openai 0+9 ok");
  request.semantic_domain = SemanticDomain::kStrongEquivalence;
  EXPECT_EQ(bounded.race(answer(9), {}, request), "direct openai gpt-4o; openai 0+9 ok");
  EXPECT_EQ(bounded.hedges(), "0 sent, 0 won, 1 denied");
  request.route.emplace();
  for (const char* name : {"openai", "anthropic", "deepseek"}) (*request.route)[name] = "gpt-4o";
  (*request.route)["anthropic"] = "haiku";
  EXPECT_EQ(bounded.race(answer(9), {}, request),
            "direct deepseek gpt-4o; openai 0+2 hedge_lost, deepseek 2+0 ok");
}

TEST(Hedge, IsBoundByItsBudgetTheRetryBudgetAndTheCountOfRequests) {
  Hedged world({.hedge_after = HedgeAfter{2.0}, .hedge_ratio = 0.25, .hedge_burst = 2.0});
  for (int i = 0; i < 20; ++i) world.race(answer(9), answer(8));
  // Two that were there, and a quarter of one for each call.
  EXPECT_EQ(world.hedges(), "6 sent, 0 won, 14 denied");

  Hedged counted({.max_attempts = 1, .hedge_after = HedgeAfter{2.0}});
  EXPECT_EQ(counted.race(answer(9)), "direct openai gpt-4o; openai 0+9 ok");
  EXPECT_EQ(World::tokens(counted.provider("anthropic")), 60.0);  // taken for nothing, and back
  Hedged broke({.hedge_after = HedgeAfter{2.0}});
  broke.policy.retry_budget =
      std::make_shared<RetryBudget>(RetryBudgetFields{0.0, 0.0, 1.0}, broke.clock);
  broke.race(answer(9), answer(8));
  EXPECT_EQ(broke.race(answer(9)), "direct openai gpt-4o; openai 0+9 ok");
  EXPECT_EQ(broke.hedges(), "1 sent, 0 won, 1 denied");
}

TEST(Hedge, TheUsualTimeIsKnownAfterTwentyAnswersOfTheSameKind) {
  Hedged world({.hedge_after = HedgeAfter{}});
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(world.race(answer(i == 7 ? 9 : 1 + i / 100.0)).find("anthropic"), std::string::npos);
  }
  EXPECT_EQ(world.race(answer(30), answer(1)),
            "direct anthropic claude-3-5-haiku-20241022; openai 0+10 hedge_lost, anthropic 9+1 ok");
  CallRequest streamed{.streamed = true};
  EXPECT_EQ(world.race(answer(30), {}, streamed), "direct openai gpt-4o; openai 0+30 ok");
}

TEST(Hedge, WhoLosesFiveTimesInARowIsPutAsideUntilOneCallHasTriedIt) {
  Hedged world;
  const auto first = [&] { return world.sent().substr(0, world.sent().find(' ')); };
  for (int i = 0; i < 5; ++i) {
    world.race(answer(9), answer(1));
    EXPECT_EQ(first(), "openai");
  }
  world.race(answer(1));
  EXPECT_EQ(first(), "anthropic");
  world.clock.advance(10);
  world.race(answer(9), answer(1));
  EXPECT_EQ(first(), "openai");  // the one that tries it, and finds it slow
  world.race(answer(1));
  EXPECT_EQ(first(), "anthropic");
  world.clock.advance(10);
  world.race(answer(1));
  EXPECT_EQ(first(), "openai");
  world.race(answer(1));
  EXPECT_EQ(first(), "openai");

  world.policy.hedge_after = {};
  EXPECT_EQ(world.race(answer(9)), "direct openai gpt-4o; openai 0+9 ok");
}

}  // namespace
}  // namespace tarvomeldric
