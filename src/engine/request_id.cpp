#include <sys/random.h>

#include <array>
#include <cstdint>
#include <random>

#include "engine/call.h"
#include "support/fork.h"

namespace tarvomeldric {
namespace {

constexpr std::size_t kDigits = 8;

// Random bits from the system, fetched for many ids at a time; each thread has its own.
struct RandomBits {
  std::array<std::uint32_t, 64> bits;
  std::size_t left = 0;

  std::uint32_t next() {
    if (left == 0) fetch();
    return bits[--left];
  }
  void fetch();
};

thread_local RandomBits random_bits;

// In the child of a fork what is left are its parent's next ids. Its only thread is the one that
// drops them.
struct Dropping {
  void renew_after_fork() { random_bits.left = 0; }
  const ForkMember member{*this};
};

void RandomBits::fetch() {
  static auto& dropping = *new Dropping;
  static_cast<void>(dropping);
  if (getrandom(bits.data(), sizeof bits, 0) != sizeof bits) {
    std::random_device device;
    for (std::uint32_t& each : bits) each = device();
  }
  left = bits.size();
}

}  // namespace

std::string fresh_request_id() {
  std::uint32_t bits = random_bits.next();
  std::string digits(kDigits, '0');
  for (char& digit : digits) {
    digit = "0123456789abcdef"[bits & 0xFU];
    bits >>= 4;
  }
  return digits;
}

}  // namespace tarvomeldric
