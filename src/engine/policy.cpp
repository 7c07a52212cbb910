#include "engine/policy.h"

#include <cmath>
#include <stdexcept>
#include <string_view>

namespace tarvomeldric {
namespace {

[[noreturn]] void refuse(std::string_view name, const char* wanted) {
  throw std::invalid_argument(std::string(name) + " must be " + wanted);
}

void check_seconds(std::string_view name, double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0) refuse(name, "a positive, finite number of seconds");
}

void check_count(std::string_view name, std::int64_t count) {
  if (count < 1) refuse(name, "at least 1");
}

void check_figure(std::string_view name, double figure) {
  if (!std::isfinite(figure) || figure < 0) refuse(name, "a finite number, at least 0");
}

}  // namespace

void CallPolicy::check() const {
  if (deadline_s) check_seconds("deadline", *deadline_s);
  if (attempt_timeout_s) check_seconds("attempt_timeout", *attempt_timeout_s);
  if (max_attempts) check_count("max_attempts", *max_attempts);
  check_count("max_retries", max_retries);
  check_seconds("initial_backoff", initial_backoff_s);
  check_seconds("max_backoff", max_backoff_s);
  check_seconds("retry_after_cap", retry_after_cap_s);
  if (hedge_after && hedge_after->seconds) check_seconds("hedge_after", *hedge_after->seconds);
  check_figure("hedge_ratio", hedge_ratio);
  check_figure("hedge_burst", hedge_burst);
  if (providers && providers->empty()) refuse("providers", "None or at least one name");
}

CallPolicy CallPolicy::interactive() {
  CallPolicy policy;
  policy.deadline_s = 20.0;
  policy.attempt_timeout_s = 8.0;
  policy.max_retries = 2;
  policy.jitter = true;
  policy.retry_after = true;
  policy.order = AttemptOrder::kFailoverFirst;
  policy.respect_breakers = true;
  policy.validate = Validation::kAll;
  return policy;
}

CallPolicy CallPolicy::batch() {
  CallPolicy policy;
  policy.deadline_s = 600.0;
  policy.attempt_timeout_s = 120.0;
  policy.jitter = true;
  policy.retry_after = true;
  policy.retry_after_cap_s = 60.0;
  policy.respect_breakers = true;
  policy.validate = Validation::kAll;
  return policy;
}

}  // namespace tarvomeldric
