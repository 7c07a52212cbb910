#include "engine/call.h"
#include "support/random.h"

namespace tarvomeldric {
namespace {

constexpr std::size_t kDigits = 8;

}  // namespace

std::string fresh_request_id() {
  std::uint32_t bits = random_bits();
  std::string digits(kDigits, '0');
  for (char& digit : digits) {
    digit = "0123456789abcdef"[bits & 0xFU];
    bits >>= 4;
  }
  return digits;
}

}  // namespace tarvomeldric
