#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvomeldric {

// How often one recovery action worked for one fault pattern. Guarded by the learner that holds it.
struct LearnedRule {
  std::string pattern;
  std::string action;
  std::int64_t success_count = 0;
  std::int64_t fail_count = 0;
  double confidence = 0.0;        // share of successes
  double last_seen = 0.0;         // wall clock, seconds
  double avg_heal_time_ms = 0.0;  // over the retained heal times
  std::string source = "bootstrap";
  std::vector<double> heal_times;  // milliseconds, at most 50

  // Counts one outcome seen at `now`. The heal time of a success counts when it is above 0.
  void update(bool success, double heal_time_ms, double now);
  // Halves the confidence of a rule that nobody has seen for 30 days, down to 0.1.
  void decay(double now);
};

std::string rule_key(std::string_view pattern, std::string_view action);

}  // namespace tarvomeldric
