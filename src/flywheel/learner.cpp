#include "flywheel/learner.h"

#include <algorithm>

#include "flywheel/bootstrap_rules.h"
#include "flywheel/rules_json.h"
#include "support/blocking.h"

namespace tarvomeldric {
namespace {

constexpr double kAdviceConfidence = 0.6;
constexpr double kHighConfidence = 0.8;
constexpr std::int64_t kRecordsPerWrite = 20;

// The best of the rules offered to it; on equal confidence the first one stays.
struct Best {
  const RulePtr* rule = nullptr;
  double confidence = kAdviceConfidence;

  void offer(const RulePtr& candidate) {
    if (!(candidate->confidence > confidence)) return;  // nor one that is no number
    rule = &candidate;
    confidence = candidate->confidence;
  }
};

RulePtr fresh_rule(const Outcome& outcome) {
  auto rule = std::make_shared<LearnedRule>();
  rule->pattern = outcome.error_pattern;
  rule->action = outcome.action;
  rule->source = "learned";
  return rule;
}

std::optional<Advice> advice_of(const RulePtr& rule) {
  if (!rule) return std::nullopt;
  return Advice{rule->action, rule->confidence};
}

}  // namespace

FlywheelLearner::FlywheelLearner(std::string persist_path, const Clock& clock)
    : clock_(clock), file_(std::move(persist_path)) {}

void FlywheelLearner::seed() {
  MutexLock lock(mutex_);
  const double now_s = clock_.wall();
  for (const BootstrapRule& row : kBootstrapRules) {
    auto rule = std::make_shared<LearnedRule>();
    rule->pattern = row.pattern;
    rule->action = row.action;
    rule->success_count = row.success_count;
    rule->fail_count = row.fail_count;
    rule->confidence = row.confidence;
    rule->last_seen_s = now_s;
    put(rule_key(row.pattern, row.action), std::move(rule));
  }
  fields_.bootstrap_loaded = true;
  persist();
}

void FlywheelLearner::put(const std::string& key, RulePtr rule) {
  seen(*rule);
  RulePtr* known = fields_.rules.find(key);
  if (!known) {
    RulePtr& place = fields_.rules[key] = std::move(rule);
    by_pattern_[place->pattern].push_back(&place);
    return;
  }
  // The file and the fleet may hold any rule under any key.
  if ((*known)->pattern != rule->pattern) fields_.handed_out = true;
  *known = std::move(rule);
}

void FlywheelLearner::seen(const LearnedRule& rule) {
  stale_from_s_ = std::min(stale_from_s_, rule.last_seen_s + LearnedRule::kStaleSeconds);
}

void FlywheelLearner::store(const std::string& key, RulePtr rule) {
  MutexLock lock(mutex_);
  put(key, std::move(rule));
}

void FlywheelLearner::take_over(const std::string& key, RulePtr rule) {
  MutexLock lock(mutex_);
  if (has_room(key)) put(key, std::move(rule));
}

void FlywheelLearner::merge(const std::string& key, const RulePtr& rule) {
  MutexLock lock(mutex_);
  const RulePtr* known = fields_.rules.find(key);
  const bool is_wanted = !known || rule->confidence > (*known)->confidence;
  if (is_wanted && has_room(key)) put(key, rule);
}

bool FlywheelLearner::has_room(const std::string& key) {
  const bool has_room = fields_.rules.size() < kMostSharedRules || fields_.rules.find(key);
  if (!has_room) ++rules_passed_over_;
  return has_room;
}

std::int64_t FlywheelLearner::rules_passed_over() const {
  MutexLock lock(mutex_);
  return rules_passed_over_;
}

void FlywheelLearner::record(const Outcome& outcome) {
  MutexLock lock(mutex_);
  const std::string key = rule_key(outcome.error_pattern, outcome.action);
  const RulePtr* known = fields_.rules.find(key);
  const RulePtr rule = known ? *known : fresh_rule(outcome);
  rule->update(outcome.success, outcome.heal_time_ms, clock_.wall());
  if (!known) put(key, rule);
  const bool to_be_written = ++fields_.records % kRecordsPerWrite == 0;
  const bool shared = fields_.sync_mode == "redis";
  if (to_be_written) persist();
  if (shared && publisher_) publisher_->publish(key, *rule);
}

bool FlywheelLearner::keep(Outcome outcome) {
  MutexLock lock(kept_mutex_);
  kept_.push_back(std::move(outcome));
  return !is_asked_.exchange(true);
}

void FlywheelLearner::record_kept() {
  for (;;) {
    std::vector<Outcome> kept;
    {
      MutexLock lock(kept_mutex_);
      kept.swap(kept_);
      if (kept.empty()) {
        is_asked_ = false;
        return;
      }
    }
    try {
      for (const Outcome& outcome : kept) record(outcome);
    } catch (...) {
      is_asked_ = false;
      throw;
    }
  }
}

void FlywheelLearner::forget_kept() {
  MutexLock lock(kept_mutex_);
  kept_.clear();
  is_asked_ = false;
}

// Left out of the analysis: `record` and `seed` hold the lock, and Python code that calls it by
// hand may hold it, too.
void FlywheelLearner::persist() NO_THREAD_SAFETY_ANALYSIS {
  if (file_.path().empty()) return;
  const std::string text = rules_file_text(fields_.rules);
  const BlockingRegion region;
  file_.write(text);
}

// Left out of the analysis: the answer may be out of date as soon as it is given, locked or not.
bool FlywheelLearner::would_wait() const NO_THREAD_SAFETY_ANALYSIS {
  return mutex_.locked() || is_asked_ || (publisher_ && fields_.sync_mode == "redis");
}

bool FlywheelLearner::would_write() const NO_THREAD_SAFETY_ANALYSIS {
  return !file_.path().empty() && (fields_.records + 1) % kRecordsPerWrite == 0;
}

std::string FlywheelLearner::sync_mode() const {
  MutexLock lock(mutex_);
  return fields_.sync_mode;
}

void FlywheelLearner::set_sync_mode(const char* mode) {
  MutexLock lock(mutex_);
  fields_.sync_mode = mode;
}

RulePtr FlywheelLearner::match(std::string_view error_pattern) {
  MutexLock lock(mutex_);
  fields_.handed_out = true;
  return match_locked(error_pattern);
}

std::optional<Advice> FlywheelLearner::advise(std::string_view error_pattern) {
  MutexLock lock(mutex_);
  return advice_of(match_locked(error_pattern));
}

bool FlywheelLearner::try_advise(std::string_view error_pattern, std::optional<Advice>& advice) {
  if (!mutex_.try_lock()) return false;
  advice = advice_of(match_locked(error_pattern));
  mutex_.unlock();
  return true;
}

RulePtr FlywheelLearner::match_locked(std::string_view error_pattern) {
  const std::string_view category = error_pattern.substr(0, error_pattern.find(':'));
  if (fields_.handed_out || !(clock_.wall() <= stale_from_s_)) return walk(error_pattern, category);
  const RulePtr exact = look_up(error_pattern);
  return exact ? exact : look_up(category);
}

RulePtr FlywheelLearner::look_up(std::string_view pattern) const {
  Best best;
  const Places* places = by_pattern_.find(pattern);
  if (!places) return nullptr;
  for (const RulePtr* rule : *places) best.offer(*rule);
  return best.rule ? *best.rule : nullptr;
}

RulePtr FlywheelLearner::walk(std::string_view pattern, std::string_view category) {
  const double now_s = clock_.wall();
  Best exact;
  Best fallback;
  double oldest_s = now_s;
  for (const auto& [_, rule] : fields_.rules) {
    rule->decay(now_s);
    if (rule->may_decay()) oldest_s = std::min(oldest_s, rule->last_seen_s);
    if (rule->pattern == pattern) {
      exact.offer(rule);
    } else if (rule->pattern == category) {
      fallback.offer(rule);
    }
  }
  stale_from_s_ = oldest_s + LearnedRule::kStaleSeconds;
  if (exact.rule) return *exact.rule;
  return fallback.rule ? *fallback.rule : nullptr;
}

std::vector<RulePtr> FlywheelLearner::rules() {
  MutexLock lock(mutex_);
  fields_.handed_out = true;
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
