#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace tarvomeldric {

// What kind of failure a provider request met.
enum class FaultCategory : std::uint8_t {
  kRateLimit,
  kAuthError,
  kModelNotFound,
  kServerError,
  kTimeout,
  kConnectionError,
  kQuotaExceeded,
  kValidationError,
  kUnknown,
};

// Member name and text value, in the order of the enumeration.
inline constexpr std::array<std::pair<const char*, const char*>, 9> kFaultCategories{{
    {"RATE_LIMIT", "rate_limit"},
    {"AUTH_ERROR", "auth_error"},
    {"MODEL_NOT_FOUND", "model_not_found"},
    {"SERVER_ERROR", "server_error"},
    {"TIMEOUT", "timeout"},
    {"CONNECTION_ERROR", "connection_error"},
    {"QUOTA_EXCEEDED", "quota_exceeded"},
    {"VALIDATION_ERROR", "validation_error"},
    {"UNKNOWN", "unknown"},
}};

constexpr std::string_view value_of(FaultCategory category) {
  return kFaultCategories[static_cast<std::size_t>(category)].second;
}

// A caller may label a fault with a category or with a text of its own.
using CategoryOrText = std::variant<FaultCategory, std::string>;

inline std::string_view value_of(const CategoryOrText& category) {
  if (const auto* known = std::get_if<FaultCategory>(&category)) return value_of(*known);
  return std::get<std::string>(category);
}

// What to do about a category: transient faults are retried on the same provider, for the others
// that would be pointless. The two are always opposite.
struct Decision {
  bool should_retry;
  bool skip_to_failover;
};

constexpr Decision decision_of(FaultCategory category) {
  const bool transient =
      category == FaultCategory::kRateLimit || category == FaultCategory::kServerError ||
      category == FaultCategory::kTimeout || category == FaultCategory::kConnectionError;
  return {transient, !transient};
}

// HTTP status to category; a status that is not listed says nothing.
inline constexpr std::array<std::pair<int, FaultCategory>, 12> kStatusMap{{
    {400, FaultCategory::kValidationError},
    {401, FaultCategory::kAuthError},
    {402, FaultCategory::kQuotaExceeded},
    {403, FaultCategory::kAuthError},
    {404, FaultCategory::kModelNotFound},
    {408, FaultCategory::kTimeout},
    {429, FaultCategory::kRateLimit},
    {500, FaultCategory::kServerError},
    {502, FaultCategory::kServerError},
    {503, FaultCategory::kServerError},
    {504, FaultCategory::kTimeout},
    {529, FaultCategory::kServerError},
}};

constexpr std::optional<FaultCategory> category_of_status(long status) {
  for (const auto& [listed, category] : kStatusMap) {
    if (listed == status) return category;
  }
  return std::nullopt;
}

}  // namespace tarvomeldric
