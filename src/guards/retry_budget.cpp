#include "guards/retry_budget.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

namespace tarvomeldric {
namespace {

RetryBudgetFields checked(const RetryBudgetFields& fields) {
  const auto check = [](const char* name, double figure) {
    if (std::isfinite(figure) && figure >= 0) return;
    throw std::invalid_argument(std::string(name) + " must be a finite number, at least 0");
  };
  check("ratio", fields.ratio);
  check("min_retries_per_second", fields.min_retries_per_second);
  check("burst", fields.burst);
  return fields;
}

}  // namespace

RetryBudget::RetryBudget(RetryBudgetFields fields, const Clock& clock)
    : GuardedRecord(checked(fields)),
      clock_(clock),
      level_(fields.burst),
      refilled_at_s_(clock.monotonic()) {}

void RetryBudget::deposit() {
  MutexLock lock(mutex_);
  level_ = std::min(fields_.burst, level_ + fields_.ratio);
}

bool RetryBudget::draw() {
  MutexLock lock(mutex_);
  refill_locked();
  if (level_ < 1.0) return false;
  level_ -= 1.0;
  return true;
}

void RetryBudget::give_back() {
  MutexLock lock(mutex_, kUninterrupted);
  level_ = std::min(fields_.burst, level_ + 1.0);
}

double RetryBudget::level() {
  MutexLock lock(mutex_);
  refill_locked();
  return level_;
}

void RetryBudget::refill_locked() {
  const double now_s = clock_.monotonic();
  const double earned = (now_s - refilled_at_s_) * fields_.min_retries_per_second;
  level_ = std::min(fields_.burst, level_ + earned);
  refilled_at_s_ = now_s;
}

}  // namespace tarvomeldric
