#include "engine/recent_calls.h"

#include <utility>

#include "support/text.h"

namespace tarvomeldric {
namespace {

std::string cut(std::string_view text) {
  return std::string(text::first(text, RecentCalls::kMostCharacters));
}

const char* kind_of(const AttemptRecord& made) {
  if (!made.fault) return "answered";
  return *made.fault == kHedgeLost ? "lost" : "failed";
}

void add(RecentCall& call, CallStep step) {
  if (call.steps.size() == RecentCalls::kMostSteps) {
    ++call.steps_left_out;
  } else {
    call.steps.push_back(std::move(step));
  }
}

}  // namespace

// Enters an event into its call. `now_s` is after the record's own start.
struct RecentCalls::Recording {
  RecentCall& call;
  double now_s;

  void operator()(const AttemptEvent& event) const {
    const AttemptRecord& made = event.attempt;
    if (call.steps.empty()) call.start_s -= made.start_s + made.duration_s;
    add(call, {.kind = kind_of(made),
               .provider = cut(made.provider),
               .model = cut(made.model),
               .reason = cut(made.fault.value_or("")),
               .status = made.status,
               .start_s = now_s - made.duration_s,
               .duration_s = made.duration_s});
  }
  void operator()(const SleepEvent& event) const {
    add(call, {.kind = "wait",
               .reason = cut(event.reason),
               .start_s = now_s,
               .duration_s = event.seconds});
  }
  void operator()(const RefusalEvent& event) const {
    add(call, {.kind = "refused",
               .provider = cut(event.provider),
               .reason = cut(event.reason),
               .start_s = now_s});
  }
  void operator()(const FaultEvent& event) const { call.fault = cut(event.label); }
  void operator()(const HealEvent& event) const {
    call.heal_level = cut(event.level);
    call.fault = cut(event.fault);
  }
  void operator()(const EndEvent& event) const {
    // One that was dropped does not know how long it took.
    call.duration_s = event.duration_s > 0 ? event.duration_s : now_s - call.start_s;
    call.start_s = now_s - call.duration_s;
    call.model = cut(event.model);
    call.outcome = event.outcome;
  }
  void operator()(const BreakerEvent& /*event*/) const {}  // the provider shows it
};

void RecentCalls::record(const CallEvent& event) {
  const double now_s = clock_.monotonic();
  const std::string_view id =
      std::visit([](const auto& one) { return std::string_view(one.call_id); }, event);
  MutexLock lock(mutex_, kUninterrupted);
  history_.count(event, now_s);
  std::visit(Recording{under_way(id, now_s - start_s_), now_s - start_s_}, event);
  if (std::holds_alternative<EndEvent>(event)) end(id);
}

RecentCall& RecentCalls::under_way(std::string_view id, double now_s) {
  const std::string key = cut(id);
  if (RecentCall* call = under_way_.find(key)) return *call;
  if (under_way_.size() == kMostUnderWay) under_way_.erase(under_way_.begin()->first);
  RecentCall& call = under_way_[key];
  call.number = ++begun_;
  call.id = key;
  call.start_s = now_s;
  return call;
}

void RecentCalls::end(std::string_view id) {
  const std::string key = cut(id);
  if (over_.size() == kMostShown) over_.pop_front();
  over_.push_back(std::move(under_way_[key]));
  under_way_.erase(key);
}

std::vector<RecentCall> RecentCalls::calls() const {
  MutexLock lock(mutex_);
  std::vector<RecentCall> newest;
  for (auto entry = under_way_.end();
       entry != under_way_.begin() && newest.size() < kMostShownUnderWay;) {
    newest.push_back((--entry)->second);
  }
  for (auto call = over_.rbegin(); call != over_.rend() && newest.size() < kMostShown; ++call) {
    newest.push_back(*call);
  }
  return newest;
}

std::vector<HistoryStep> RecentCalls::history() {
  MutexLock lock(mutex_);
  return history_.steps(clock_.monotonic());
}

}  // namespace tarvomeldric
