#include "flywheel/learner.h"

#include <algorithm>

#include "flywheel/bootstrap_rules.h"

namespace tarvomeldric {
namespace {

constexpr double kAdviceConfidence = 0.6;
constexpr double kHighConfidence = 0.8;

// The best of the rules offered to it; on equal confidence the first one stays.
struct Best {
  const RulePtr* rule = nullptr;
  double confidence = kAdviceConfidence;

  void offer(const RulePtr& candidate) {
    if (candidate->confidence <= confidence) return;
    rule = &candidate;
    confidence = candidate->confidence;
  }
};

}  // namespace

FlywheelLearner::FlywheelLearner(const Clock& clock) : clock_(clock) {
  MutexLock lock(mutex_);
  seed();
}

void FlywheelLearner::seed() {
  const double now = clock_.wall();
  for (const BootstrapRule& row : kBootstrapRules) {
    auto rule = std::make_shared<LearnedRule>();
    rule->pattern = row.pattern;
    rule->action = row.action;
    rule->success_count = row.success_count;
    rule->fail_count = row.fail_count;
    rule->confidence = row.confidence;
    rule->last_seen = now;
    fields_.rules[rule_key(row.pattern, row.action)] = std::move(rule);
  }
  fields_.bootstrap_loaded = true;
}

void FlywheelLearner::record(const Outcome& outcome) {
  MutexLock lock(mutex_);
  RulePtr& rule = fields_.rules[rule_key(outcome.error_pattern, outcome.action)];
  if (!rule) {
    rule = std::make_shared<LearnedRule>();
    rule->pattern = outcome.error_pattern;
    rule->action = outcome.action;
    rule->source = "learned";
  }
  rule->update(outcome.success, outcome.heal_time_ms, clock_.wall());
  ++fields_.records;
}

RulePtr FlywheelLearner::match(std::string_view error_pattern) {
  const std::size_t colon = error_pattern.find(':');
  const std::string_view category = error_pattern.substr(0, colon);
  const bool has_category = colon != std::string_view::npos;
  MutexLock lock(mutex_);
  const double now = clock_.wall();
  Best exact;
  Best fallback;
  for (const auto& [_, rule] : fields_.rules) {
    rule->decay(now);
    if (rule->pattern == error_pattern) {
      exact.offer(rule);
    } else if (has_category && rule->pattern == category) {
      fallback.offer(rule);
    }
  }
  if (exact.rule) return *exact.rule;
  return fallback.rule ? *fallback.rule : nullptr;
}

std::vector<RulePtr> FlywheelLearner::rules() const {
  MutexLock lock(mutex_);
  std::vector<RulePtr> all;
  all.reserve(fields_.rules.size());
  for (const auto& [_, rule] : fields_.rules) all.push_back(rule);
  return all;
}

LearnerStats FlywheelLearner::stats() const {
  MutexLock lock(mutex_);
  const auto confident = std::ranges::count_if(
      fields_.rules, [](const auto& entry) { return entry.second->confidence > kHighConfidence; });
  return {static_cast<std::int64_t>(fields_.rules.size()), fields_.records, confident,
          fields_.bootstrap_loaded, fields_.sync_mode};
}

}  // namespace tarvomeldric
