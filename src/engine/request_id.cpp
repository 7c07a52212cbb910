#include <sys/random.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <random>

#include "engine/call.h"

namespace tarvomeldric {
namespace {

// From the system, not from a generator of our own: a forked child must not repeat its parent's
// ids.
std::uint32_t random_bits() {
  std::uint32_t bits = 0;
  if (getrandom(&bits, sizeof bits, 0) == sizeof bits) return bits;
  return std::random_device{}();
}

}  // namespace

std::string fresh_request_id() {
  std::array<char, 9> digits;
  std::snprintf(digits.data(), digits.size(), "%08x", random_bits());
  return digits.data();
}

}  // namespace tarvomeldric
