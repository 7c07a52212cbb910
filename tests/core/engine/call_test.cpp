#include "engine/call.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "engine/scripted_io.h"

namespace tarvomeldric {
namespace {

using Texts = std::vector<std::string>;
const auto kCancelled = std::make_exception_ptr(std::domain_error("cancelled"));

// An outcome as one line: the refusal, or who answered in whose place by which plan.
std::string told(const CallOutcome& outcome) {
  if (const auto* failed = std::get_if<CallFailed>(&outcome)) return failed->message;
  const auto& got = std::get<CallAnswered>(outcome);
  return got.provider + " " + got.model + " for " + got.original_provider + " " +
         got.original_model + " " + *got.trace->plan_result + " " + got.heal_level;
}

struct CallTest : ::testing::Test, World {
  static void drain(ProviderPtr provider) { provider->rate_limiter()->host_fields().tokens = 0; }
  std::string counted() const {
    std::string all;
    for (const auto& [name, value] : metrics.counters()) all += name + std::to_string(value) + " ";
    return all;
  }
};

TEST_F(CallTest, SuccessIsTracedCountedAndLearned) {
  const ProviderPtr openai = add("openai");
  io.script["openai"] = {{.seconds = 0.25}};
  const CallOutcome outcome = call({.request_id = "mine", .model = "gpt-4-turbo"});
  EXPECT_EQ(told(outcome), "openai gpt-4o-mini for openai gpt-4o-mini direct ");
  const MapeKTrace& trace = *std::get<CallAnswered>(outcome).trace;
  std::string log = trace.request_id + " " + *trace.monitor_result + " " + *trace.execute_result;
  for (const auto& [phase, moment] : trace.phases) log += " " + phase;
  EXPECT_EQ(log, "mine provider_selected ok monitor analyze plan execute knowledge");
  EXPECT_EQ(trace.phases[4].second - trace.phases[3].second, 250'000.0);
  EXPECT_TRUE(trace.knowledge_recorded && trace.total_loop_us == 250'000.0);
  EXPECT_EQ(io.waits, (Texts{"advise", "openai gpt-4o-mini", "learn"}));
  EXPECT_EQ(counted(), "calls_total1 success_primary1 ");
  EXPECT_EQ(metrics.snapshot_all().histograms.at(0).second.p50, 250.0);
  EXPECT_EQ(counters.snapshot(), (CounterValues{1}));
  const RulePtr rule = learner.rules().back();
  EXPECT_EQ(rule->pattern + " " + rule->action, "success direct:openai");
  EXPECT_TRUE(rule->avg_heal_time_ms == 250.0 && openai->avg_latency() == 250.0);
  EXPECT_EQ(guards(), "openai 10 0 59 ");
}

TEST(RequestId, IsNotRepeatedByAForkedChild) {
  std::string childs = fresh_request_id();
  EXPECT_EQ(childs.find_first_not_of("0123456789abcdef"), childs.npos) << childs;
  int channel[2];
  ASSERT_EQ(pipe(channel), 0);
  const pid_t child = fork();
  if (child == 0) {
    const std::string id = fresh_request_id();
    _exit(write(channel[1], id.data(), id.size()) < 0);
  }
  EXPECT_EQ(read(channel[0], childs.data(), childs.size()), 8);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_NE(childs, fresh_request_id());
}

TEST(Call, PausesWhenMoreThanThreeInTenMeetRateLimits) {
  const std::tuple<int, int, bool> cases[] = {{10, 10, false}, {11, 4, true}, {20, 6, false}};
  for (const auto& [calls, faults, pauses] : cases) {
    World world;
    world.add("openai");
    world.metrics.inc("calls_total", calls);
    world.metrics.inc("fault_rate_limit", faults);
    world.call({});
    EXPECT_EQ(world.io.waits.front() == "sleep 0.5", pauses) << calls;
  }
}

TEST_F(CallTest, IsRefusedWhenThereIsNoProviderOrTheOnlyOneIsBusy) {
  drain(add("openai"));
  EXPECT_EQ(told(call({})), "Primary rate-limited, no fallback available.");
  registry.all[0].provider->host_fields().healthy = false;
  EXPECT_EQ(told(call({})), "No healthy providers available.");
  EXPECT_EQ(counted(), "calls_total2 rate_limited1 errors_no_provider1 ");
}

TEST_F(CallTest, GoesToTheModelsProviderThenToTheHealthiestOther) {
  add("groq");
  drain(add("openai"));
  const ProviderPtr azure = add("azure", 1);
  azure->record_success(1.0);
  const CallRequest request{.model = "gpt-4o", .bulkhead_timeout = 0.3};
  EXPECT_EQ(told(call(request)), "azure gpt-4o for openai gpt-4o direct ");
  ASSERT_TRUE(azure->bulkhead()->acquire(0));
  EXPECT_EQ(told(call(request)), "All providers rate-limited or at capacity.");
  EXPECT_EQ(io.waits, (Texts{"advise", "azure gpt-4o", "learn", "advise", "permit 0.3"}));
  EXPECT_EQ(guards(), "groq 10 0 60 openai 10 0 0 azure 0 1 59 ");
  EXPECT_EQ(counted(), "calls_total2 rate_limited2 success_primary1 bulkhead_rejected1 ");
  EXPECT_EQ(counters.snapshot(), (CounterValues{2, 0, 0, 0, 0, 0, 2, 1}));
}

TEST(Call, ConfidentAdviceReroutesToAnotherAvailableProvider) {
  const auto cases = {std::tuple(0.7, "groq", false), std::tuple(0.71, "groq", true),
                      std::tuple(0.9, "openai", false), std::tuple(0.9, "absent", false)};
  for (const auto& [confidence, target, moved] : cases) {
    World world;
    for (const char* name : {"openai", "groq"}) world.add(name);
    world.learner.host_fields().rules["advice"] =
        std::make_shared<LearnedRule>(LearnedRule{.pattern = "model_request:openai",
                                                  .last_seen = world.clock.wall(),
                                                  .confidence = confidence,
                                                  .action = std::string("failover:") + target});
    EXPECT_EQ(told(world.call({.model = "gpt-4o"})),
              moved ? "groq gpt-4o for openai gpt-4o l4_learned l4_learned"
                    : "openai gpt-4o for openai gpt-4o direct ");
    EXPECT_EQ(world.metrics.counter("l4_learned_routing"), moved);
    EXPECT_EQ(world.counters.value(Counter::kL4Learned), moved);
  }
}

TEST(Call, AbandonedAtAnyWaitGivesBackWhatItHolds) {
  // At the pause, the advice, either slot, the answer, the learner. Openai's slot stays taken.
  const Texts left{"openai 0 0 60 groq 0 0 60 ", "openai 0 0 60 groq 0 0 60 ",
                   "openai 0 0 60 groq 0 0 60 ", "openai 0 1 60 groq 0 0 60 ",
                   "openai 0 1 60 groq 1 0 59 ", "openai 0 1 60 groq 1 0 59 "};
  for (std::size_t i = 0; i < 2 * left.size(); ++i) {
    World world;
    for (const char* name : {"openai", "groq"}) world.add(name, 1)->bulkhead()->acquire(0);
    for (const char* name : {"calls_total", "fault_rate_limit"}) world.metrics.inc(name, 11);
    world.io.meanwhile = {[] {}, [&] { world.registry.all[1].provider->release_slot(); }};
    world.io.hold_at(i / 2 + 1);
    const CallRequest request{.model = "gpt-4o"};
    {
      auto task = run_call(request, world.engine(), world.io);
      task.start();
      EXPECT_TRUE(i < 10 || world.guards() == left[5]);  // the learner holds up no slot
      if (i % 2 == 0) world.io.resume(kCancelled);
      EXPECT_EQ(task.done(), i % 2 == 0);
    }
    EXPECT_EQ(world.guards(), left[i / 2]) << world.io.waits.back();
    EXPECT_EQ(world.learner.stats().total_records, 0);
  }
}

TEST_F(CallTest, ThreadsShareOneEngine) {
  add("openai", 4)->rate_limiter()->host_fields() = {.max_tokens = 1000, .tokens = 1000};
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this] {
      ScriptedIo own(clock, learner);
      for (int i = 0; i < 50; ++i) run_blocking(run_call({}, engine(), own));
    });
  }
  threads.clear();
  EXPECT_EQ(guards(), "openai 4 0 800 ");
  EXPECT_EQ(counted(), "calls_total200 success_primary200 ");
  EXPECT_EQ(learner.rules().back()->success_count, 200);
}

}  // namespace
}  // namespace tarvomeldric
