#pragma once

#include <functional>
#include <latch>
#include <thread>
#include <vector>

namespace tarvomeldric {

// Lets the acts begin at the same moment, each on a thread of its own, and waits for their ends.
inline void at_once(const std::vector<std::function<void()>>& acts) {
  std::latch start(static_cast<std::ptrdiff_t>(acts.size()));
  std::vector<std::jthread> threads;
  for (const auto& act : acts) {
    threads.emplace_back([&start, &act] { start.arrive_and_wait(), act(); });
  }
}

}  // namespace tarvomeldric
