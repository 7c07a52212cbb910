#include "engine/call.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "engine/scripted_io.h"

namespace tarvomeldric {
namespace {

struct CallTest : ::testing::Test, World {};

TEST_F(CallTest, SuccessIsTracedCountedAndLearned) {
  const ProviderPtr openai = add("openai");
  io.script["openai"] = {{.seconds = 0.25}};
  EXPECT_EQ(ask({.request_id = "mine", .model = "gpt-4-turbo"}),
            "direct openai gpt-4o-mini for openai gpt-4o-mini");
  EXPECT_EQ(trace.request_id, "mine");
  EXPECT_EQ(traced(),
            "provider_selected, nominal, direct, ok, monitor 0, analyze 0, plan 0, execute 0, "
            "knowledge 250, recorded, 250 in all");
  EXPECT_EQ(joined(io.waits), "advise, openai gpt-4o-mini, learn");
  EXPECT_EQ(counted(), "call_count, calls_total, success_primary");
  EXPECT_EQ(measured(), "latency_primary_ms 250");
  EXPECT_EQ(learned(), "success>direct:openai 1/0");
  EXPECT_EQ(learner.match("success")->avg_heal_time_ms, 250.0);
  EXPECT_EQ(openai->avg_latency(), 250.0);
}

TEST(RequestId, IsNotRepeatedByAForkedChild) {
  std::string childs = fresh_request_id();
  EXPECT_EQ(childs.find_first_not_of("0123456789abcdef"), childs.npos) << childs;
  int channel[2];
  ASSERT_EQ(pipe(channel), 0);
  const pid_t child = fork();
  if (child == 0) _exit(write(channel[1], fresh_request_id().data(), 8) < 0);
  EXPECT_EQ(read(channel[0], childs.data(), childs.size()), 8);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_NE(childs, fresh_request_id());
}

TEST(Call, PausesWhenMoreThanThreeInTenMeetRateLimits) {
  const std::tuple<int, int, const char*> cases[] = {
      {10, 10, "advise"}, {11, 4, "sleep 0.5"}, {20, 6, "advise"}};
  for (const auto& [calls, faults, first] : cases) {
    World world;
    world.add("openai");
    world.metrics.inc("calls_total", calls);
    world.metrics.inc("fault_rate_limit", faults);
    world.ask();
    EXPECT_EQ(world.io.waits.front(), first) << calls;
  }
}

TEST_F(CallTest, IsRefusedWhenThereIsNoProviderOrTheOnlyOneIsBusy) {
  const ProviderPtr openai = add("openai");
  openai->rate_limiter()->interpreter_locked_fields().tokens = 0;
  EXPECT_EQ(ask({}), "Primary rate-limited, no fallback available.");
  openai->interpreter_locked_fields().healthy = false;
  EXPECT_EQ(ask({}), "No healthy providers available.");
  EXPECT_EQ(counted(),
            "call_count 2, rate_limited_count, calls_total 2, rate_limited, errors_no_provider");
}

TEST_F(CallTest, GoesToTheModelsProviderThenToTheHealthiestOther) {
  const ProviderPtr groq = add("groq"), openai = add("openai"), azure = add("azure", 1);
  openai->rate_limiter()->interpreter_locked_fields().tokens = 0;
  azure->record_success(1.0);
  const CallRequest request{.model = "gpt-4o", .bulkhead_timeout_s = 0.3};
  EXPECT_EQ(ask(request), "direct azure gpt-4o for openai gpt-4o");
  ASSERT_TRUE(azure->bulkhead()->acquire(0));
  EXPECT_EQ(ask(request), "All providers rate-limited or at capacity.");
  EXPECT_EQ(joined(io.waits), "advise, azure gpt-4o, learn, advise, permit 0.3");
  EXPECT_EQ(slots(), "groq 10/0, openai 10/0, azure 0/1");
  EXPECT_EQ(tokens(groq), 60);
  EXPECT_EQ(tokens(azure), 59);
  EXPECT_EQ(azure->bulkhead()->snapshot().rejected, 1);
  EXPECT_EQ(counted(),
            "call_count 2, rate_limited_count 2, bulkhead_rejected_count, calls_total 2, "
            "rate_limited 2, success_primary, bulkhead_rejected");
}

TEST(Call, ConfidentAdviceReroutesToAnotherAvailableProvider) {
  const auto cases = {std::tuple(0.7, "groq", false), std::tuple(0.71, "groq", true),
                      std::tuple(0.9, "openai", false), std::tuple(0.9, "absent", false)};
  for (const auto& [confidence, target, moved] : cases) {
    World world;
    for (const char* name : {"openai", "groq"}) world.add(name);
    world.learner.store("advice", std::make_shared<LearnedRule>(
                                      LearnedRule{.pattern = "model_request:openai",
                                                  .last_seen_s = world.clock.wall(),
                                                  .confidence = confidence,
                                                  .action = std::string("failover:") + target}));
    EXPECT_EQ(world.ask(), moved ? "l4_learned groq gpt-4o for openai gpt-4o"
                                 : "direct openai gpt-4o for openai gpt-4o");
    EXPECT_EQ(*world.trace.plan_result, moved ? "l4_learned" : "direct");
    EXPECT_EQ(world.counters.value(Counter::kL4Learned), moved);
    EXPECT_EQ(world.metrics.counter("l4_learned_routing"), moved);
  }
}

// Under back-pressure, with every slot in use: openai's stays so, groq's and azure's come free when
// it is their turn. Groq fails for good, azure heals.
struct BusyDay : World {
  BusyDay() {
    for (const char* name : {"openai", "groq", "azure"}) add(name, 1)->bulkhead()->acquire(0);
    for (const char* name : {"calls_total", "fault_rate_limit"}) metrics.inc(name, 11);
    for (const char* name : {"groq", "azure"}) {
      io.meanwhile.push_back([] {});
      io.meanwhile.push_back([this, name] { provider(name)->release_slot(); });
    }
    io.script["groq"] = failures(9, 500);
  }
  auto waited_for(std::string_view what) const {
    return std::ranges::count_if(io.waits, [&](auto& wait) { return wait.starts_with(what); });
  }
  // The slots when the call holds none.
  std::string free_of_the_call() const {
    return std::string("openai 0/1, groq ") + (waited_for("groq") ? "1/0" : "0/1") + ", azure " +
           (waited_for("azure") ? "1/0" : "0/1");
  }
};

TEST(Call, BrokenOffAtAnyWaitGivesBackWhatItHolds) {
  const CallRequest request{.model = "gpt-4o"};
  BusyDay whole;
  EXPECT_EQ(whole.ask(), "l3_failover azure gpt-4o for openai gpt-4o after server_error:http_500");
  for (std::size_t i = 0; i < 2 * whole.io.waits.size(); ++i) {
    BusyDay day;
    day.io.hold_at(i / 2 + 1);
    {
      auto task = run_call(request, day.engine(), day.io, day.trace, day.outcome);
      task.start();
      ASSERT_FALSE(task.done());
      const std::string at = day.io.waits.back();
      const bool admitted =
          at == "azure gpt-4o" || (at == "groq gpt-4o" && day.waited_for(at) == 1);
      EXPECT_EQ(day.slots() != day.free_of_the_call(), admitted) << at << ": " << day.slots();
      if (i % 2 == 0) {
        day.io.resume(std::make_exception_ptr(std::domain_error("cancelled")));
        EXPECT_THROW(task.take(), std::domain_error);
      }
    }
    SCOPED_TRACE(joined(day.io.waits));
    EXPECT_EQ(day.slots(), day.free_of_the_call());
    EXPECT_EQ(World::tokens(day.provider("openai")), 60);
    EXPECT_EQ(World::tokens(day.provider("groq")), day.waited_for("groq") ? 59 : 60);
    EXPECT_EQ(World::tokens(day.provider("azure")), day.waited_for("azure") ? 59 : 60);
    // Every other permit that is waited for is openai's; a wait that is broken off is no refusal.
    EXPECT_EQ(day.provider("openai")->bulkhead()->snapshot().rejected,
              day.waited_for("permit") / 2);
  }
}

}  // namespace
}  // namespace tarvomeldric
