#include "engine/call_history.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "support/samples.h"

namespace tarvomeldric {
namespace {

// Enough for a 95th percentile, and sorted in some microseconds, which one call in a step pays.
constexpr std::size_t kMostDurations = 500;

}  // namespace

void CallHistory::count(const CallEvent& event, double now_s) {
  end_steps_before(now_s);
  if (const auto* attempt = std::get_if<AttemptEvent>(&event)) {
    const auto& fault = attempt->attempt.fault;
    if (fault && *fault != kHedgeLost) ++current_.faults;
  } else if (std::holds_alternative<HealEvent>(event)) {
    ++current_.healed;
  } else if (const auto* end = std::get_if<EndEvent>(&event)) {
    count_end(*end);
  }
}

void CallHistory::count_end(const EndEvent& end) {
  ++current_.calls;
  if (end.outcome == "failed") ++current_.failed;
  if (end.outcome != "answered") return;
  if (durations_s_.size() < kMostDurations) {
    durations_s_.push_back(end.duration_s);
  } else {
    durations_s_[answered_ % kMostDurations] = end.duration_s;
  }
  ++answered_;
}

std::vector<HistoryStep> CallHistory::steps(double now_s) {
  end_steps_before(now_s);
  return {over_.begin(), over_.end()};
}

void CallHistory::end_steps_before(double now_s) {
  if (now_s < step_end_s_) return;
  end_step();
  const double silent = std::floor((now_s - step_end_s_) / kStepSeconds);
  step_end_s_ += (silent + 1) * kStepSeconds;
  // Nothing happened in those; after a long silence they are all that there is.
  const double most = static_cast<double>(kMostSteps);
  const auto empty = static_cast<std::size_t>(std::min(silent, most));
  for (std::size_t i = 0; i < empty; ++i) end_step();
}

void CallHistory::end_step() {
  if (!durations_s_.empty()) {
    const SortedSamples sorted(std::move(durations_s_));
    current_.p50_s = sorted.median();
    current_.p95_s = sorted.quantile(0.95);
  }
  if (over_.size() == kMostSteps) over_.pop_front();
  over_.push_back(current_);
  current_ = {};
  durations_s_.clear();
  answered_ = 0;
}

}  // namespace tarvomeldric
