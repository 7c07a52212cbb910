#pragma once

#include "support/clock.h"
#include "support/guarded_record.h"

namespace tarvomeldric {

// What a budget is set to.
struct RetryBudgetFields {
  double ratio = 0.2;                   // retries that each call earns
  double min_retries_per_second = 1.0;  // retries that time earns
  double burst = 10.0;                  // the most that can be saved up, and what there is at first
};

// What retries may cost, counted over many calls: when much fails at once, requests grow by `ratio`
// and no more. It answers at once. Refilled when asked, on the monotonic clock. Any thread; one
// budget may serve many engines.
//
//   budget.deposit();                    // once for each call
//   if (budget.draw()) ... retry ...     // once for each request after a call's first
class RetryBudget : public GuardedRecord<RetryBudgetFields> {
 public:
  // std::invalid_argument for a figure that is negative or not finite.
  explicit RetryBudget(RetryBudgetFields fields = {}, const Clock& clock = system_clock());

  void deposit();
  bool draw();
  // Takes back what was drawn for nothing.
  void give_back();
  // The retries that could be drawn now.
  double level();

 private:
  void refill_locked() REQUIRES(mutex_);

  const Clock& clock_;
  double level_ GUARDED_BY(mutex_);
  double refilled_at_s_ GUARDED_BY(mutex_);
};

}  // namespace tarvomeldric
