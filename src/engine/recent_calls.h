#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/call_history.h"
#include "engine/events.h"
#include "support/clock.h"
#include "support/mutex.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

// A stretch of a call: a request, a wait, or a provider's refusal, which takes no time. Moments are
// seconds after the record's own start.
struct CallStep {
  std::string kind;  // "answered", "failed", "lost" to a faster one, "wait" or "refused"
  std::string provider;
  std::string model;
  std::string reason;  // a fault's label, or why it was waited or refused
  std::optional<std::int64_t> status;
  double start_s = 0.0;
  double duration_s = 0.0;
};

// A call as far as it was heard of. Its texts are cut to what can be shown.
struct RecentCall {
  std::int64_t number = 0;  // its own in this record
  std::string id;
  std::string model;  // that was asked for, once it is over
  double start_s = 0.0;
  double duration_s = 0.0;  // of a call that is over
  std::string outcome;      // as in its end; empty of a call that is under way
  std::string heal_level;   // empty of a call that was not healed
  std::string fault;        // the newest label that was diagnosed
  std::vector<CallStep> steps;
  std::int64_t steps_left_out = 0;
};

// The newest calls of an engine, and the history of all of them, from what its calls tell. It keeps
// little, whatever happens: of more calls under way the oldest are forgotten, and so are the later
// steps of one that has many. Calls at one time with the same id get mixed up. Any thread.
class RecentCalls {
 public:
  static constexpr std::size_t kMostUnderWay = 1000;
  static constexpr std::size_t kMostShown = 40;
  static constexpr std::size_t kMostShownUnderWay = 20;
  static constexpr std::size_t kMostSteps = 40;  // of a call
  static constexpr std::size_t kMostCharacters = 200;

  explicit RecentCalls(const Clock& clock = system_clock())
      : clock_(clock), start_s_(clock.monotonic()), history_(start_s_) {}

  void record(const CallEvent& event);

  // Seconds since the record began.
  double age_s() const { return clock_.monotonic() - start_s_; }
  // Those under way, then those that are over; the newest first.
  std::vector<RecentCall> calls() const;
  std::vector<HistoryStep> history();

 private:
  struct Recording;

  RecentCall& under_way(std::string_view id, double now_s) REQUIRES(mutex_);
  void end(std::string_view id) REQUIRES(mutex_);

  const Clock& clock_;
  const double start_s_;  // monotonic
  mutable Mutex mutex_;
  std::int64_t begun_ GUARDED_BY(mutex_) = 0;
  OrderedMap<RecentCall> under_way_ GUARDED_BY(mutex_);  // by id, in the order of their beginning
  std::deque<RecentCall> over_ GUARDED_BY(mutex_);       // the oldest first
  CallHistory history_ GUARDED_BY(mutex_);
};

}  // namespace tarvomeldric
