#include "engine/policy_state.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tarvomeldric {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();
constexpr double kLeastAttemptSeconds = 0.05;  // what no provider answers in
constexpr double kClockSlackSeconds = 0.005;   // between an attempt's own clock and ours
constexpr double kHeaderJitter = 0.1;
constexpr double kLongestDelaySeconds = 365.0 * 24 * 3600;  // more than any sleep can be told

}  // namespace

PolicyState::PolicyState(const CallPolicy& policy, const Clock& clock, const Random& random,
                         double start_s)
    : policy_(policy),
      clock_(clock),
      random_(random),
      end_s_(policy.deadline_s ? start_s + *policy.deadline_s : kInfinite) {
  if (policy.retry_budget) policy.retry_budget->deposit();
}

double PolicyState::left_s() const {
  return end_s_ == kInfinite ? kInfinite : end_s_ - clock_.monotonic();
}

double PolicyState::attempt_limit_s() const {
  return std::min(policy_.attempt_timeout_s.value_or(kInfinite), left_s());
}

bool PolicyState::may_send() {
  if (forbidden_by_ != Forbidden::kNot) return false;
  if (left_s() < kLeastAttemptSeconds) {
    forbidden_by_ = Forbidden::kDeadline;
  } else if (is_spent()) {
    forbidden_by_ = Forbidden::kCount;
  }
  return forbidden_by_ == Forbidden::kNot;
}

bool PolicyState::is_spent() const {
  if (policy_.max_attempts && requests_ >= *policy_.max_attempts) return true;
  return policy_.retry_budget && requests_ > 0 && policy_.retry_budget->level() < 1.0;
}

bool PolicyState::take_request() {
  if (!may_send()) return false;
  if (policy_.retry_budget && requests_ > 0 && !policy_.retry_budget->draw()) {
    forbidden_by_ = Forbidden::kCount;
    return false;
  }
  ++requests_;
  return true;
}

bool PolicyState::take_hedge() {
  if (left_s() < kLeastAttemptSeconds) return false;
  if (policy_.max_attempts && requests_ >= *policy_.max_attempts) return false;
  if (policy_.retry_budget && !policy_.retry_budget->draw()) return false;
  ++requests_;
  return true;
}

bool PolicyState::may_wait(double seconds) {
  if (seconds + kLeastAttemptSeconds <= left_s()) return true;
  wait_forbidden_ = true;
  return false;
}

bool PolicyState::cut_by_deadline(double over_s) const {
  return end_s_ - over_s < kClockSlackSeconds;
}

std::optional<double> PolicyState::delay_s(int retry, const Diagnosis& fault,
                                           double alone_s) const {
  const std::optional<double> asked = wait_s(alone_s);
  if (!asked) return std::nullopt;
  const bool even = fault.retry_after_s.value_or(0.0) != 0 &&
                    policy_.initial_backoff_s == CallPolicy::kUsualBackoffSeconds;
  const double grown_s = even ? *fault.retry_after_s : std::ldexp(policy_.initial_backoff_s, retry);
  double pause_s = std::min({grown_s, policy_.max_backoff_s, kLongestDelaySeconds});
  if (policy_.jitter) pause_s *= random_.uniform();
  return std::max(pause_s, *asked);
}

std::optional<double> PolicyState::wait_s(double alone_s) const {
  if (!policy_.retry_after || alone_s <= 0) return 0.0;
  if (alone_s > policy_.retry_after_cap_s) return std::nullopt;
  return policy_.jitter ? alone_s * (1.0 + kHeaderJitter * random_.uniform()) : alone_s;
}

}  // namespace tarvomeldric
