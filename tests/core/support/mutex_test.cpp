#include "support/mutex.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <thread>

#include "guards/semaphore.h"
#include "support/blocking.h"

namespace tarvomeldric {
namespace {

// Not in the order that the thread-safety analysis asks for.
void lock(Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS { mutex.lock(); }
void unlock(Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS { mutex.unlock(); }

TEST(Mutex, IsWaitedForNoLongerThanAskedAndOpenedByAnyThread) {
  Mutex mutex;
  lock(mutex);
  for (double seconds : {0.01, 0.0, -1.0, std::nan("")}) EXPECT_FALSE(mutex.try_lock_for(seconds));
  std::jthread([&] { unlock(mutex); }).join();
  EXPECT_FALSE(mutex.locked());
}

TEST(Mutex, ScopeThrowsInsteadOfWaitingForOneOfItsOwnThread) {
  Mutex mutex;
  lock(mutex);
  EXPECT_THROW(lock(mutex), std::runtime_error);
  EXPECT_FALSE(mutex.try_lock_for(0.01));
  std::jthread other([&] {
    lock(mutex);
    unlock(mutex);
  });
  unlock(mutex);
  other.join();
  lock(mutex);
  unlock(mutex);
  ASSERT_TRUE(mutex.try_lock());
  std::jthread([&] { unlock(mutex); }).join();
  EXPECT_FALSE(mutex.locked());
}

TEST(Blocking, HostThatInterruptsAWaitGetsItselfBackAndNothingIsTaken) {
  static bool held = true;
  install_blocking_hooks({.release = [] { return static_cast<void*>((held = false, &held)); },
                          .reacquire = [](void*) { held = true; },
                          .check_interrupt = [] { throw held; }});
  Mutex mutex;
  ASSERT_TRUE(mutex.try_lock());
  EXPECT_FALSE(mutex.try_lock_for(0.01));
  EXPECT_TRUE(held);
  EXPECT_THROW(lock(mutex), bool);
  EXPECT_TRUE(held);
  Semaphore semaphore(0);
  EXPECT_THROW(semaphore.acquire(60.0), bool);
  EXPECT_TRUE(held);
  EXPECT_EQ(semaphore.waiting(), 0U);
  install_blocking_hooks({});
}

}  // namespace
}  // namespace tarvomeldric
