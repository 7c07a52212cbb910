#include "providers/engine_counters.h"

namespace tarvomeldric {

void EngineCounters::count(std::initializer_list<Counter> counters) {
  MutexLock lock(general_lock_);
  for (Counter counter : counters) add(counter, 1);
}

void EngineCounters::add(Counter counter, std::int64_t value) {
  MutexLock lock(counter_lock_);
  values_[static_cast<std::size_t>(counter)] += value;
}

void EngineCounters::set(Counter counter, std::int64_t value) {
  MutexLock lock(counter_lock_);
  values_[static_cast<std::size_t>(counter)] = value;
}

std::int64_t EngineCounters::value(Counter counter) const {
  MutexLock lock(counter_lock_);
  return values_[static_cast<std::size_t>(counter)];
}

CounterValues EngineCounters::snapshot() const {
  MutexLock lock(counter_lock_);
  return values_;
}

}  // namespace tarvomeldric
