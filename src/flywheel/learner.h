#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "flywheel/learned_rule.h"
#include "flywheel/rules_file.h"
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

// What a rule advises, as it was when it was asked.
struct Advice {
  std::string action;
  double confidence = 0.0;
};

// What a learner holds.
struct LearnerFields {
  OrderedMap<RulePtr> rules;  // by rule_key
  std::int64_t records = 0;
  bool bootstrap_loaded = false;
  std::string sync_mode = "local";  // "redis" while rules are shared with a fleet
  bool handed_out = false;  // somebody else has the table or a rule of it, to change at will
};

// The figures of a learner, as of one moment.
struct LearnerStats {
  std::int64_t total_rules;
  std::int64_t total_records;
  std::int64_t high_confidence_rules;
  bool bootstrap_rules_loaded;
  std::string sync_mode;
};

// Hears of every recorded rule while the learner shares its rules. Called by any thread, under the
// learner's lock; must not throw and must not call back.
class RulePublisher {
 public:
  virtual ~RulePublisher() = default;
  virtual void publish(const std::string& key, const LearnedRule& rule) = 0;
};

// The table of what worked for which fault, and the advice drawn from it. It only remembers and
// answers; routing is up to the engine.
//
//   learner.record({"timeout", "failover:openai", true, 850.0});
//   if (auto advice = learner.advise("timeout:azure")) ... advice->action ...
//
// Advice costs the same with any number of rules, until rules are handed out: those who have them
// may change them, and from then on every rule is looked at.
//
// The table is written to the rules file at every 20th record. Any thread; every operation holds
// the lock for its whole duration, `record` also while it writes the file and tells the publisher.
class FlywheelLearner : public GuardedRecord<LearnerFields> {
 public:
  static constexpr std::size_t kMostSharedRules = 10'000;

  // An empty table, kept in memory alone while the path is empty; `seed` or `store` fill it.
  explicit FlywheelLearner(std::string persist_path = "", const Clock& clock = system_clock());

  void record(const Outcome& outcome);
  // For a call that must not wait: keeps an outcome for `record_kept`, which another thread is to
  // call. True where none has been asked to yet.
  bool keep(Outcome outcome);
  // Records what is kept, in order, until nothing is.
  void record_kept();
  // Drops what is kept: no thread can be asked, or this is the child of a fork, and the parent
  // records it.
  void forget_kept();
  // The most confident rule above 0.6 for exactly this pattern, else for its category (the part
  // before the first colon); null when there is none. Rules gone stale lose confidence first. Hands
  // the rule out.
  RulePtr match(std::string_view error_pattern);
  // What `match` finds, read under the lock.
  std::optional<Advice> advise(std::string_view error_pattern);
  // The same for a call that must not wait. False, and nothing asked, while the lock is held.
  bool try_advise(std::string_view error_pattern, std::optional<Advice>& advice);
  // All rules, handed out.
  std::vector<RulePtr> rules();
  LearnerStats stats() const;

  // Starts from the bootstrap rules, and writes them.
  void seed();
  // Puts a rule into the table, in place of one with the same key.
  void store(const std::string& key, RulePtr rule);
  // The same for a rule from the fleet, which has room here as long as it is not new to a table of
  // kMostSharedRules.
  void take_over(const std::string& key, RulePtr rule);
  // The same for a rule that another learner published: only when it is new here, or more
  // confident.
  void merge(const std::string& key, const RulePtr& rule);
  // How many rules of the fleet found no room. Nothing is ever removed to make it.
  std::int64_t rules_passed_over() const;

  // Writes the table to the rules file. Takes no lock: `record` and `seed` hold it, and so may
  // Python code that calls this by hand.
  void persist();
  RulesFile& file() { return file_; }
  // Whether `record` would wait, or come before what is kept: the lock is held, somebody is to
  // record what is kept, or there is a fleet to tell.
  bool would_wait() const;
  // Whether the next `record` writes the rules file.
  bool would_write() const;
  // "redis" while rules are shared with a fleet, else "local".
  std::string sync_mode() const;
  void set_sync_mode(const char* mode);
  bool shares() const { return sync_mode() == "redis"; }
  void set_publisher(RulePublisher* publisher) { publisher_ = publisher; }

  const Clock& clock() const { return clock_; }

 private:
  // Places in the table, which a rule keeps.
  using Places = std::vector<const RulePtr*>;

  RulePtr match_locked(std::string_view error_pattern) REQUIRES(mutex_);
  // The best of a pattern's rules, where nobody else could have changed one.
  RulePtr look_up(std::string_view pattern) const REQUIRES(mutex_);
  // The same by a look at each rule, the category's where there is none; stale ones are seen to.
  RulePtr walk(std::string_view pattern, std::string_view category) REQUIRES(mutex_);
  void put(const std::string& key, RulePtr rule) REQUIRES(mutex_);
  // A rule counts as of this moment: it may be stale earlier than all others.
  void seen(const LearnedRule& rule) REQUIRES(mutex_);
  // Whether a rule from the fleet has room; counted when it has none.
  bool has_room(const std::string& key) REQUIRES(mutex_);

  const Clock& clock_;
  RulesFile file_;
  RulePublisher* publisher_ = nullptr;
  std::int64_t rules_passed_over_ GUARDED_BY(mutex_) = 0;
  OrderedMap<Places> by_pattern_ GUARDED_BY(mutex_);
  double stale_from_s_ GUARDED_BY(mutex_) = 0.0;  // wall clock: no rule is stale before
  Mutex kept_mutex_;
  std::vector<Outcome> kept_ GUARDED_BY(kept_mutex_);
  std::atomic<bool> is_asked_{false};  // somebody is to record them
};

}  // namespace tarvomeldric
