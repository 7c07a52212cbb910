#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "support/mutex.h"

namespace tarvomeldric {

// What an engine counts of its calls, in the order in which it is reported.
enum class Counter : std::uint8_t {
  kCall,
  kHeal,
  kL1Skip,
  kL2Downgrade,
  kL3Failover,
  kL4Learned,
  kRateLimited,
  kBulkheadRejected,
};

inline constexpr std::array kCounterNames{
    "call_count",        "heal_count",       "l1_skip_count",      "l2_downgrade_count",
    "l3_failover_count", "l4_learned_count", "rate_limited_count", "bulkhead_rejected_count"};

using CounterValues = std::array<std::int64_t, kCounterNames.size()>;

// The engine's counters under `counter_lock`, and the engine's general lock, which a call holds
// around its counts so that counts that belong together change together. The general lock is taken
// first. Any thread.
class EngineCounters {
 public:
  void count(std::initializer_list<Counter> counters);
  void add(Counter counter, std::int64_t value);
  void set(Counter counter, std::int64_t value);
  std::int64_t value(Counter counter) const;
  CounterValues snapshot() const;

  Mutex& general_lock() { return general_lock_; }
  Mutex& counter_lock() { return counter_lock_; }

 private:
  mutable Mutex general_lock_;
  mutable Mutex counter_lock_;
  CounterValues values_ GUARDED_BY(counter_lock_){};
};

}  // namespace tarvomeldric
