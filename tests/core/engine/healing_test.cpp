#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "engine/failover.h"
#include "engine/scripted_io.h"

namespace tarvomeldric {
namespace {

using Plays = std::deque<ScriptedIo::Play>;

ScriptedIo::Play failure(std::int64_t status, std::string text = "it broke") {
  return {.attempt = {.failure = ApiFailure{std::move(text), status}}};
}
ScriptedIo::Play answer(double seconds = 0.5) { return {.seconds = seconds}; }

Plays failures(std::size_t count, std::int64_t status) { return Plays(count, failure(status)); }

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

// A world in which openai is asked first, and the verbs to read what a call left behind.
struct Day : World {
  Day() {
    for (const char* name : {"openai", "anthropic", "deepseek"}) add(name);
    io.script["openai"] = failures(20, 500);
  }

  // The outcome as one line.
  std::string ask(CallRequest request = {}) {
    request.model = request.model.empty() ? "gpt-4o" : request.model;
    outcome = call(request);
    if (const auto* failed = std::get_if<CallFailed>(&outcome)) {
      return failed->kind == CallFailed::Kind::kProviderError ? "the last error" : failed->message;
    }
    const auto& got = std::get<CallAnswered>(outcome);
    return got.heal_level + " " + got.provider + " " + got.model + " for " + got.original_provider +
           " " + got.original_model + " after " + std::string(got.fault->fault_label());
  }
  const CallAnswered& answered() const { return std::get<CallAnswered>(outcome); }
  // What was asked of providers and slept, without the learner's steps.
  std::string road() const {
    std::vector<std::string> steps;
    for (const std::string& wait : io.waits) {
      if (wait != "learn" && wait != "advise") steps.push_back(wait);
    }
    return joined(steps);
  }
  std::string learned() const {
    std::vector<std::string> rules;
    for (const RulePtr& rule : learner.rules()) {
      rules.push_back(rule->pattern + ">" + rule->action + " " +
                      std::to_string(rule->success_count) + "/" + std::to_string(rule->fail_count));
    }
    return joined(rules);
  }
  std::int64_t metric(const char* name) const { return metrics.counter(name); }
  std::int64_t count(Counter counter) const { return counters.value(counter); }
  CircuitBreakerFields breaker(std::size_t i, const char* category) {
    return registry.all[i].provider->category_circuit_breaker(category)->snapshot();
  }
  bool all_slots_are_back() const {
    for (const auto& [_, provider] : registry.all) {
      const BulkheadFields slots = provider->bulkhead()->snapshot();
      if (slots.active != 0 || slots.semaphore->permits() != slots.max_concurrent) return false;
    }
    return true;
  }

  CallOutcome outcome;
};

constexpr const char* kGrowing =
    "sleep 1.0, openai gpt-4o, sleep 2.0, openai gpt-4o, sleep 4.0, "
    "openai gpt-4o, sleep 8.0, openai gpt-4o, sleep 16.0, openai gpt-4o";
constexpr const char* kSteady =
    "sleep 1.0, openai gpt-4o, sleep 1.0, openai gpt-4o, sleep 1.0, "
    "openai gpt-4o, sleep 1.0, openai gpt-4o, sleep 1.0, openai gpt-4o";

TEST(Healing, TakesTheRoadThatTheFirstFaultAllows) {
  struct Case {
    ScriptedIo::Play fault;
    const char* category;
    const char* between;  // the first attempt and the other provider
    bool skips;
  };
  const Case cases[] = {
      {failure(429), "rate_limit", kSteady, false},
      {failure(500), "server_error", kGrowing, false},
      {failure(408), "timeout", kGrowing, false},
      {failure(0, "connection refused"), "connection_error", kGrowing, false},
      {failure(404), "model_not_found", "openai gpt-4o-mini", true},
      {failure(400), "validation_error", "openai gpt-4o-mini", true},
      {failure(401), "auth_error", "", true},
      {failure(402), "quota_exceeded", "", true},
      {failure(418), "unknown", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.category);
    Day day;
    day.io.script["openai"] = Plays(20, c.fault);
    day.learner.seed();
    const std::string told = day.ask();
    EXPECT_TRUE(told.starts_with("l3_failover ")) << told;
    const std::string road = day.road();
    const std::string start = std::string("openai gpt-4o, ") + c.between;
    EXPECT_TRUE(road.starts_with(start)) << road;
    EXPECT_EQ(road.find("openai", start.size()), std::string::npos) << road;
    EXPECT_EQ(day.count(Counter::kL1Skip), c.skips);
    EXPECT_EQ(day.metric("l1_skip_to_failover"), c.skips);
    EXPECT_EQ(day.metric(("fault_" + std::string(c.category)).c_str()), 1);
    EXPECT_EQ(day.breaker(0, c.category).consecutive_fails, 1);
    EXPECT_EQ(*day.answered().trace->monitor_result, c.category);
    EXPECT_EQ(day.io.reports.size(), 1U);
    EXPECT_TRUE(day.all_slots_are_back());
  }
}

TEST(Healing, ByARetryKeepsTheFirstFaultAndReportsIt) {
  Day day;
  day.io.script["openai"] = {failure(500), failure(503), answer(0.25)};
  day.io.contract_holds = true;
  const auto exact = SemanticDomain::kStrongEquivalence;
  EXPECT_EQ(day.ask({.semantic_domain = exact}),
            "l1_retry openai gpt-4o for openai gpt-4o after server_error:http_500");
  EXPECT_EQ(day.road(), "openai gpt-4o, sleep 1.0, openai gpt-4o, sleep 2.0, openai gpt-4o");
  EXPECT_EQ(day.learned(), "server_error:http_500>retry:openai 1/1");
  EXPECT_EQ(day.answered().latency_ms, 250.0);
  EXPECT_TRUE(day.answered().domain == exact && day.answered().validation_passed == true);
  const MapeKTrace& trace = *day.answered().trace;
  EXPECT_EQ(*trace.analyze_result, "server_error:http_500");
  EXPECT_EQ(*trace.plan_result + " " + *trace.execute_result, "l1_retry healed");
  EXPECT_EQ(trace.total_loop_us, 3'250'000.0);
  EXPECT_TRUE(trace.knowledge_recorded && trace.phases.back().first == "knowledge");
  EXPECT_EQ(day.count(Counter::kHeal), 1);
  EXPECT_EQ(day.metric("heal_l1_retry") + day.metric("l1_retry_attempt_1"), 2);
  EXPECT_EQ(day.io.reports.at(0).action + " " + day.io.reports.at(0).fault_type,
            "retry server_error");
  const ProviderFields openai = day.registry.all[0].provider->snapshot();
  EXPECT_EQ(openai.success_count, 1);
  EXPECT_EQ(openai.fail_count, 2);
  // Retries are made without admission: the first attempt's token is the only one spent.
  EXPECT_TRUE(day.guards().starts_with("openai 10 0 59 ")) << day.guards();
}

TEST(Healing, ByADowngradeGoesByTheLatestDiagnosis) {
  Day day;
  day.io.script["openai"] = failures(5, 500);
  day.io.script["openai"].push_back(failure(404));
  day.io.script["openai"].push_back(answer());
  EXPECT_EQ(day.ask(),
            "l2_downgrade openai gpt-4o-mini for openai gpt-4o after model_not_found:http_404");
  EXPECT_TRUE(day.answered().downgraded);
  EXPECT_EQ(day.count(Counter::kHeal) + day.count(Counter::kL2Downgrade), 2);
  EXPECT_EQ(day.metric("l2_downgrade_attempt"), 1);
  EXPECT_EQ(day.count(Counter::kL1Skip), 0);
  EXPECT_EQ(day.learned(),
            "server_error:http_500>retry:openai 0/5, "
            "model_not_found:http_404>downgrade:openai:gpt-4o-mini 1/0");

  Day at_the_end;
  at_the_end.io.script["openai"] = failures(9, 404);
  at_the_end.ask({.model = "gpt-3.5-turbo"});
  EXPECT_EQ(at_the_end.metric("l2_downgrade_attempt"), 0);
}

TEST(Healing, EndsLoudlyWhereItHasTo) {
  struct Case {
    const char* name;
    Plays openai;
    std::optional<SemanticDomain> domain;
    bool schema;
    const char* told;
    std::int64_t heals;
    const char* learned;
  };
  const auto strong = SemanticDomain::kStrongEquivalence;
  const auto tau = SemanticDomain::kTauNeighborhood;
  const Case cases[] = {
      {"out of bounds", failures(1, 500), SemanticDomain::kOutOfBounds, false,
       "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=essay, reason=user_explicit). Original "
       "error: server_error",
       0, "server_error:http_500>blocked:oob:openai 0/1"},
      {"L1",
       {failure(500), answer()},
       strong,
       true,
       "Contract validation failed after L1 retry: ",
       0,
       "server_error:http_500>retry:openai 0/1"},
      {"L2",
       {failure(404), answer()},
       strong,
       true,
       "Contract validation failed after L2 downgrade: ",
       0,
       "model_not_found:http_404>downgrade:openai:gpt-4o-mini 0/1"},
      {"L3", failures(1, 401), strong, true,
       "Contract validation failed after L3 failover to anthropic: ", 1,
       "auth_error:http_401>failover:anthropic 0/1"},
      {"drift", failures(1, 401), tau, true,
       "Response drift detected: structure_mismatch_cannot_heal. Structure mismatch cannot be "
       "healed.",
       0, ""},
      {"warning", failures(1, 401), tau, false,
       "l3_failover anthropic claude-3-5-haiku-20241022 for openai gpt-4o after "
       "auth_error:http_401",
       1, "auth_error:http_401>failover:anthropic 1/0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Day day;
    day.io.script["openai"] = c.openai;
    day.io.contract_holds = false;
    day.io.schema = c.schema;
    EXPECT_EQ(day.ask({.task_type = "essay", .semantic_domain = c.domain}), c.told);
    EXPECT_EQ(day.count(Counter::kHeal), c.heals);
    EXPECT_EQ(day.learned(), c.learned);
    EXPECT_EQ(day.metric("contract_validation_failed"), c.domain == strong);
    EXPECT_EQ(day.metric("contract_warning_tau_domain"), c.domain == tau);
    EXPECT_TRUE(day.all_slots_are_back());
  }
}

TEST(Failover, SkipsTheBarredAndTheBusyAndKeepsTheLastError) {
  Day day;
  day.io.script["openai"] = failures(1, 401);
  day.io.script["deepseek"] = failures(1, 500);
  for (int i = 0; i < 5; ++i) {
    day.registry.all[1].provider->category_circuit_breaker("auth_error")->record_failure();
  }
  EXPECT_EQ(day.ask(), "the last error");
  EXPECT_EQ(day.metric("category_circuit_blocked_failover"), 1);
  EXPECT_EQ(day.metric("errors_all_providers_failed"), 1);
  EXPECT_EQ(day.registry.all[2].provider->host_fields().fail_count, 1);
  EXPECT_EQ(day.learned(),
            "auth_error:http_401>failover:deepseek 0/1, auth_error:http_401>all_failed 0/1");

  Day busy;
  busy.io.script["openai"] = failures(1, 401);
  for (std::size_t i : {1U, 2U})
    busy.registry.all[i].provider->rate_limiter()->host_fields().tokens = -99;
  EXPECT_EQ(busy.ask(), "All providers failed");
  EXPECT_EQ(busy.metric("rate_limited_during_failover"), 2);
}

TEST(Failover, OrdersByHealthAdviceAndLatency) {
  Day day;
  const Advice advice{"failover:openai", 0.9};
  const NamedProvider& openai = day.registry.all[0];
  EXPECT_EQ(provider_priority(openai, std::nullopt), 50.0);
  openai.provider->host_fields().recent_latencies.append(400.0);
  EXPECT_EQ(provider_priority(openai, advice), 85.0);
  EXPECT_EQ(provider_priority(day.registry.all[1], advice), 50.0);
  openai.provider->host_fields().recent_latencies = {2000.0};
  EXPECT_EQ(provider_priority(openai, std::nullopt), 50.0);

  Day advised;
  advised.io.script["openai"] = failures(1, 401);
  advised.learner.record({"auth_error:http_401", "failover:deepseek", true, 1.0});
  EXPECT_EQ(advised.ask().substr(0, 20), "l3_failover deepseek");
  EXPECT_TRUE(std::ranges::any_of(advised.metrics.snapshot_all().histograms, [](const auto& each) {
    return each.first == "latency_failover_ms" && each.second.count == 1;
  }));
}

TEST(Healing, GivesEverythingBackWhenItIsBrokenOffAtAnyWait) {
  const auto cancelled = std::make_exception_ptr(std::domain_error("cancelled"));
  Day whole;
  whole.io.script["anthropic"] = failures(1, 500);
  whole.ask();
  for (std::size_t wait = 1; wait <= whole.io.waits.size(); ++wait) {
    for (const bool thrown : {true, false}) {
      Day day;
      day.io.script["anthropic"] = failures(1, 500);
      day.io.hold_at(wait);
      const CallRequest request{.model = "gpt-4o"};
      {
        auto task = run_call(request, day.engine(), day.io);
        task.start();
        ASSERT_FALSE(task.done());
        if (thrown) {
          day.io.resume(cancelled);
          EXPECT_THROW(task.take(), std::domain_error);
        }
      }
      EXPECT_TRUE(day.all_slots_are_back()) << day.io.waits.back();
    }
  }
}

}  // namespace
}  // namespace tarvomeldric
