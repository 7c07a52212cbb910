#pragma once

namespace tarvomeldric {

inline constexpr const char kVersion[] = "4.0.1";

}  // namespace tarvomeldric
