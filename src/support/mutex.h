#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "support/thread_annotations.h"

namespace tarvomeldric {

// A plain lock whose waits never hold up the host: it first tries, then waits inside a
// `BlockingRegion`. A thread that holds it and needs the interpreter can therefore never face a
// thread that holds the interpreter and waits for it. Not reentrant; any thread may unlock it, as
// the host's own locks allow.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Waits as long as it takes. Throws what the host raises when it interrupts the wait.
  void lock() ACQUIRE() {
    if (!try_lock()) wait(std::nullopt, Interrupts::kHeeded);
  }
  // The same for clean-up, which has to happen whatever the host asks for.
  void lock_uninterrupted() ACQUIRE() {
    if (!try_lock()) wait(std::nullopt, Interrupts::kIgnored);
  }
  bool try_lock() TRY_ACQUIRE(true) { return !held_.exchange(true); }
  // Waits at most `seconds`; returns whether the lock was taken.
  bool try_lock_for(double seconds) TRY_ACQUIRE(true);
  void unlock() RELEASE();
  bool locked() const { return held_.load(); }

  // For the child of a fork, in which the threads that held or awaited the lock do not exist.
  void reset_after_fork();

 private:
  using Deadline = std::optional<std::chrono::steady_clock::time_point>;
  enum class Interrupts { kHeeded, kIgnored };

  bool wait(Deadline deadline, Interrupts interrupts);
  bool wait_slice(Deadline deadline);

  std::atomic<bool> held_{false};
  std::atomic<int> waiters_{0};
  std::mutex parking_;
  std::condition_variable released_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// For clean-up paths: cannot be interrupted, and therefore cannot throw.
class SCOPED_CAPABILITY CleanupLock {
 public:
  explicit CleanupLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock_uninterrupted(); }
  ~CleanupLock() RELEASE() { mutex_.unlock(); }
  CleanupLock(const CleanupLock&) = delete;
  CleanupLock& operator=(const CleanupLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace tarvomeldric
