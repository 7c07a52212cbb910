#include "support/clock.h"

#include <algorithm>

namespace tarvomeldric {
namespace {

template <class C>
double seconds_of() {
  return std::chrono::duration<double>(C::now().time_since_epoch()).count();
}

class SystemClock final : public Clock {
 public:
  double wall() const override { return seconds_of<std::chrono::system_clock>(); }
  double monotonic() const override { return seconds_of<std::chrono::steady_clock>(); }
};

constexpr double kLongestWaitSeconds = 10.0 * 365 * 24 * 3600;

}  // namespace

const Clock& system_clock() {
  static const SystemClock clock;
  return clock;
}

std::chrono::steady_clock::time_point steady_deadline(double seconds) {
  // NaN compares false with everything and so waits for nothing.
  const double span = seconds > 0 ? std::min(seconds, kLongestWaitSeconds) : 0.0;
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(span));
}

}  // namespace tarvomeldric
