#include <gtest/gtest.h>

#include "engine/failover.h"
#include "engine/scripted_io.h"

namespace tarvomeldric {
namespace {

// A world in which openai is asked first.
struct Day : World {
  explicit Day(Plays openai) {
    for (const char* name : {"openai", "anthropic", "deepseek"}) add(name);
    io.script["openai"] = std::move(openai);
  }
  // What was asked of providers and slept, without the learner's steps.
  std::string road() const {
    Texts steps = io.waits;
    std::erase_if(steps, [](const auto& wait) { return wait == "learn" || wait == "advise"; });
    return joined(steps);
  }
};

const ScriptedIo::Play kAnswer{.seconds = 0.25};

constexpr const char* kGrowing =
    "sleep 1, openai gpt-4o, sleep 2, openai gpt-4o, sleep 4, openai gpt-4o, sleep 8, openai "
    "gpt-4o, sleep 16, openai gpt-4o, ";
constexpr const char* kSteady =
    "sleep 1, openai gpt-4o, sleep 1, openai gpt-4o, sleep 1, openai gpt-4o, sleep 1, openai "
    "gpt-4o, sleep 1, openai gpt-4o, ";

TEST(Healing, TakesTheRoadThatTheFirstFaultAllows) {
  struct Case {
    std::int64_t status;
    const char* text;
    std::string category;
    std::string between;  // the first attempt and the other provider
  };
  const Case cases[] = {
      {429, "", "rate_limit", kSteady},
      {500, "", "server_error", kGrowing},
      {408, "", "timeout", kGrowing},
      {0, "connection refused", "connection_error", kGrowing},
      {404, "", "model_not_found", "openai gpt-4o-mini, "},
      {400, "", "validation_error", "openai gpt-4o-mini, "},
      {401, "", "auth_error", ""},
      {402, "", "quota_exceeded", ""},
      {418, "", "unknown", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.category);
    Day day(failures(20, c.status, c.text));
    EXPECT_EQ(day.ask().substr(0, 21), "l3_failover anthropic");
    EXPECT_EQ(day.road(), "openai gpt-4o, " + c.between + "anthropic claude-3-5-haiku-20241022");
    EXPECT_EQ(day.metrics.counter("fault_" + c.category), 1);
    const auto breaker = day.provider("openai")->category_circuit_breaker(c.category);
    EXPECT_EQ(breaker->snapshot().consecutive_fails, 1);
    EXPECT_EQ(day.trace.monitor_result, c.category);
  }
}

TEST(Healing, ByARetryKeepsTheFirstFaultAndReportsIt) {
  Day day({{.failure = ApiFailure{"it broke", 500}}, {.failure = ApiFailure{"", 503}}, kAnswer});
  day.io.contract_holds = true;
  const auto exact = SemanticDomain::kStrongEquivalence;
  EXPECT_EQ(day.ask({.model = "gpt-4o", .semantic_domain = exact}),
            "l1_retry openai gpt-4o for openai gpt-4o after server_error:http_500");
  EXPECT_EQ(day.road(), "openai gpt-4o, sleep 1, openai gpt-4o, sleep 2, openai gpt-4o");
  EXPECT_EQ(day.learned(), "server_error:http_500>retry:openai 1/1");
  EXPECT_EQ(day.counted(),
            "call_count, heal_count, calls_total, fault_server_error, l1_retry_attempt_0, "
            "l1_retry_attempt_1, heal_l1_retry");
  EXPECT_EQ(day.traced(),
            "server_error, server_error:http_500, l1_retry, healed, monitor 0, analyze 0, plan 0, "
            "execute 0, knowledge 3250, recorded, 3250 in all");
  EXPECT_EQ(joined(day.io.reports),
            "retry of server_error (server_error:http_500) by openai gpt-4o in 250 ms");
  EXPECT_EQ(day.answered().answer.latency_ms, 250.0);
  EXPECT_EQ(day.answered().answer.semantic_domain, value_of(exact));
  EXPECT_EQ(day.answered().answer.validation_passed, true);
  EXPECT_FALSE(day.answered().answer.downgraded);
  const ProviderFields openai = day.provider("openai")->snapshot();
  EXPECT_EQ(openai.success_count, 1);
  EXPECT_EQ(openai.fail_count, 2);
  // Retries are made without admission: the first attempt's token is the only one spent.
  EXPECT_EQ(World::tokens(day.provider("openai")), 59);
}

TEST(Healing, ByADowngradeGoesByTheLatestDiagnosis) {
  Plays plays = failures(5, 500);
  plays.push_back({.failure = ApiFailure{"", 404}});
  plays.push_back(kAnswer);
  Day day(plays);
  EXPECT_EQ(day.ask(),
            "l2_downgrade openai gpt-4o-mini for openai gpt-4o after model_not_found:http_404");
  EXPECT_TRUE(day.answered().answer.downgraded);
  EXPECT_EQ(day.learned(),
            "server_error:http_500>retry:openai 0/5, "
            "model_not_found:http_404>downgrade:openai:gpt-4o-mini 1/0");
  EXPECT_EQ(day.counted(),
            "call_count, heal_count, l2_downgrade_count, calls_total, fault_server_error, "
            "l1_retry_attempt_0, l1_retry_attempt_1, l1_retry_attempt_2, l1_retry_attempt_3, "
            "l1_retry_attempt_4, l2_downgrade_attempt, heal_l2_downgrade");
  EXPECT_EQ(joined(day.io.reports),
            "downgrade of model_not_found (model_not_found:http_404) by openai gpt-4o-mini in 250 "
            "ms");

  Day at_the_end(failures(9, 404));
  at_the_end.ask({.model = "gpt-3.5-turbo"});
  EXPECT_EQ(at_the_end.metrics.counter("l2_downgrade_attempt"), 0);
}

TEST(Healing, EndsLoudlyWhereItHasTo) {
  struct Case {
    Plays openai;
    std::optional<SemanticDomain> domain;
    bool schema;
    std::string told;
    const char* counted;
    const char* learned;
  };
  const auto strong = SemanticDomain::kStrongEquivalence;
  const auto tau = SemanticDomain::kTauNeighborhood;
  const Case cases[] = {
      {failures(1, 500), SemanticDomain::kOutOfBounds, false,
       "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=essay, reason=user_explicit). Original "
       "error: server_error",
       "call_count, calls_total, fault_server_error",
       "server_error:http_500>blocked:oob:openai 0/1"},
      {failures(1, 500), strong, true, "Contract validation failed after L1 retry: ",
       "call_count, calls_total, fault_server_error, l1_retry_attempt_0, "
       "contract_validation_failed",
       "server_error:http_500>retry:openai 0/1"},
      {failures(1, 404), strong, true, "Contract validation failed after L2 downgrade: ",
       "call_count, l1_skip_count, calls_total, fault_model_not_found, l1_skip_to_failover, "
       "l2_downgrade_attempt, contract_validation_failed",
       "model_not_found:http_404>downgrade:openai:gpt-4o-mini 0/1"},
      {failures(1, 401), strong, true,
       "Contract validation failed after L3 failover to anthropic: ",
       "call_count, heal_count, l1_skip_count, l3_failover_count, calls_total, fault_auth_error, "
       "l1_skip_to_failover, contract_validation_failed, heal_l3_failover",
       "auth_error:http_401>failover:anthropic 0/1"},
      {failures(1, 401), tau, true,
       "Response drift detected: structure_mismatch_cannot_heal. Structure mismatch cannot be "
       "healed.",
       "call_count, l1_skip_count, calls_total, fault_auth_error, l1_skip_to_failover, "
       "contract_warning_tau_domain, drift_fail_loud",
       ""},
      {failures(1, 401), tau, false,
       "l3_failover anthropic claude-3-5-haiku-20241022 for openai gpt-4o after "
       "auth_error:http_401",
       "call_count, heal_count, l1_skip_count, l3_failover_count, calls_total, fault_auth_error, "
       "l1_skip_to_failover, contract_warning_tau_domain, heal_l3_failover, tau_domain_failover",
       "auth_error:http_401>failover:anthropic 1/0"},
      {failures(1, 500), tau, true,
       "l1_retry openai gpt-4o for openai gpt-4o after server_error:http_500",
       "call_count, heal_count, calls_total, fault_server_error, l1_retry_attempt_0, "
       "contract_warning_tau_domain, heal_l1_retry",
       "server_error:http_500>retry:openai 1/0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.told);
    Day day(c.openai);
    day.io.contract_holds = false;
    day.io.schema = c.schema;
    EXPECT_EQ(day.ask({.model = "gpt-4o", .task_type = "essay", .semantic_domain = c.domain}),
              c.told);
    EXPECT_EQ(day.counted(), c.counted);
    EXPECT_EQ(day.learned(), c.learned);
  }
}

TEST(Failover, SkipsTheBarredAndTheBusyAndKeepsTheLastError) {
  Day day(failures(1, 401));
  day.io.script["deepseek"] = failures(1, 500);
  const auto breaker = day.provider("anthropic")->category_circuit_breaker("auth_error");
  for (int i = 0; i < 5; ++i) breaker->record_failure();
  EXPECT_EQ(day.ask(), "the last error");
  EXPECT_EQ(day.counted(),
            "call_count, l1_skip_count, calls_total, fault_auth_error, l1_skip_to_failover, "
            "category_circuit_blocked_failover, errors_all_providers_failed");
  EXPECT_EQ(day.provider("deepseek")->snapshot().fail_count, 1);
  EXPECT_EQ(day.learned(),
            "auth_error:http_401>failover:deepseek 0/1, auth_error:http_401>all_failed 0/1");

  Day busy(failures(1, 401));
  busy.provider("anthropic")->rate_limiter()->interpreter_locked_fields().tokens = -99;
  busy.provider("deepseek")->bulkhead()->semaphore()->take_all();  // no slots at all
  EXPECT_EQ(busy.ask(), "All providers failed");
  EXPECT_EQ(busy.road(), "openai gpt-4o, permit 1");
  EXPECT_EQ(busy.metrics.counter("rate_limited_during_failover"), 2);
}

TEST(Failover, OrdersByHealthAdviceAndLatency) {
  Day day(failures(1, 401));
  const Advice advice{"failover:deepseek", 0.9};
  const NamedProvider deepseek{"deepseek", day.provider("deepseek")};
  EXPECT_EQ(provider_priority(deepseek, std::nullopt), 50.0);
  EXPECT_EQ(provider_priority({"openai", day.provider("openai")}, advice), 50.0);
  deepseek.provider->interpreter_locked_fields().recent_latencies_ms.append(400.0);
  EXPECT_EQ(provider_priority(deepseek, advice), 85.0);
  deepseek.provider->interpreter_locked_fields().recent_latencies_ms = {2000.0};
  EXPECT_EQ(provider_priority(deepseek, std::nullopt), 50.0);

  day.learner.record({"auth_error:http_401", "failover:deepseek", true, 1.0});
  day.io.script["deepseek"] = {kAnswer};
  EXPECT_EQ(day.ask(),
            "l3_failover deepseek deepseek-chat for openai gpt-4o after auth_error:http_401");
  EXPECT_EQ(joined(day.io.reports),
            "failover of auth_error (auth_error:http_401) by deepseek deepseek-chat in 250 ms");
  EXPECT_EQ(day.traced(),
            "auth_error, auth_error:http_401, l3_failover, healed, monitor 0, analyze 0, plan 0, "
            "execute 0, knowledge 250, recorded, 250 in all");
  EXPECT_EQ(day.measured(), "fault_latency_us 0, latency_failover_ms 250");
  EXPECT_EQ(day.answered().answer.latency_ms, 250.0);
  EXPECT_EQ(day.provider("deepseek")->snapshot().success_count, 1);
}

}  // namespace
}  // namespace tarvomeldric
