#include "guards/semaphore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <map>
#include <thread>

#include "manual_clock.h"
#include "support/blocking.h"

namespace tarvomeldric {
namespace {

// All permits are taken. Those in line are no threads and look when the test says so; one with a
// capital letter cannot be told that it is their turn.
struct SemaphoreTest : ::testing::Test {
  struct Guest final : Semaphore::Waiter {
    Guest(char its, std::string& log) : name(its), told(log) {}
    bool wake() override { return told += name, std::islower(name); }
    const char name;
    std::string& told;
  };
  void arrive(std::string_view names) {
    for (char name : names) {
      auto& guest = guests[name];
      if (!guest) guest = std::make_shared<Guest>(name, told);
      semaphore.join(guest);
    }
  }
  bool look(char name) { return semaphore.look(*guests.at(name)); }
  void leave(char name) { semaphore.leave(*guests.at(name)); }

  std::string told;  // in this order
  std::map<char, std::shared_ptr<Guest>> guests;
  ManualClock clock;
  Semaphore semaphore{0, clock};
};

TEST_F(SemaphoreTest, ReleaseWakesTheFirstWhoCanBeWoken) {
  arrive("Gab");
  semaphore.release();
  EXPECT_EQ(told, "Ga");
  EXPECT_FALSE(look('b'));
  EXPECT_TRUE(look('a'));
  leave('b');
  arrive("Hc");
  guests.erase('c');
  semaphore.release();
  EXPECT_EQ(told, "GaH");
  EXPECT_TRUE(semaphore.try_acquire());
}

TEST_F(SemaphoreTest, OneWhoLeavesAfterBeingWokenPassesTheWakeOn) {
  arrive("abc");
  leave('b');
  semaphore.release();
  leave('a');
  EXPECT_EQ(told, "ac");
  semaphore.release();
  EXPECT_TRUE(semaphore.try_acquire());
  EXPECT_FALSE(semaphore.try_acquire());  // c has the better claim
  EXPECT_TRUE(look('c'));
}

TEST_F(SemaphoreTest, WhoJoinsIsWokenForAFreePermitAndGoesBehindOnJoiningAgain) {
  semaphore.release();
  arrive("ab");
  EXPECT_EQ(told, "a");
  arrive("a");
  EXPECT_EQ(told, "ab");
  EXPECT_TRUE(look('b'));
  EXPECT_FALSE(look('a'));
  leave('a');
  arrive("a");
  semaphore.release();
  EXPECT_EQ(told, "aba");
}

TEST_F(SemaphoreTest, OneWhoDoesNotComeHoldsTheOthersUpForAMomentOnly) {
  arrive("ab");
  semaphore.release();
  clock.advance(Semaphore::kGraceSeconds / 2);
  EXPECT_FALSE(look('b'));
  EXPECT_FALSE(semaphore.try_acquire());
  clock.advance(Semaphore::kGraceSeconds);
  EXPECT_TRUE(look('b'));
  leave('b');
  semaphore.release();
  EXPECT_TRUE(semaphore.try_acquire());
  EXPECT_FALSE(look('a'));
}

TEST_F(SemaphoreTest, AWakeThatIsLostCostsItsMomentHoweverBusyTheOthersAre) {
  arrive("z");
  semaphore.release();
  for (char passing : {'a', 'b', 'c', 'd', 'e'}) {
    clock.advance(Semaphore::kGraceSeconds / 2);
    arrive({&passing, 1});
    semaphore.release();
    ASSERT_TRUE(look(passing));
  }
  arrive("f");
  EXPECT_TRUE(look('f'));
}

TEST_F(SemaphoreTest, WhoWillNotWaitAnyLongerTakesAnyFreePermit) {
  arrive("a");
  for (double timeout : {0.0, -1.0, std::nan(""), 0.01}) {
    semaphore.release();
    EXPECT_FALSE(semaphore.try_acquire());  // the clock stands still: the grace does not end
    EXPECT_TRUE(semaphore.acquire(timeout));
    EXPECT_FALSE(semaphore.acquire(timeout));
  }
  EXPECT_EQ(semaphore.waiting(), 0U);
}

// A thread is woken, finds that others were faster, and gets in line again.
TEST(SemaphoreThread, SleepsInLineUntilARelease) {
  // Stands still, and counts how often somebody looks.
  struct CountingClock final : Clock {
    double wall() const override { return 0; }
    double monotonic() const override { return ++looks, 0; }
    mutable std::atomic<int> looks{0};
  };
  std::string told;
  const auto guest = std::make_shared<SemaphoreTest::Guest>('a', told);
  auto quickest = std::chrono::steady_clock::duration::max();
  for (int round = 0; round < 5;) {
    const CountingClock clock;
    Semaphore semaphore(1, clock);
    semaphore.join(guest);  // is told, and never comes
    semaphore.take_any();
    std::atomic<bool> ended = false;
    std::jthread waiting([&] {
      EXPECT_TRUE(semaphore.acquire(0.9));
      ended = true;
    });
    const auto until_in_line = [&] {
      while (semaphore.waiting() == 0 && !ended) std::this_thread::yield();
    };
    const auto release_both = [&] { semaphore.release(), semaphore.release(); };
    until_in_line();
    release_both();
    if (!semaphore.take_any() || !semaphore.take_any()) continue;  // the thread was
    until_in_line();
    std::this_thread::sleep_for(kInterruptSlice / 5);
    EXPECT_LT(clock.looks, 40);
    const auto start = std::chrono::steady_clock::now();
    release_both();
    EXPECT_FALSE(semaphore.try_acquire());
    waiting.join();
    quickest = std::min(quickest, std::chrono::steady_clock::now() - start);
    semaphore.leave(*guest);
    ++round;
  }
  EXPECT_LT(quickest, kInterruptSlice / 2);  // no look by the clock was needed
}

}  // namespace
}  // namespace tarvomeldric
