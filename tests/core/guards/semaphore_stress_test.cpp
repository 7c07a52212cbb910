#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>

#include "guards/at_once.h"
#include "guards/semaphore.h"
#include "manual_clock.h"
#include "support/blocking.h"

namespace tarvomeldric {
namespace {

using std::chrono::microseconds;
using Random = std::minstd_rand;

void pause(unsigned most_us, Random& random) {
  std::this_thread::sleep_for(microseconds(random() % (most_us + 1)));
}

// One in line who is no thread, but is told and looks later, as a coroutine on its loop.
struct Turn final : Semaphore::Waiter {
  explicit Turn(bool can_be_told) : reachable(can_be_told) {}
  bool wake() override { return told = true, reachable; }
  std::atomic<bool> told{false};
  const bool reachable;
};

// Who is in line when the permits come, one letter each:
//   t  a thread whose patience ends just about then      T  a thread that waits as long as it takes
//   g  a guest who looks and leaves just about then      l  one who leaves and does not look
//   d  one who cannot be told, and leaves
// The end state is the letters of those who got a permit, and the number of permits left.
struct Race {
  std::string in_line;
  int releases;
  std::set<std::string> allowed;
};

constexpr double kPatience = 0.0004, kAsLongAsItTakes = 30.0;  // seconds
constexpr unsigned kAboutThen = 800;                           // microseconds

bool act(char who, Semaphore& semaphore, Turn& turn, Random random) {
  if (who == 't') return semaphore.acquire(kPatience);
  if (who == 'T') return semaphore.acquire(kAsLongAsItTakes);
  pause(kAboutThen, random);
  const bool taken = who == 'g' && semaphore.look(turn);
  semaphore.leave(turn);
  return taken;
}

std::string end_of(const Race& race, Random& random) {
  Semaphore semaphore(0);
  std::vector<std::shared_ptr<Turn>> turns;
  std::vector<char> granted(race.in_line.size());
  std::vector<std::function<void()>> acts;
  for (std::size_t i = 0; i < race.in_line.size(); ++i) {
    const char who = race.in_line[i];
    turns.push_back(std::make_shared<Turn>(who != 'd'));
    if (std::islower(who) && who != 't') semaphore.join(turns[i]);
    acts.emplace_back([&, i, who, seed = random()] {
      granted[i] = act(who, semaphore, *turns[i], Random(seed));
    });
  }
  for (int i = 0; i < race.releases; ++i) {
    acts.emplace_back([&semaphore, seed = random()] {
      Random mine(seed);
      pause(kAboutThen, mine);
      semaphore.release();
    });
  }
  at_once(acts);
  std::string end;
  for (std::size_t i = 0; i < granted.size(); ++i) {
    if (granted[i]) end += race.in_line[i];
  }
  int left = 0;
  while (semaphore.try_acquire()) ++left;  // nobody has a claim any more
  return end + std::to_string(left) + (semaphore.waiting() > 0 ? " and waiters" : "");
}

TEST(SemaphoreRaces, EndInOneOfTheAllowedStates) {
  const Race races[] = {{"t", 1, {"t0", "1"}},
                        {"g", 1, {"g0", "1"}},
                        {"tg", 1, {"t0", "g0", "1"}},
                        {"ttt", 2, {"tt0", "t1", "2"}},
                        {"lT", 1, {"T0"}},
                        {"dlT", 1, {"T0"}},
                        {"gT", 2, {"gT0", "T1"}},
                        {"tgT", 3, {"tgT0", "tT1", "gT1", "T2"}},
                        {"lgTT", 3, {"gTT0", "TT1"}}};
  Random random(1);
  for (const Race& race : races) {
    for (int round = 0; round < 25; ++round) {
      const std::string end = end_of(race, random);
      ASSERT_TRUE(race.allowed.contains(end)) << race.in_line << " ended as " << end;
    }
  }
}

// Stands still, and counts how often somebody looks.
struct CountingClock final : Clock {
  double wall() const override { return 0; }
  double monotonic() const override { return ++looks, 0; }
  mutable std::atomic<int> looks{0};
};

TEST(SemaphoreThread, IsWokenByARelease) {
  const ManualClock clock;  // stands still: who is on the way keeps the claim
  Semaphore semaphore(0, clock);
  auto quickest = std::chrono::steady_clock::duration::max();
  for (int round = 0; round < 5; ++round) {
    const auto start = std::chrono::steady_clock::now();
    std::jthread waiting([&] { EXPECT_TRUE(semaphore.acquire(0.9)); });
    while (semaphore.waiting() == 0) std::this_thread::yield();
    semaphore.release();
    EXPECT_FALSE(semaphore.try_acquire());
    waiting.join();
    quickest = std::min(quickest, std::chrono::steady_clock::now() - start);
  }
  EXPECT_LT(quickest, kInterruptSlice);  // no look by the clock was needed
}

TEST(SemaphoreThread, GetsInLineAgainAndSleepsWhenOthersWereFaster) {
  for (bool were_faster = false; !were_faster;) {
    const CountingClock clock;
    Semaphore semaphore(0, clock);
    const auto guest = std::make_shared<Turn>(true);  // is on the way and never comes
    semaphore.join(guest);
    std::atomic<bool> ended = false;
    std::jthread waiting([&] {
      semaphore.acquire(0.4);
      ended = true;
    });
    while (semaphore.waiting() < 2) std::this_thread::yield();
    for (int i = 0; i < 2; ++i) semaphore.release();
    were_faster = semaphore.take_any() && semaphore.take_any();
    if (!were_faster) continue;
    while (semaphore.waiting() == 0 && !ended) std::this_thread::yield();
    EXPECT_FALSE(ended);
    waiting.join();
    EXPECT_LT(clock.looks, 40);  // eight by the clock, and a few around the wake
  }
}

// Threads and an event loop share three permits.
struct Crowd {
  void enter() { EXPECT_LE(++inside, 3); }
  void go() { --inside, semaphore.release(); }

  // Holds a permit for about as long as the others' patience.
  void visit(Random random) {
    for (int round = 0; round < 150; ++round) {
      if (!semaphore.acquire(0.0001 * static_cast<double>(random() % 8))) continue;
      enter();
      pause(400, random);
      go();
    }
  }

  // A guest looks when told, and now and then by the clock; some give up. Those who are in line
  // when the loop stops are gone without a word.
  void loop(Random random) {
    struct Guest {
      std::shared_ptr<Turn> turn;
      bool inside = false;
    };
    std::vector<Guest> guests(5);
    for (int tick = 0; tick < 1500; ++tick) {
      Guest& guest = guests[random() % guests.size()];
      if (guest.inside) {
        guest = {};
        go();
      } else if (!guest.turn) {
        guest.turn = std::make_shared<Turn>(random() % 8 != 0);
        semaphore.join(guest.turn);
      } else if (random() % 16 == 0) {
        semaphore.leave(*std::exchange(guest.turn, nullptr));
      } else if (guest.turn->told.exchange(false) || random() % 4 == 0) {
        guest.inside = semaphore.look(*guest.turn);
        guest.inside ? enter() : semaphore.join(guest.turn);
      }
      if (tick % 8 == 0) pause(100, random);
    }
    for (const Guest& guest : guests) {
      if (guest.inside) go();
    }
  }

  Semaphore semaphore{3};
  std::atomic<int> inside{0};
};

TEST(SemaphoreCrowd, LosesNoPermit) {
  Crowd crowd;
  std::vector<std::function<void()>> acts;
  for (unsigned i = 1; i <= 5; ++i) acts.emplace_back([&crowd, i] { crowd.visit(Random(i)); });
  for (unsigned i = 1; i <= 2; ++i) acts.emplace_back([&crowd, i] { crowd.loop(Random(i)); });
  at_once(acts);
  EXPECT_TRUE(crowd.inside == 0 && crowd.semaphore.permits() == 3);
  // Somebody passes by when the claims of those who were told and are gone have run out.
  Turn passing(true);
  for (int i = 0; i < 100 && crowd.semaphore.waiting() > 0; ++i) {
    std::this_thread::sleep_for(microseconds(5000));
    crowd.semaphore.leave(passing);
  }
  EXPECT_EQ(crowd.semaphore.waiting(), 0U);
}

}  // namespace
}  // namespace tarvomeldric
