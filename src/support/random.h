#pragma once

#include <cstdint>

namespace tarvomeldric {

// The source of jitter. Tests hand in one that says what they want. Any thread.
class Random {
 public:
  virtual ~Random() = default;
  // Uniform from 0 to just below 1.
  virtual double uniform() const = 0;
};

// The child of a fork draws numbers of its own.
const Random& system_random();

// 32 bits of the system's randomness.
std::uint32_t random_bits();

}  // namespace tarvomeldric
