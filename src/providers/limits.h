#pragma once

namespace tarvomeldric {

inline constexpr int kMaxRetries = 5;                        // of L1
inline constexpr long kMaxPayloadBytes = 10L * 1024 * 1024;  // stated, nowhere enforced
inline constexpr double kProviderTimeoutSeconds = 8.0;

}  // namespace tarvomeldric
