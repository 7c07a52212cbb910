#include "support/random.h"

#include <sys/random.h>

#include <array>
#include <cstddef>
#include <random>

#include "support/fork.h"

namespace tarvomeldric {
namespace {

// Fetched from the system for many draws at a time; each thread has its own.
struct Supply {
  std::array<std::uint32_t, 64> bits;
  std::size_t left = 0;

  std::uint32_t next() {
    if (left == 0) fetch();
    return bits[--left];
  }
  void fetch();
};

thread_local Supply supply;

// In the child of a fork what is left are its parent's next draws. Its only thread is the one that
// drops them.
struct Dropping {
  void renew_after_fork() { supply.left = 0; }
  const ForkMember member{*this};
};

void Supply::fetch() {
  static auto& dropping = *new Dropping;
  static_cast<void>(dropping);
  if (getrandom(bits.data(), sizeof bits, 0) != sizeof bits) {
    std::random_device device;
    for (std::uint32_t& each : bits) each = device();
  }
  left = bits.size();
}

class SystemRandom final : public Random {
 public:
  double uniform() const override { return random_bits() * 0x1p-32; }
};

}  // namespace

const Random& system_random() {
  static const SystemRandom random;
  return random;
}

std::uint32_t random_bits() { return supply.next(); }

}  // namespace tarvomeldric
