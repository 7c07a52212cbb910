#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "support/fork.h"
#include "support/thread_annotations.h"

namespace tarvomeldric {

// A plain lock whose waits never hold up the interpreter: it first tries, then waits inside a
// `BlockingRegion`. A thread that holds it and needs the interpreter can therefore never face a
// thread that holds the interpreter and waits for it. Not reentrant; any thread may unlock it, as
// Python's own locks allow. In the child of a fork it is free.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // What scopes do: wait as long as it takes, and remember the thread. Throws what Python raises
  // when it interrupts the wait, and std::runtime_error instead of waiting for a scope of this very
  // thread: a signal handler or a finalizer runs in the middle of one, and may ask for anything.
  void lock() ACQUIRE() {
    if (!try_lock()) wait_for_scope(Interrupts::kHeeded);
    scope_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  // The same for clean-up, which has to happen whatever Python asks for.
  void lock_uninterrupted() ACQUIRE() {
    if (!try_lock()) wait_for_scope(Interrupts::kIgnored);
    scope_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  bool try_lock() TRY_ACQUIRE(true) { return !held_.exchange(true); }
  // Waits at most `seconds`; returns whether the lock was taken.
  bool try_lock_for(double seconds) TRY_ACQUIRE(true);
  void unlock() RELEASE() {
    scope_.store({}, std::memory_order_relaxed);
    held_.store(false);
    if (waiters_.load() != 0) wake();
  }
  bool locked() const { return held_.load(); }

  void renew_after_fork();

 private:
  using Deadline = std::optional<std::chrono::steady_clock::time_point>;
  enum class Interrupts { kHeeded, kIgnored };

  void wait_for_scope(Interrupts interrupts);
  void wake();
  bool wait(Deadline deadline, Interrupts interrupts);
  bool wait_slice(Deadline deadline);

  std::atomic<bool> held_{false};
  std::atomic<std::thread::id> scope_{};  // the thread whose scope holds it
  std::atomic<int> waiters_{0};
  std::mutex parking_;
  std::condition_variable released_;
  const ForkMember member_{*this};
};

// How a scoped lock waits: clean-up has to happen whatever Python asks for, so it is not
// interrupted, and cannot throw. Its scopes run no code of Python.
struct Uninterrupted {};
inline constexpr Uninterrupted kUninterrupted;

// Holds a lock for a scope. Throws std::runtime_error when a scope of the same thread holds it.
//
//   MutexLock lock(mutex_);                   // may throw Python's interrupt while it waits
//   MutexLock lock(mutex_, kUninterrupted);   // in destructors and clean-up
template <class M>
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(M& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  MutexLock(M& mutex, Uninterrupted) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock_uninterrupted(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  M& mutex_;
};

}  // namespace tarvomeldric
