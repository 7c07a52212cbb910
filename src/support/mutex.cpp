#include "support/mutex.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "support/blocking.h"
#include "support/clock.h"

namespace tarvomeldric {

bool Mutex::try_lock_for(double seconds) {
  if (try_lock()) return true;
  return seconds > 0 && wait(steady_deadline(seconds), Interrupts::kHeeded);
}

void Mutex::wake() {
  std::lock_guard parked(parking_);
  released_.notify_one();
}

void Mutex::wait_for_scope(Interrupts interrupts) {
  const bool own = scope_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  if (interrupts == Interrupts::kHeeded && own) {
    throw std::runtime_error("the lock that this would wait for is held by this thread");
  }
  wait(std::nullopt, interrupts);
}

bool Mutex::wait(Deadline deadline, Interrupts interrupts) {
  BlockingRegion region;
  while (!wait_slice(deadline)) {
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return false;
    if (interrupts == Interrupts::kHeeded) region.check_interrupt();
  }
  return true;
}

// One slice of a wait. A waiter announces itself before it looks at the flag, and `unlock` clears
// the flag before it looks for waiters, so one of the two always sees the other.
bool Mutex::wait_slice(Deadline deadline) {
  auto until = std::chrono::steady_clock::now() + kInterruptSlice;
  if (deadline) until = std::min(until, *deadline);
  std::unique_lock parked(parking_);
  ++waiters_;
  const bool taken = released_.wait_until(parked, until, [this] { return try_lock(); });
  --waiters_;
  return taken;
}

// Without the destructors: a condition that somebody waits on cannot be destroyed, and those who
// waited are not there to stop.
void Mutex::renew_after_fork() {
  held_.store(false);
  scope_.store({});
  waiters_.store(0);
  new (&parking_) std::mutex;
  new (&released_) std::condition_variable;
}

}  // namespace tarvomeldric
