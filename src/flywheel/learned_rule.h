#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvomeldric {

// How often one recovery action worked for one fault pattern. Guarded by the learner that holds it.
struct LearnedRule {
  // What a walk over all rules looks at comes first, to be read from memory in one piece.
  std::string pattern;
  double last_seen_s = 0.0;  // wall clock, seconds
  double confidence = 0.0;   // share of successes
  std::string action;
  std::int64_t success_count = 0;
  std::int64_t fail_count = 0;
  double avg_heal_time_ms = 0.0;  // over the retained heal times
  std::string source = "bootstrap";
  std::vector<double> heal_times_ms;  // milliseconds, at most 50

  // Counts one outcome seen at `now_s`. The heal time of a success counts when it is above 0.
  void update(bool success, double heal_time_ms, double now_s);
  // Halves the confidence of a rule that nobody has seen for 30 days, down to 0.1.
  void decay(double now_s) {
    if (now_s - last_seen_s > kStaleSeconds && may_decay()) confidence /= 2;
  }
  bool may_decay() const { return confidence > kLeastConfidence; }

  static constexpr double kStaleSeconds = 30.0 * 24 * 3600;
  static constexpr double kLeastConfidence = 0.1;
};

std::string rule_key(std::string_view pattern, std::string_view action);

}  // namespace tarvomeldric
