#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/clock.h"

namespace tarvomeldric {

// The five stages of one pass through the loop.
enum class MapeKPhase : std::uint8_t { kMonitor, kAnalyze, kPlan, kExecute, kKnowledge };

inline constexpr std::array<std::pair<const char*, const char*>, 5> kMapeKPhases{{
    {"MONITOR", "monitor"},
    {"ANALYZE", "analyze"},
    {"PLAN", "plan"},
    {"EXECUTE", "execute"},
    {"KNOWLEDGE", "knowledge"},
}};

constexpr std::string_view value_of(MapeKPhase phase) {
  return kMapeKPhases[static_cast<std::size_t>(phase)].second;
}

// A phase's value and the time of entry, in microseconds of the monotonic clock.
using PhaseEntry = std::pair<std::string, double>;

// What one call did, stage by stage. It belongs to that call and has no lock.
struct MapeKTrace {
  std::string request_id;
  std::vector<PhaseEntry> phases;  // a phase may be entered more than once
  std::optional<std::string> monitor_result;
  std::optional<std::string> analyze_result;
  std::optional<std::string> plan_result;
  std::optional<std::string> execute_result;
  bool knowledge_recorded = false;
  double total_loop_us = 0.0;

  // Returns the moment of entry, monotonic seconds.
  double enter(MapeKPhase phase, const Clock& clock = system_clock()) {
    const double moment_s = clock.monotonic();
    phases.emplace_back(value_of(phase), moment_s * 1e6);
    return moment_s;
  }
};

}  // namespace tarvomeldric
