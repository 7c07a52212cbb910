#pragma once

#include <chrono>

namespace tarvomeldric {

// What the interpreter wants done around a wait. The core calls these and knows nothing else of
// it; without hooks (in the C++ tests) a region is free of cost and effect.
struct BlockingHooks {
  // Gives up this thread's interpreter lock; returns a token, or null when it holds none.
  void* (*release)() = nullptr;
  // Takes back what `release` gave up.
  void (*reacquire)(void* token) = nullptr;
  // Throws when Python asked this thread to stop (Ctrl-C). Called with the interpreter lock held.
  void (*check_interrupt)() = nullptr;
};

void install_blocking_hooks(const BlockingHooks& hooks);

// The scope in which a thread waits for another one, without the interpreter lock. No lock of the
// core may be held when a region begins, is interrupted or ends, except the one that the region's
// owner is about to give up. Of the thread that makes it.
class BlockingRegion {
 public:
  BlockingRegion();
  ~BlockingRegion();
  BlockingRegion(const BlockingRegion&) = delete;
  BlockingRegion& operator=(const BlockingRegion&) = delete;

  // Leaves the region for a moment to see whether Python wants this thread to stop; throws its
  // error then. Waits call it every `kInterruptSlice`.
  void check_interrupt();

 private:
  void* token_;
};

inline constexpr std::chrono::milliseconds kInterruptSlice{50};

}  // namespace tarvomeldric
