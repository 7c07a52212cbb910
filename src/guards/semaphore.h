#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>

#include "support/clock.h"
#include "support/mutex.h"

namespace tarvomeldric {

// Permits, and a line of those who wait for one: threads and coroutines alike.
//
// A release makes a permit free and wakes the first in line; who wakes takes the permit if it is
// still there. A permit is therefore never handed to a waiter that may not be able to run: one
// that cannot be woken is skipped, one that leaves after it was woken passes the wake-up on, and
// every waiter looks for itself each `kLookAgainSeconds`, so that a wake-up lost with a loop that
// stopped costs the others that long at most. Newcomers go behind those in line, and for
// `kGraceSeconds` behind a waiter that was woken and is on the way. There is no upper bound: every
// release adds a permit. Any thread; the inner lock is never held while somebody is woken.
class Semaphore {
 public:
  // A place in the line. `wake` says that a permit may be there; false when the waiter cannot be
  // told. It may be called by any thread, with no lock of the core held, and must not throw.
  class Waiter {
   public:
    virtual ~Waiter() = default;
    virtual bool wake() = 0;

   private:
    friend class Semaphore;
    enum class Place { kNotInLine, kInLine, kWoken };
    Place place_ = Place::kNotInLine;
  };

  explicit Semaphore(std::int64_t permits, const Clock& clock = system_clock())
      : clock_(clock), permits_(permits) {}

  // Takes a permit unless others have a better claim to it; does not wait.
  bool try_acquire();
  // Takes a permit if there is one at all: the last look of a waiter whose time is up.
  bool take_any();
  // Waits at most `timeout_s` seconds, in a blocking region; 0 or less does not wait. Throws what
  // Python raises when it interrupts the wait.
  bool acquire(double timeout_s);
  void release();

  // For those who wait in their own way (coroutines): into the line, a look from within it, out of
  // it. What joined must leave, or be destroyed: the line keeps no waiter alive. `look` answers
  // whether a permit was taken.
  void join(const std::shared_ptr<Waiter>& waiter);
  bool look(Waiter& waiter);
  void leave(Waiter& waiter);

  // Takes every permit that is free, for good: who still waits for one does so in vain.
  void take_all();

  // In the child of a fork nobody is in line.
  void renew_after_fork();

  std::int64_t permits() const;
  std::size_t waiting() const;

  static constexpr double kLookAgainSeconds = 0.25;
  static constexpr double kGraceSeconds = 0.1;

 private:
  struct InLine {
    const Waiter* who;
    std::weak_ptr<Waiter> waiter;
  };
  struct Woken {
    const Waiter* who;
    double at_s;  // monotonic, seconds
  };

  bool take_locked(std::int64_t claims) REQUIRES(inner_);
  std::int64_t on_their_way_locked() REQUIRES(inner_);
  void forget_locked(Waiter& waiter) REQUIRES(inner_);
  std::shared_ptr<Waiter> next_to_wake();
  void wake_waiters();

  // A std::mutex that the analysis can see. Held for a few instructions, never across a wait.
  class CAPABILITY("mutex") Inner {
   public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

   private:
    std::mutex mutex_;
  };
  using InnerLock = MutexLock<Inner>;

  const Clock& clock_;
  mutable Inner inner_;
  std::int64_t permits_ GUARDED_BY(inner_);
  std::list<InLine> line_ GUARDED_BY(inner_);
  std::list<Woken> woken_ GUARDED_BY(inner_);  // told, and not seen since; oldest first
  const ForkMember member_{*this};
};

}  // namespace tarvomeldric
