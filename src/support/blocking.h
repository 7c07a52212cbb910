#pragma once

#include <chrono>

namespace tarvomeldric {

// What the host wants done around a wait. The core calls these and knows nothing of the
// interpreter; without hooks (in the C++ tests) a region is free of cost and effect.
struct BlockingHooks {
  // Gives up what this thread holds of the host; returns a token, or null when it holds nothing.
  void* (*release)() = nullptr;
  // Takes back what `release` gave up.
  void (*reacquire)(void* token) = nullptr;
  // Throws when the host asked this thread to stop (Ctrl-C). Called with the host's lock held.
  void (*check_interrupt)() = nullptr;
};

void install_blocking_hooks(const BlockingHooks& hooks);

// The scope in which a thread waits for another one. No lock of the core may be held when a region
// begins, is interrupted or ends, except the one that the region's owner is about to give up.
class BlockingRegion {
 public:
  BlockingRegion();
  ~BlockingRegion();
  BlockingRegion(const BlockingRegion&) = delete;
  BlockingRegion& operator=(const BlockingRegion&) = delete;

  // Leaves the region for a moment to see whether the host wants this thread to stop; throws the
  // host's error then. Waits call it every `kInterruptSlice`.
  void check_interrupt();

 private:
  void* token_;
};

inline constexpr std::chrono::milliseconds kInterruptSlice{50};

}  // namespace tarvomeldric
