#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "flywheel/learned_rule.h"
#include "support/clock.h"
#include "support/guarded_record.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

using RulePtr = std::shared_ptr<LearnedRule>;

// One observed outcome of a recovery action.
struct Outcome {
  std::string error_pattern;
  std::string action;
  bool success = false;
  double heal_time_ms = 0.0;
};

struct LearnerFields {
  OrderedMap<RulePtr> rules;  // by rule_key
  std::int64_t records = 0;
  bool bootstrap_loaded = false;
  std::string sync_mode = "local";
};

struct LearnerStats {
  std::int64_t total_rules;
  std::int64_t total_records;
  std::int64_t high_confidence_rules;
  bool bootstrap_rules_loaded;
  std::string sync_mode;
};

// The table of what worked for which fault, and the advice drawn from it. It only remembers and
// answers; routing is up to the engine.
//
//   learner.record({"timeout", "failover:openai", true, 850.0});
//   if (RulePtr rule = learner.match("timeout:azure")) ... rule->action ...
//
// Any thread; every operation holds the lock for its whole duration.
class FlywheelLearner : public GuardedRecord<LearnerFields> {
 public:
  // Starts from the bootstrap rules.
  explicit FlywheelLearner(const Clock& clock = system_clock());

  void record(const Outcome& outcome);
  // The most confident rule above 0.6 for exactly this pattern, else for its category (the part
  // before the first colon); null when there is none. Rules gone stale lose confidence first.
  RulePtr match(std::string_view error_pattern);
  std::vector<RulePtr> rules() const;
  LearnerStats stats() const;

  const Clock& clock() const { return clock_; }

 private:
  void seed() REQUIRES(mutex_);

  const Clock& clock_;
};

}  // namespace tarvomeldric
