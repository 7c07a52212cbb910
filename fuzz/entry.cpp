#include <cstddef>
#include <cstdint>
#include <string_view>

#include "checks.h"

// The build names the check. What it throws ends the process, and the input is kept.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarvomeldric::fuzz::CHECK({reinterpret_cast<const char*>(data), size});
  return 0;
}
