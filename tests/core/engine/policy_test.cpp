#include <gtest/gtest.h>

#include <random>

#include "engine/policy_state.h"
#include "engine/scripted_io.h"

namespace tarvomeldric {
namespace {

const ScriptedIo::Play kAnswer{.seconds = 0.25};
const ScriptedIo::Play kHanging{.seconds = 1000.0};
const ScriptedIo::Play kEmpty{.seconds = 0.25, .empty = true};

// A world in which openai is asked first, and a policy.
struct Policed : World {
  explicit Policed(CallPolicy by, Plays openai = {}) : policy(std::move(by)) {
    for (const char* name : {"openai", "anthropic", "deepseek"}) add(name);
    io.script["openai"] = std::move(openai);
  }
  std::string ask(CallRequest request = {.model = "gpt-4o"}) {
    request.policy = &policy;
    io.waits.clear();
    const std::string ended = World::ask(request);
    return ended.substr(0, ended.find(" for "));
  }
  // Who was asked and what was slept, models left out.
  std::string road() const {
    Texts steps;
    for (const std::string& wait : io.waits) {
      const bool timed = wait.starts_with("sleep") || wait.starts_with("permit");
      if (wait != "learn" && wait != "advise") {
        steps.push_back(timed ? wait : wait.substr(0, wait.find(' ')));
      }
    }
    return joined(steps);
  }
  void only(const char* name) {
    std::erase_if(registry.all, [&](const auto& entry) { return entry.name != name; });
  }
  void refuse_everywhere(std::size_t times, std::int64_t status) {
    for (const auto& [name, _] : registry.all) io.script[name] = failures(times, status);
  }

  CallPolicy policy;
};

Plays told_to_wait(double seconds) {
  return {{.failure = ApiFailure{"slow down", 429, 0.0, seconds}}};
}

TEST(Deadline, IsHeldByEveryWaitAndBlamesNobody) {
  Policed moving({.deadline_s = 2.5}, failures(9, 500));
  EXPECT_EQ(moving.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(moving.road(), "openai, sleep 1, openai, anthropic");

  Policed alone({.deadline_s = 2.5}, failures(9, 500));
  alone.only("openai");
  EXPECT_EQ(alone.ask(), "out of time");
  EXPECT_EQ(alone.road(), "openai, sleep 1, openai");
  EXPECT_EQ(alone.metrics.counter("errors_deadline"), 1);
  EXPECT_EQ(alone.metrics.counter("errors_all_providers_failed"), 0);

  for (const double deadline_s : {3.0, 0.04}) {
    Policed hanging({.deadline_s = deadline_s}, {kHanging});
    const double start_s = hanging.clock.monotonic();
    EXPECT_EQ(hanging.ask(), "out of time");
    EXPECT_LE(hanging.clock.monotonic() - start_s, deadline_s);
    EXPECT_EQ(hanging.io.attempts.size(), deadline_s == 3.0 ? 1 : 0);
    EXPECT_EQ(hanging.provider("openai")->snapshot().fail_count, 0);
    EXPECT_EQ(hanging.learned(), "");
    EXPECT_EQ(hanging.slots(), "openai 10/0, anthropic 10/0, deepseek 10/0");
  }

  Policed bounded({.deadline_s = 3.0}, {kHanging});
  EXPECT_EQ(bounded.ask({.model = "gpt-4o", .semantic_domain = SemanticDomain::kOutOfBounds}),
            "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=, reason=user_explicit). Original "
            "error: timeout");
  EXPECT_EQ(bounded.learned(), "");

  Policed busy({.deadline_s = 0.5});
  for (const auto& [_, record] : busy.registry.all) record->bulkhead()->semaphore()->take_all();
  busy.io.meanwhile = {[] {}, [&] { busy.clock.advance(0.5); }};
  EXPECT_EQ(busy.ask(), "out of time");
  EXPECT_EQ(busy.road(), "permit 0, permit 0.5");

  Policed pressed({.deadline_s = 0.5});
  pressed.metrics.inc("calls_total", 11);
  pressed.metrics.inc("fault_rate_limit", 11);
  pressed.ask();
  EXPECT_EQ(pressed.road(), "openai");
}

TEST(Attempts, AreBoundedInTimeAndNumberAndRecorded) {
  Policed slow({.attempt_timeout_s = 2.0, .max_attempts = 3}, {kHanging, kHanging, kHanging});
  EXPECT_EQ(slow.ask(), "the last error");
  EXPECT_EQ(slow.road(), "openai, sleep 1, openai, sleep 2, openai");
  EXPECT_EQ(slow.provider("openai")->snapshot().fail_count, 3);
  EXPECT_EQ(slow.metrics.counter("errors_requests_spent"), 1);
  EXPECT_EQ(joined(slow.io.attempts,
                   [](const AttemptRecord& r) {
                     return told(r.provider, " ", r.model, " ", r.start_s, "+", r.duration_s, " ",
                                 *r.status, " ", *r.fault);
                   }),
            "openai gpt-4o 0+2 408 timeout, openai gpt-4o 3+2 408 timeout, openai gpt-4o 7+2 408 "
            "timeout");

  Policed once({.max_attempts = 1, .order = AttemptOrder::kFailoverFirst}, failures(1, 503));
  EXPECT_EQ(once.ask(), "the last error");
  EXPECT_EQ(once.road(), "openai");
}

TEST(FailoverFirst, AsksThoseWithRoomThenRetriesThenTheOthers) {
  Policed day({.max_retries = 1, .order = AttemptOrder::kFailoverFirst});
  day.refuse_everywhere(9, 503);
  day.provider("anthropic")->bulkhead()->semaphore()->take_all();
  day.io.meanwhile = {[] {},
                      [&] { day.provider("anthropic")->bulkhead()->semaphore()->release(); }};
  EXPECT_EQ(day.ask(), "the last error");
  EXPECT_EQ(day.road(), "openai, permit 0, deepseek, sleep 1, openai, permit 1, anthropic");

  Policed permanent({.order = AttemptOrder::kFailoverFirst}, failures(1, 401));
  EXPECT_EQ(permanent.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(permanent.road(), "openai, anthropic");

  Policed alone({.max_retries = 2, .order = AttemptOrder::kFailoverFirst}, failures(9, 503));
  alone.only("openai");
  EXPECT_EQ(alone.ask(), "All providers failed");
  EXPECT_EQ(alone.road(), "openai, sleep 1, openai, sleep 2, openai");
}

TEST(RetryAfter, IsWaitedForUpToTheCapAndKeptForLaterCalls) {
  Policed day({.retry_after = true}, told_to_wait(7.0));
  EXPECT_EQ(day.ask(), "l1_retry openai gpt-4o");
  EXPECT_EQ(day.road(), "openai, sleep 7, openai");

  // The policy's own delay is longer; a new refusal counts anew.
  Policed short_wait({.initial_backoff_s = 4.0, .retry_after = true}, told_to_wait(3.0));
  short_wait.io.script["openai"].push_back(told_to_wait(12.0).front());
  short_wait.ask();
  EXPECT_EQ(short_wait.road(), "openai, sleep 4, openai, sleep 12, openai");

  Policed beyond({.retry_after = true, .retry_after_cap_s = 5.0}, told_to_wait(5.5));
  EXPECT_EQ(beyond.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(beyond.road(), "openai, anthropic");
  EXPECT_EQ(beyond.ask(), "direct anthropic claude-3-5-haiku-20241022");
  beyond.policy.retry_after = false;
  EXPECT_EQ(beyond.ask(), "direct openai gpt-4o");
  beyond.policy.retry_after = true;
  beyond.only("openai");
  EXPECT_EQ(beyond.ask(), "No healthy providers available.");
  beyond.clock.advance(1.0);
  EXPECT_EQ(beyond.ask(), "direct openai gpt-4o");
  EXPECT_EQ(beyond.road(), "sleep 4.5, openai");

  // Nobody is left alone for longer than a quarter of an hour.
  const ProviderPtr openai = beyond.provider("openai");
  openai->leave_alone(1e9);
  EXPECT_EQ(openai->left_alone_s(), 900.0);
}

TEST(Delay, IsDrawnUpToTheBackOffAndATenthAboveTheHeader) {
  struct Half final : Random {
    double uniform() const override { return 0.5; }
  } half;
  const ManualClock clock;
  CallPolicy policy{.initial_backoff_s = 3.0, .max_backoff_s = 10.0, .jitter = true};
  const PolicyState state(policy, clock, half, 0.0);
  EXPECT_EQ(state.delay_s(0, {}, 0.0), 1.5);
  EXPECT_EQ(state.delay_s(9, {}, 0.0), 5.0);
  EXPECT_EQ(state.delay_s(0, {}, 30.0), 1.5);  // not heeded by this policy
  policy.retry_after = true;
  EXPECT_EQ(state.delay_s(0, {}, 20.0), 21.0);
  EXPECT_EQ(state.delay_s(0, {}, 30.5), std::nullopt);
}

TEST(Breakers, WhenRespectedEndRetriesAndAreProbedByOneAtATime) {
  Policed day({.respect_breakers = true}, failures(9, 503));
  const BreakerPtr breaker = day.provider("openai")->circuit_breaker();
  breaker->interpreter_locked_fields().failure_threshold = 2;
  day.provider("openai")->rate_limiter()->interpreter_locked_fields().refill_rate = 0;
  EXPECT_EQ(day.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(day.road(), "openai, sleep 1, openai, anthropic");
  EXPECT_EQ(World::tokens(day.provider("openai")), 58);

  // One call tests it; a second one meanwhile goes elsewhere. The failed probe opens it again.
  breaker->interpreter_locked_fields().failure_threshold = 100;
  breaker->interpreter_locked_fields().consecutive_fails = 0;
  day.clock.advance(60.0);
  const auto permit = CircuitBreaker::pass(breaker);
  ASSERT_TRUE(permit);
  EXPECT_EQ(day.ask(), "direct anthropic claude-3-5-haiku-20241022");
  std::optional<ProbePermit> abandoned(std::move(*const_cast<std::optional<ProbePermit>&>(permit)));
  abandoned.reset();
  EXPECT_EQ(day.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(breaker->state(), CircuitState::kOpen);
  day.clock.advance(60.0);
  day.io.script["openai"].clear();
  EXPECT_EQ(day.ask(), "direct openai gpt-4o");
  EXPECT_EQ(breaker->state(), CircuitState::kClosed);

  // A newest fault that no retry helps against ends L1, too.
  Policed hopeless({.respect_breakers = true}, failures(1, 503));
  hopeless.io.script["openai"].push_back(failures(1, 401).front());
  EXPECT_EQ(hopeless.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(hopeless.road(), "openai, sleep 1, openai, anthropic");
}

TEST(Validation, OfEveryAnswerRetriesOnceAndMovesOn) {
  CallPolicy all{.validate = Validation::kAll};
  Policed empty(all, {kEmpty, kEmpty});
  EXPECT_EQ(empty.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(empty.road(), "openai, openai, anthropic");
  EXPECT_EQ(empty.provider("openai")->snapshot().success_count, 2);
  EXPECT_EQ(empty.provider("openai")->snapshot().fail_count, 0);
  EXPECT_EQ(empty.answered().fault->fault_label(), "answer:empty");
  EXPECT_EQ(empty.learned(),
            "answer:empty>direct:openai 0/1, answer:empty>retry:openai 0/1, "
            "answer:empty>failover:anthropic 1/0");

  Policed alone(all, {kEmpty, kEmpty});
  alone.only("openai");
  EXPECT_EQ(alone.ask(), "Empty answer from openai");

  const CallPolicy others_first{.order = AttemptOrder::kFailoverFirst,
                                .validate = Validation::kAll};
  Policed elsewhere(others_first, {kEmpty});
  EXPECT_EQ(elsewhere.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(elsewhere.road(), "openai, anthropic");
  Policed nobody_else(others_first, {kEmpty});
  nobody_else.only("openai");
  EXPECT_EQ(nobody_else.ask(), "l1_retry openai gpt-4o");

  const auto exact = SemanticDomain::kStrongEquivalence;
  Policed broken(all);
  broken.io.contract_holds = false;
  EXPECT_EQ(broken.ask({.model = "gpt-4o", .semantic_domain = exact}),
            "Contract validation failed: ");
  EXPECT_EQ(broken.road(), "openai, openai, anthropic, deepseek");
  EXPECT_EQ(broken.ask({.model = "gpt-4o", .semantic_domain = SemanticDomain::kTauNeighborhood}),
            "direct openai gpt-4o");
  EXPECT_EQ(broken.answered().answer.validation_passed, false);

  // A healed answer that is no good goes on to the next one; there is no cheaper model for it.
  Policed healed(all, {{.failure = ApiFailure{"", 500}}, kEmpty});
  EXPECT_EQ(healed.ask(), "l3_failover anthropic claude-3-5-haiku-20241022");
  EXPECT_EQ(healed.road(), "openai, sleep 1, openai, anthropic");

  Policed bounded(all, {kEmpty});
  EXPECT_EQ(bounded.ask({.model = "gpt-4o", .semantic_domain = SemanticDomain::kOutOfBounds}),
            "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=, reason=user_explicit). Original "
            "error: validation_error");
}

TEST(Candidates, AreThoseOfThePolicyInItsOrder) {
  using Names = std::vector<std::string>;
  Policed listed({.providers = Names{"nobody", "deepseek", "openai"}});
  listed.io.script["deepseek"] = failures(1, 401);
  EXPECT_EQ(listed.ask(), "l3_failover openai gpt-4o");
  EXPECT_EQ(listed.road(), "deepseek, openai");
  listed.policy.providers = Names{"nobody"};
  EXPECT_EQ(listed.ask(), "No healthy providers available.");

  Policed exact({.exact_model = true}, failures(1, 404));
  exact.provider("anthropic")->interpreter_locked_fields().models = {"another"};
  EXPECT_EQ(exact.ask({.model = "my-model"}), "l3_failover deepseek my-model");
  EXPECT_EQ(exact.road(), "openai, deepseek");
  for (const auto& [_, record] : exact.registry.all) {
    record->interpreter_locked_fields().models = {"another"};
  }
  EXPECT_EQ(exact.ask({.model = "my-model"}), "No healthy providers available.");
}

TEST(Routes, GiveOrderAndModelsAndNeverACheaperOne) {
  CallRequest two;
  two.route.emplace()["nobody"] = "m0";
  (*two.route)["deepseek"] = "m1";
  (*two.route)["openai"] = "gpt-4o";
  Policed routed({}, failures(1, 404));
  routed.io.script["deepseek"] = failures(1, 401);
  EXPECT_EQ(routed.ask(two), "the last error");
  EXPECT_EQ(joined(routed.io.attempts,
                   [](const AttemptRecord& r) { return told(r.provider, " ", r.model); }),
            "deepseek m1, openai gpt-4o");
  routed.policy.providers = std::vector<std::string>{"anthropic", "openai"};
  EXPECT_EQ(routed.ask(two), "direct openai gpt-4o");

  // A body that nobody takes is the client's doing, and no reason to leave providers alone.
  routed.policy.providers.reset();
  for (int i = 0; i < 9; ++i) {
    routed.refuse_everywhere(1, 400);
    EXPECT_EQ(routed.ask(two), "the last error");
  }
  EXPECT_EQ(routed.provider("deepseek")->snapshot().fail_count, 1);

  CallRequest one;
  one.route.emplace()["openai"] = "gpt-4o";
  routed.io.script["openai"] = failures(1, 404);
  EXPECT_EQ(routed.ask(one), "All providers failed");
}

TEST(RetryBudget, BoundsWhatAnOutageCosts) {
  Policed day({.order = AttemptOrder::kFailoverFirst});
  day.policy.retry_budget = std::make_shared<RetryBudget>(RetryBudgetFields{}, day.clock);
  const double start_s = day.clock.monotonic();
  constexpr int kCallsMade = 10'000;
  for (int i = 0; i < kCallsMade; ++i) {
    day.refuse_everywhere(9, 503);
    for (const auto& [_, record] : day.registry.all) {
      record->circuit_breaker()->interpreter_locked_fields() = {};
      record->rate_limiter()->interpreter_locked_fields().tokens = 60;
    }
    EXPECT_EQ(day.ask(), "the last error");
    day.clock.advance(0.01);
  }
  const double seconds = day.clock.monotonic() - start_s;
  const auto sent = static_cast<double>(day.io.attempts.size());
  EXPECT_LE(sent, 1.2 * kCallsMade + 10 + seconds);
  EXPECT_GE(sent, 1.2 * kCallsMade);
  const RetryBudgetFields spent{0.0, 0.0, 0.0};
  EXPECT_FALSE(RetryBudget(spent, day.clock).draw());
}

// Whatever is asked of whom, a call keeps what its policy promises.
TEST(Policy, HoldsInRandomScripts) {
  std::mt19937 random(20);
  const auto draw = [&](int sides) { return static_cast<int>(random() % unsigned(sides)); };
  for (int round = 0; round < 2'000; ++round) {
    SCOPED_TRACE(round);
    CallPolicy policy;
    if (draw(2)) policy.deadline_s = 0.5 + draw(20);
    if (draw(2)) policy.attempt_timeout_s = 0.5 + draw(8);
    if (draw(2)) policy.max_attempts = 1 + draw(6);
    policy.max_retries = 1 + draw(5);
    policy.jitter = draw(2);
    policy.retry_after = draw(2);
    policy.order = draw(2) ? AttemptOrder::kFailoverFirst : AttemptOrder::kRetryFirst;
    policy.respect_breakers = draw(2);
    policy.validate = draw(2) ? Validation::kAll : Validation::kHealed;
    policy.exact_model = draw(2);
    if (draw(3) == 0) policy.providers = {"deepseek", "nobody", "openai"};
    Policed day(policy);
    if (draw(2)) {
      const RetryBudgetFields figures{0.5, 0.1, double(draw(4))};
      day.policy.retry_budget = std::make_shared<RetryBudget>(figures, day.clock);
    }
    if (draw(2)) day.io.contract_holds = draw(2);
    day.io.schema = draw(2);
    day.io.listening = draw(2);
    for (const auto& [name, record] : day.registry.all) {
      for (int i = draw(8); i > 0; --i) {
        const std::int64_t status[] = {429, 500, 401, 404, 408};
        ScriptedIo::Play play{.seconds = draw(40) / 4.0};
        if (draw(4)) play.failure = ApiFailure{"it broke", status[draw(5)]};
        if (play.failure && draw(3) == 0) play.failure->retry_after_s = draw(40);
        play.empty = draw(2);
        day.io.script[name].push_back(play);
      }
      if (draw(4) == 0) record->circuit_breaker()->trip();
      if (draw(8) == 0) day.io.meanwhile.emplace_back([&] { day.clock.advance(0.1); });
      if (draw(2)) day.clock.advance(40.0);
    }
    const double start_s = day.clock.monotonic();
    CallRequest request{.model = "gpt-4o"};
    if (draw(3)) request.semantic_domain = static_cast<SemanticDomain>(draw(3));
    const std::string ended = day.ask(request);
    EXPECT_LE(day.clock.monotonic() - start_s, policy.deadline_s.value_or(1e9));
    const auto sent = static_cast<std::int64_t>(day.io.attempts.size());
    EXPECT_LE(sent, policy.max_attempts.value_or(1 + policy.max_retries + 1 + 2));
    if (day.policy.retry_budget) {
      EXPECT_LE(sent, 1 + day.policy.retry_budget->snapshot().burst + 0.5 + 0.1 * 400);
    }
    for (const AttemptRecord& attempt : day.io.attempts) {
      EXPECT_LE(attempt.duration_s, policy.attempt_timeout_s.value_or(1e9));
    }
    EXPECT_EQ(day.slots(), "openai 10/0, anthropic 10/0, deepseek 10/0");
    for (const auto& [_, record] : day.registry.all) {  // no probe is left out
      day.clock.advance(1e6);
      EXPECT_TRUE(CircuitBreaker::pass(record->circuit_breaker()));
    }
    EXPECT_EQ(day.io.events.empty(), !day.io.listening);
    if (day.io.listening) {
      EXPECT_TRUE(std::holds_alternative<EndEvent>(day.io.events.back()));
    }
    if (ended == "out of time") {
      EXPECT_TRUE(policy.deadline_s);
    }
  }
}

TEST(Policy, GivesBackWhatItHoldsWhenItIsBrokenOff) {
  for (std::size_t at = 1; at < 12; ++at) {
    Policed day(CallPolicy::interactive(), failures(9, 503));
    day.provider("openai")->circuit_breaker()->trip();
    day.clock.advance(60.0);
    day.io.hold_at(at);
    const CallRequest request{.model = "gpt-4o", .policy = &day.policy};
    {
      Task<void> call = run_call(request, day.engine(), day.io, day.trace, day.outcome);
      call.start();
    }
    EXPECT_EQ(day.slots(), "openai 10/0, anthropic 10/0, deepseek 10/0") << at;
    day.clock.advance(60.0);
    EXPECT_TRUE(CircuitBreaker::pass(day.provider("openai")->circuit_breaker())) << at;
  }
}

}  // namespace
}  // namespace tarvomeldric
