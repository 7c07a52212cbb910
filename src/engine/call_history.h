#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "engine/events.h"

namespace tarvomeldric {

// What happened in one step of the history.
struct HistoryStep {
  std::int64_t calls = 0;   // that ended
  std::int64_t healed = 0;  // just before they end
  std::int64_t failed = 0;
  std::int64_t faults = 0;      // requests that went wrong, healed or not
  std::optional<double> p50_s;  // of the calls that were answered, where there were any
  std::optional<double> p95_s;
};

// What an engine's calls came to over the last quarter of an hour, in steps of five seconds.
// Moments are monotonic and handed in. It has no lock: `RecentCalls` holds its own around it.
class CallHistory {
 public:
  static constexpr double kStepSeconds = 5.0;
  static constexpr std::size_t kMostSteps = 180;

  explicit CallHistory(double start_s) : step_end_s_(start_s + kStepSeconds) {}

  void count(const CallEvent& event, double now_s);
  // The steps that are over, oldest first.
  std::vector<HistoryStep> steps(double now_s);

 private:
  void count_end(const EndEvent& end);
  void end_steps_before(double now_s);
  void end_step();

  double step_end_s_;
  std::deque<HistoryStep> over_;
  HistoryStep current_;
  std::vector<double> durations_s_;  // the newest of the current step's answered calls
  std::size_t answered_ = 0;         // in the current step
};

}  // namespace tarvomeldric
