#include "guards/semaphore.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <new>

#include "support/blocking.h"

namespace tarvomeldric {
namespace {

// A thread in line, parked on a condition of its own.
class ThreadWaiter final : public Semaphore::Waiter {
 public:
  bool wake() override {
    std::lock_guard lock(mutex_);
    woken_ = true;
    condition_.notify_one();
    return true;
  }
  void park(std::chrono::steady_clock::time_point until) {
    std::unique_lock lock(mutex_);
    condition_.wait_until(lock, until, [this] { return woken_; });
    woken_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  bool woken_ = false;
};

}  // namespace

bool Semaphore::try_acquire() {
  InnerLock lock(inner_);
  return take_locked(on_their_way_locked() + static_cast<std::int64_t>(line_.size()));
}

bool Semaphore::take_any() {
  InnerLock lock(inner_);
  return take_locked(0);
}

bool Semaphore::acquire(double timeout_s) {
  if (try_acquire()) return true;
  if (!(timeout_s > 0)) return take_any();
  const auto deadline = steady_deadline(timeout_s);
  const auto waiter = std::make_shared<ThreadWaiter>();
  struct Leaving {
    Semaphore& semaphore;
    const std::shared_ptr<ThreadWaiter>& waiter;
    ~Leaving() { semaphore.leave(*waiter); }
  };
  BlockingRegion region;
  join(waiter);
  const Leaving at_the_end{*this, waiter};
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return take_any();
    waiter->park(std::min(deadline, now + kInterruptSlice));
    if (look(*waiter)) return true;
    region.check_interrupt();
    join(waiter);
  }
}

void Semaphore::release() {
  {
    InnerLock lock(inner_);
    ++permits_;
  }
  wake_waiters();
}

void Semaphore::join(const std::shared_ptr<Waiter>& waiter) {
  {
    InnerLock lock(inner_);
    if (waiter->place_ == Waiter::Place::kInLine) return;
    forget_locked(*waiter);
    line_.push_back({waiter.get(), waiter});
    waiter->place_ = Waiter::Place::kInLine;
  }
  wake_waiters();
}

bool Semaphore::look(Waiter& waiter) {
  InnerLock lock(inner_);
  const bool was_woken = waiter.place_ == Waiter::Place::kWoken;
  if (was_woken) forget_locked(waiter);
  return take_locked(was_woken ? 0 : on_their_way_locked());
}

void Semaphore::leave(Waiter& waiter) {
  {
    InnerLock lock(inner_);
    forget_locked(waiter);
  }
  wake_waiters();
}

void Semaphore::take_all() {
  InnerLock lock(inner_);
  permits_ = 0;
}

// Without the destructors: a lock that somebody holds cannot be destroyed, and a list that somebody
// was changing cannot be walked.
void Semaphore::renew_after_fork() NO_THREAD_SAFETY_ANALYSIS {
  new (&inner_) Inner;
  new (&line_) std::list<InLine>;
  new (&woken_) std::list<Woken>;
}

std::int64_t Semaphore::permits() const {
  InnerLock lock(inner_);
  return permits_;
}

std::size_t Semaphore::waiting() const {
  InnerLock lock(inner_);
  return line_.size();
}

bool Semaphore::take_locked(std::int64_t claims) {
  if (permits_ <= claims) return false;
  --permits_;
  return true;
}

// The waiters that were woken a moment ago. One that takes longer has lost the claim, and takes
// what is there.
std::int64_t Semaphore::on_their_way_locked() {
  while (!woken_.empty() && clock_.monotonic() - woken_.front().at_s > kGraceSeconds)
    woken_.pop_front();
  return static_cast<std::int64_t>(woken_.size());
}

void Semaphore::forget_locked(Waiter& waiter) {
  const auto is_it = [&](const auto& place) { return place.who == &waiter; };
  if (waiter.place_ == Waiter::Place::kWoken) woken_.remove_if(is_it);
  if (waiter.place_ == Waiter::Place::kInLine) line_.remove_if(is_it);
  waiter.place_ = Waiter::Place::kNotInLine;
}

// The first in line, when there is a permit that nobody is on the way to.
std::shared_ptr<Semaphore::Waiter> Semaphore::next_to_wake() {
  InnerLock lock(inner_);
  if (permits_ <= on_their_way_locked()) return nullptr;
  std::shared_ptr<Waiter> next;
  while (!next && !line_.empty()) {
    next = line_.front().waiter.lock();
    line_.pop_front();
  }
  if (!next) return nullptr;
  next->place_ = Waiter::Place::kWoken;
  woken_.push_back({next.get(), clock_.monotonic()});
  return next;
}

void Semaphore::wake_waiters() {
  while (auto next = next_to_wake()) {
    if (next->wake()) continue;
    InnerLock lock(inner_);
    forget_locked(*next);
  }
}

}  // namespace tarvomeldric
