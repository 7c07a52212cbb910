#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "guards/retry_budget.h"
#include "support/bounded_queue.h"
#include "support/clock.h"
#include "support/mutex.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

// What an engine knows about asking a second provider beside a first one that takes long: how long
// its answers usually take, whether it keeps losing to the second one, and what second requests may
// cost. A lane is a provider, its model and a way of answering, whose times belong together.
//
// Five first requests in a row that got company put a lane aside for 10 seconds, unless one of them
// answered after all; then one call tries it again.
//
//   if (book.claim(lane)) ... ask it first, and if it takes long: book.overdue(lane) ...
//   book.answered(lane, 0.4) or book.lost(lane, 2.0)
//
// Any thread. Remembers a bounded number of lanes.
class HedgeBook {
 public:
  explicit HedgeBook(const Clock& clock = system_clock()) : clock_(clock) {}

  static std::string lane(const std::string& provider, const std::string& model, bool streamed);

  // An answer took so many seconds, or its first output where it is streamed.
  void answered(const std::string& lane, double seconds);
  // A first request takes long enough for a second one to be sent.
  void overdue(const std::string& lane);
  // It was ended because the second one had answered; it would have taken longer.
  void lost(const std::string& lane, double seconds);
  // What 95 % of the newest 100 answers took at most; null while fewer than 20 are known.
  std::optional<double> usual_s(const std::string& lane) const;

  bool is_aside(const std::string& lane) const;
  // Leave to ask it first: always, but for one that was overdue five times in a row. That one is
  // tested by one call at a time.
  bool claim(const std::string& lane);

  // What all calls with these figures draw on.
  std::shared_ptr<RetryBudget> budget(double ratio, double burst);

 private:
  struct Lane {
    BoundedQueue<double, 100> seconds;
    int overdue_in_a_row = 0;
    double aside_until_s = 0.0;  // monotonic, seconds

    bool on_probation() const;
  };

  Lane& lane_locked(const std::string& lane) REQUIRES(mutex_);

  const Clock& clock_;
  mutable Mutex mutex_;
  OrderedMap<Lane> lanes_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<RetryBudget>> budgets_ GUARDED_BY(mutex_);
};

}  // namespace tarvomeldric
