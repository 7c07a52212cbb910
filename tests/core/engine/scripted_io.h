#pragma once

#include <deque>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "engine/call.h"
#include "manual_clock.h"
#include "support/text.h"

namespace tarvomeldric {

// Providers that play from a script, on a clock moved by hand. Every operation waits once and then
// has its effect; a test can hold a call up at any of its waits, and break it off there.
class ScriptedIo final : public Io {
 public:
  // What an attempt comes to: an answer, a failure, or an exception.
  struct Play {
    Attempt attempt{.failure = {}, .answer_length = 2};
    double seconds = 0.0;
    std::exception_ptr thrown;
  };

  ScriptedIo(ManualClock& clock, FlywheelLearner& learner) : clock_(clock), learner_(learner) {}

  // A provider's attempts, one after the other; at the end of its script it answers at once.
  std::map<std::string, std::deque<Play>> script;
  // What others do during the waits for permits, in turn.
  std::deque<std::function<void()>> meanwhile;
  // What the call has waited for: "openai gpt-4o", "sleep 0.5", "permit 1.0", "learn", "advise".
  std::vector<std::string> waits;
  // Whether healed output holds the contract; no contract when empty.
  std::optional<bool> contract_holds;
  bool schema = false;
  std::vector<Recovery> reports;

  // The call stands still at the given one of its waits, counted from 1, until it is resumed.
  void hold_at(std::size_t wait) { hold_at_ = wait; }
  void resume(std::exception_ptr thrown = nullptr) {
    thrown_ = std::move(thrown);
    std::exchange(held_, nullptr).resume();
  }

  Task<Attempt> execute(ProviderPtr provider, std::string model) override {
    co_await wait_for(provider->name() + " " + model);
    const Play play = next(script[provider->name()]);
    if (play.seconds > 0) clock_.advance(play.seconds);
    if (play.thrown) std::rethrow_exception(play.thrown);
    co_return play.attempt;
  }
  Task<void> sleep(double seconds) override {
    co_await wait_for("sleep " + text::shortest(seconds));
    clock_.advance(seconds);
  }
  Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout) override {
    co_await wait_for("permit " + text::shortest(timeout));
    if (const auto act = next(meanwhile)) act();
    co_return semaphore->take_any();
  }
  Task<void> learn(Outcome outcome) override {
    co_await wait_for("learn");
    learner_.record(outcome);
  }
  Task<std::optional<Advice>> advise(std::string error_pattern) override {
    co_await wait_for("advise");
    co_return learner_.advise(error_pattern);
  }
  bool has_contract() const override { return contract_holds.has_value(); }
  bool contract_has_schema() const override { return schema; }
  bool validate() override { return *contract_holds; }
  void report(const Recovery& recovery) override { reports.push_back(recovery); }

 private:
  struct Turn {
    ScriptedIo& io;
    bool await_ready() const { return io.waits.size() != io.hold_at_; }
    void await_suspend(std::coroutine_handle<> call) const { io.held_ = call; }
    void await_resume() const {
      if (auto thrown = std::exchange(io.thrown_, nullptr)) std::rethrow_exception(thrown);
    }
  };
  Turn wait_for(std::string what) { return waits.push_back(std::move(what)), Turn{*this}; }
  template <class T>
  static T next(std::deque<T>& queue) {
    if (queue.empty()) return {};
    T front = std::move(queue.front());
    return queue.pop_front(), front;
  }

  ManualClock& clock_;
  FlywheelLearner& learner_;
  std::size_t hold_at_ = 0;
  std::coroutine_handle<> held_;
  std::exception_ptr thrown_;
};

struct VectorRegistry final : Registry {
  std::vector<NamedProvider> entries() const override { return all; }
  std::vector<NamedProvider> all;
};

// An engine's members, and verbs for what befalls them.
struct World {
  ProviderPtr add(const std::string& name, std::int64_t slots = 10) {
    ProviderFields fields{.name = name};
    fields.bulkhead = std::make_shared<Bulkhead>(BulkheadFields{.max_concurrent = slots}, clock);
    registry.all.push_back({name, std::make_shared<ProviderConfig>(fields, clock)});
    return registry.all.back().provider;
  }
  Surroundings engine() {
    return {registry, topology, diagnoser, learner, metrics, counters, clock};
  }
  CallOutcome call(const CallRequest& r) { return run_blocking(run_call(r, engine(), io)); }
  // Of every provider: free slots, refusals of slots, tokens.
  std::string guards() const {
    std::ostringstream all;
    for (const auto& [name, provider] : registry.all) {
      const BulkheadFields slots = provider->bulkhead()->snapshot();
      all << name << " " << slots.semaphore->permits() << " " << slots.rejected << " "
          << provider->rate_limiter()->snapshot().tokens << " ";
    }
    return all.str();
  }

  ManualClock clock;
  VectorRegistry registry;
  SemanticTopology topology;
  Diagnoser diagnoser{clock};
  FlywheelLearner learner{"", clock};
  MetricsCollector metrics;
  EngineCounters counters;
  ScriptedIo io{clock, learner};
};

}  // namespace tarvomeldric
