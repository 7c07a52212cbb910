#pragma once

#include <array>
#include <span>
#include <string_view>

namespace tarvomeldric {

inline constexpr int kMaxRetries = 5;
inline constexpr long kMaxPayloadSize = 10L * 1024 * 1024;
inline constexpr double kProviderTimeout = 8.0;  // seconds

struct PresetUrl {
  const char* provider;
  const char* base_url;
};
struct ProviderKeyVariable {
  const char* provider;
  const char* variable;
};
struct ProviderModels {
  const char* provider;
  std::span<const char* const> models;
};
struct DefaultModel {
  const char* provider;
  const char* model;
};
struct QuickStartProvider {
  const char* variable;
  const char* provider;
  const char* base_url;
};

// The order of every table is the order in which it is walked and shown.
extern const std::array<PresetUrl, 8> kPresetUrls;
extern const std::array<ProviderKeyVariable, 8> kEnvKeyMap;
extern const std::array<ProviderModels, 7> kModelProviders;
extern const std::array<DefaultModel, 7> kDefaultModels;
extern const std::array<ProviderModels, 7> kDowngradeChains;
extern const std::array<QuickStartProvider, 7> kQuickStartProviders;

// Empty where a table has no row for the provider.
std::string_view preset_url(std::string_view provider);
std::string_view key_variable(std::string_view provider);
std::span<const char* const> preset_models(std::string_view provider);
std::string_view default_model(std::string_view provider);
std::span<const char* const> downgrade_chain(std::string_view provider);

}  // namespace tarvomeldric
