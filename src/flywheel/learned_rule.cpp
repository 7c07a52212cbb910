#include "flywheel/learned_rule.h"

#include <limits>
#include <numeric>

namespace tarvomeldric {
namespace {

constexpr std::size_t kMostHealTimes = 50;
constexpr std::size_t kKeptHealTimes = 25;

void remember(std::vector<double>& heal_times_ms, double heal_time_ms) {
  heal_times_ms.push_back(heal_time_ms);
  if (heal_times_ms.size() > kMostHealTimes) {
    heal_times_ms.erase(heal_times_ms.begin(),
                        heal_times_ms.end() - static_cast<std::ptrdiff_t>(kKeptHealTimes));
  }
}

double mean(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

}  // namespace

void LearnedRule::update(bool success, double heal_time_ms, double now_s) {
  std::int64_t& count = success ? success_count : fail_count;
  if (count < std::numeric_limits<std::int64_t>::max()) ++count;
  if (success && heal_time_ms > 0) {
    remember(heal_times_ms, heal_time_ms);
    avg_heal_time_ms = mean(heal_times_ms);
  }
  // As floats: a count that came from outside may be anything.
  const double total = static_cast<double>(success_count) + static_cast<double>(fail_count);
  confidence = total > 0 ? static_cast<double>(success_count) / total : 0.0;
  last_seen_s = now_s;
}

std::string rule_key(std::string_view pattern, std::string_view action) {
  std::string key;
  key.reserve(pattern.size() + action.size() + 1);
  return key.append(pattern).append(":").append(action);
}

}  // namespace tarvomeldric
