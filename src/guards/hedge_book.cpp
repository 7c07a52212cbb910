#include "guards/hedge_book.h"

#include "support/samples.h"

namespace tarvomeldric {
namespace {

constexpr std::size_t kMostLanes = 1000;
constexpr std::size_t kMostBudgets = 100;
constexpr std::size_t kLeastAnswers = 20;
constexpr double kUsual = 0.95;
constexpr int kOverdueInARow = 5;
constexpr double kAsideSeconds = 10.0;

}  // namespace

bool HedgeBook::Lane::on_probation() const { return overdue_in_a_row >= kOverdueInARow; }

std::string HedgeBook::lane(const std::string& provider, const std::string& model, bool streamed) {
  return provider + '\0' + model + '\0' + (streamed ? "stream" : "whole");
}

HedgeBook::Lane& HedgeBook::lane_locked(const std::string& lane) {
  const bool known = lanes_.find(lane) != nullptr;
  if (!known && lanes_.size() == kMostLanes) lanes_.erase(std::string(lanes_.begin()->first));
  return lanes_[lane];
}

void HedgeBook::answered(const std::string& lane, double seconds) {
  MutexLock lock(mutex_);
  Lane& known = lane_locked(lane);
  known.seconds.append(seconds);
  known.overdue_in_a_row = 0;
}

void HedgeBook::overdue(const std::string& lane) {
  MutexLock lock(mutex_);
  Lane& known = lane_locked(lane);
  ++known.overdue_in_a_row;
  if (known.on_probation()) known.aside_until_s = clock_.monotonic() + kAsideSeconds;
}

void HedgeBook::lost(const std::string& lane, double seconds) {
  MutexLock lock(mutex_);
  lane_locked(lane).seconds.append(seconds);
}

std::optional<double> HedgeBook::usual_s(const std::string& lane) const {
  std::vector<double> seconds;
  {
    MutexLock lock(mutex_);
    const Lane* known = lanes_.find(lane);
    if (!known || known->seconds.size() < kLeastAnswers) return std::nullopt;
    seconds.assign(known->seconds.begin(), known->seconds.end());
  }
  return SortedSamples(std::move(seconds)).quantile(kUsual);
}

bool HedgeBook::is_aside(const std::string& lane) const {
  MutexLock lock(mutex_);
  const Lane* known = lanes_.find(lane);
  return known && known->on_probation() && clock_.monotonic() < known->aside_until_s;
}

// The call that tests it keeps the others away until the test is over, or has been forgotten.
bool HedgeBook::claim(const std::string& lane) {
  MutexLock lock(mutex_);
  Lane* known = lanes_.find(lane);
  if (!known || !known->on_probation()) return true;
  const double now_s = clock_.monotonic();
  if (now_s < known->aside_until_s) return false;
  known->aside_until_s = now_s + kAsideSeconds;
  return true;
}

std::shared_ptr<RetryBudget> HedgeBook::budget(double ratio, double burst) {
  MutexLock lock(mutex_);
  for (const auto& budget : budgets_) {
    const RetryBudgetFields figures = budget->snapshot();
    if (figures.ratio == ratio && figures.burst == burst) return budget;
  }
  if (budgets_.size() == kMostBudgets) budgets_.erase(budgets_.begin());
  const RetryBudgetFields figures{ratio, 0.0, burst};
  return budgets_.emplace_back(std::make_shared<RetryBudget>(figures, clock_));
}

}  // namespace tarvomeldric
