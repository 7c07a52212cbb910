#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace tarvomeldric {

// The recovery step that suits a fault, as a suggestion to the caller. The cascade itself decides
// by the flags of the diagnosis.
struct RecoverySuggestion {
  const char* category;
  const char* action;
  const char* level;              // member name of Python's RecoveryLevel
  std::optional<double> delay_s;  // seconds
};

// clang-format off
inline constexpr std::array<RecoverySuggestion, 8> kRecoveryTable{{
    {"rate_limit",       "wait_and_retry",     "L1_RETRY",     1.0},
    {"quota",            "check_credentials",  "L1_RETRY",     1.0},
    {"auth_error",       "check_credentials",  "L1_RETRY",     std::nullopt},
    {"model_not_found",  "downgrade",          "L2_DOWNGRADE", std::nullopt},
    {"timeout",          "retry_with_timeout", "L1_RETRY",     1.0},
    {"connection_error", "failover",           "L3_FAILOVER",  std::nullopt},
    {"validation_error", "fix_request",        "L2_DOWNGRADE", std::nullopt},
    {"context_exceeded", "downgrade_model",    "L2_DOWNGRADE", std::nullopt},
}};
inline constexpr RecoverySuggestion kOtherwiseRetry{"", "retry", "L1_RETRY", 1.0};
// clang-format on

constexpr const RecoverySuggestion& recovery_for(std::string_view category) {
  for (const RecoverySuggestion& row : kRecoveryTable) {
    if (category == row.category) return row;
  }
  return kOtherwiseRetry;
}

}  // namespace tarvomeldric
