#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "engine/call.h"
#include "manual_clock.h"

namespace tarvomeldric {

using Texts = std::vector<std::string>;

template <class... Parts>
std::string told(const Parts&... parts) {
  std::ostringstream text;
  return (text << ... << parts), text.str();
}
inline std::string joined(const Texts& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}
// What is to be told of each one.
template <class Range>
std::string joined(const Range& range, const auto& told_of) {
  Texts all;
  for (const auto& one : range) all.push_back(told_of(one));
  return joined(all);
}

// Providers that play from a script, on a clock moved by hand. Every operation waits once and then
// has its effect; a test can hold a call up at any of its waits, and break it off there.
class ScriptedIo final : public Io {
 public:
  // An attempt: an answer that took some time, or a failure.
  struct Play {
    std::optional<ApiFailure> failure;
    double seconds = 0.0;
    bool empty = false;
  };

  ScriptedIo(ManualClock& clock, FlywheelLearner& learner) : clock_(clock), learner_(learner) {}

  // A provider's attempts, one after the other; at the end of its script it answers at once.
  std::map<std::string, std::deque<Play>> script;
  // What others do during the waits for permits, in turn.
  std::deque<std::function<void()>> meanwhile;
  // What the call has waited for: "openai gpt-4o", "sleep 0.5", "permit 1", "learn", "advise".
  Texts waits;
  // What it reported: "retry of timeout (timeout:slow) by openai gpt-4o in 250 ms".
  Texts reports;
  // Whether healed output holds the contract; no contract when empty.
  std::optional<bool> contract_holds;
  bool schema = false;
  // The records of the requests, and the events told while `listening`.
  std::vector<AttemptRecord> attempts;
  bool listening = false;
  std::vector<CallEvent> events;
  // The message of an answer that was refused, while that is the newest error.
  std::string refusal;

  // The call stands still at the given one of its waits, counted from 1, until it is resumed.
  void hold_at(std::size_t wait) { hold_at_ = wait; }
  void resume(std::exception_ptr thrown = nullptr) {
    thrown_ = std::move(thrown);
    std::exchange(held_, nullptr).resume();
  }

  // A play that would take longer than the limit is a time-out at the limit.
  Task<Attempt> execute(ProviderPtr provider, std::string model, AttemptTerms terms) override {
    co_await wait_for(provider->name() + " " + model);
    const double start_s = clock_.monotonic();
    Finish finish = play({std::move(provider), std::move(model), terms}, false, start_s);
    if (finish.over_s > start_s) clock_.advance(finish.over_s - start_s);
    if (!finish.attempt.ok()) refusal.clear();
    co_return std::move(finish.attempt);
  }
  // The first one plays at once, and the second from the moment at which it is asked.
  bool may_race(const ProviderPtr&) const override { return true; }
  Task<Finish> race(Leg first, double patience_s, Rival& rival) override {
    co_await wait_for(told("race ", first.provider->name(), " ", first.model, " ", patience_s));
    const double start_s = clock_.monotonic();
    const Finish one = play(first, false, start_s);
    second_.reset();
    if (one.over_s - start_s > patience_s) {
      clock_.advance(patience_s);
      if (const std::optional<Leg> leg = rival.enter()) {
        second_ = play(*leg, true, clock_.monotonic());
        waits.push_back(told("beside ", leg->provider->name(), " ", leg->model));
      }
    }
    const bool good = second_ && second_->attempt.ok() && !second_->attempt.empty;
    const Finish& over = good && second_->over_s < one.over_s ? *second_ : one;
    clock_.advance(over.over_s - clock_.monotonic());
    co_return over;
  }
  Task<Finish> other() override {
    co_await wait_for("other");
    clock_.advance(std::max(0.0, second_->over_s - clock_.monotonic()));
    co_return *second_;
  }
  std::optional<Finish> end_race() override {
    const bool good = second_ && second_->attempt.ok() && !second_->attempt.empty;
    if (!second_ || good || second_->over_s > clock_.monotonic()) return {};
    if (second_->attempt.empty) second_->attempt.refused = "answer:empty";
    return std::exchange(second_, std::nullopt);
  }
  void leave_race() noexcept override {}
  Task<void> sleep(double seconds) override {
    co_await wait_for(told("sleep ", seconds));
    clock_.advance(seconds);
  }
  Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout) override {
    co_await wait_for(told("permit ", timeout));
    if (const auto act = next(meanwhile)) act();
    co_return semaphore->take_any();
  }
  Task<void> learn(Outcome outcome) override {
    co_await wait_for("learn");
    learner_.record(outcome);
  }
  Task<void> advise(std::string error_pattern, std::optional<Advice>& advice) override {
    co_await wait_for("advise");
    advice = learner_.advise(error_pattern);
  }
  bool has_contract() const override { return contract_holds.has_value(); }
  bool contract_has_schema() const override { return schema; }
  bool validate() override { return *contract_holds; }
  void refuse_empty(const std::string& provider) override {
    refusal = "Empty answer from " + provider;
  }
  void refuse_broken(const std::string& message) override { refusal = message; }
  void keep(AttemptRecord attempt) override { attempts.push_back(std::move(attempt)); }
  bool heard() const override { return listening; }
  void tell(const CallEvent& event) override { events.push_back(event); }
  void report(const Recovery& healed) override {
    reports.push_back(told(healed.action, " of ", healed.fault_type, " (", healed.sub_category,
                           ") by ", healed.provider, " ", healed.model, " in ", healed.latency_ms,
                           " ms"));
  }

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

  Finish play(const Leg& leg, bool second, double start_s) {
    Play play = next(script[leg.provider->name()]);
    if (play.seconds > leg.terms.limit_s) {
      play = {.failure = ApiFailure{"Timeout", 408}, .seconds = leg.terms.limit_s};
    }
    Attempt made{.failure = play.failure, .answer_length = 2, .empty = play.empty};
    return {second, std::move(made), start_s + play.seconds};
  }

  ManualClock& clock_;
  FlywheelLearner& learner_;
  std::optional<Finish> second_;
  std::size_t hold_at_ = 0;
  std::coroutine_handle<> held_;
  std::exception_ptr thrown_;
};

using Plays = std::deque<ScriptedIo::Play>;
inline Plays failures(std::size_t count, std::int64_t status, const char* text = "it broke") {
  return Plays(count, {.failure = ApiFailure{text, status}});
}

// An engine's members, verbs for what befalls them, and what they tell of it, each in one line.
struct World {
  struct List final : Registry {
    std::vector<NamedProvider> entries() const override { return all; }
    std::vector<NamedProvider> all;
  };

  ProviderPtr add(const std::string& name, std::int64_t slots = 10) {
    ProviderFields fields{.name = name};
    fields.bulkhead = std::make_shared<Bulkhead>(BulkheadFields{.max_concurrent = slots}, clock);
    registry.all.push_back({name, std::make_shared<ProviderConfig>(fields, clock)});
    return registry.all.back().provider;
  }
  ProviderPtr provider(std::string_view name) const {
    return std::ranges::find(registry.all, name, &NamedProvider::name)->provider;
  }
  Surroundings engine() {
    return {registry, topology, diagnoser, learner, metrics, counters, hedging, clock};
  }
  // How the call ended: "l1_retry openai gpt-4o for openai gpt-4o after server_error:http_500".
  std::string ask(const CallRequest& request = {.model = "gpt-4o"}) {
    trace = {};
    run_blocking(run_call(request, engine(), io, trace, outcome));
    if (const auto* failed = std::get_if<CallFailed>(&outcome)) {
      if (failed->kind == CallFailed::Kind::kDeadline) return "out of time";
      if (failed->kind != CallFailed::Kind::kNewestError) return failed->message;
      return io.refusal.empty() ? "the last error" : io.refusal;
    }
    const auto& [got, fault] = answered();
    return told(got.heal_level.empty() ? "direct" : got.heal_level, " ", got.provider, " ",
                got.model, " for ", got.original_provider, " ", got.original_model,
                fault ? told(" after ", fault->fault_label()) : "");
  }
  const CallAnswered& answered() const { return std::get<CallAnswered>(outcome); }
  // What each stage came to, and how many milliseconds after the start the stages were entered.
  std::string traced() const {
    Texts all{*trace.monitor_result, *trace.analyze_result, *trace.plan_result,
              *trace.execute_result};
    for (const auto& [phase, moment] : trace.phases) {
      all.push_back(told(phase, " ", (moment - trace.phases[0].second) / 1000));
    }
    if (trace.knowledge_recorded) all.emplace_back("recorded");
    return told(joined(all), ", ", trace.total_loop_us / 1000, " in all");
  }
  // What was counted, by the engine and by its metrics: "call_count, calls_total, rate_limited 2".
  std::string counted() const {
    Texts all;
    const auto add = [&](std::string_view name, std::int64_t times) {
      if (times != 0) all.push_back(times == 1 ? told(name) : told(name, " ", times));
    };
    for (std::size_t i = 0; i < kCounterNames.size(); ++i) {
      add(kCounterNames[i], counters.value(static_cast<Counter>(i)));
    }
    for (const auto& [name, times] : metrics.counters()) add(name, times);
    return joined(all);
  }
  // Every rule's successes and failures: "timeout>retry:openai 1/0".
  std::string learned() {
    return joined(learner.rules(), [](const RulePtr& r) {
      return told(r->pattern, ">", r->action, " ", r->success_count, "/", r->fail_count);
    });
  }
  // Of every provider the free slots and those that somebody holds: "openai 9/1, groq 10/0".
  std::string slots() const {
    return joined(registry.all, [](const NamedProvider& one) {
      const BulkheadFields slots = one.provider->bulkhead()->snapshot();
      return told(one.name, " ", slots.semaphore->permits(), "/", slots.active);
    });
  }
  // Of every histogram the median: "latency_primary_ms 250".
  std::string measured() const {
    return joined(metrics.snapshot_all().histograms,
                  [](const auto& one) { return told(one.first, " ", one.second.p50); });
  }
  static double tokens(const ProviderPtr& provider) {
    return provider->rate_limiter()->snapshot().tokens;
  }

  ManualClock clock;
  List registry;
  SemanticTopology topology;
  Diagnoser diagnoser{clock};
  FlywheelLearner learner{"", clock};
  MetricsCollector metrics;
  EngineCounters counters;
  HedgeBook hedging{clock};
  ScriptedIo io{clock, learner};
  MapeKTrace trace;
  CallOutcome outcome;
};

}  // namespace tarvomeldric
