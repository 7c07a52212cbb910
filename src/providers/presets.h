#pragma once

#include <array>
#include <string_view>

#include "support/names.h"

namespace tarvomeldric {

// What is known about a provider without being told. A provider that nothing is known about has a
// preset of empty texts and lists.
struct Preset {
  std::string_view name = {};
  std::string_view base_url = {};      // empty where every customer has an address of their own
  std::string_view key_variable = {};  // of the environment
  Names models = {};                   // those it serves, in order of preference
  std::string_view default_model = {};
  Names downgrades = {};  // each model's cheaper one is the next
  Names family = {};      // model names that speak of it: "gpt*" begin so, "*qwen*" hold it
  std::string_view placeholder_url = {};  // stands in for a base URL that is not known

  std::string_view quick_start_url() const { return base_url.empty() ? placeholder_url : base_url; }
};

// A row a provider, in the order in which providers are registered and listed.
extern const std::array<Preset, 8> kPresets;

// The orders in which rows are asked, where it is another one: who serves a model (and who is tried
// by the quick start), whose downgrades are listed, which family a model's name speaks of first.
inline constexpr auto kModelOrder =
    names("nvidia", "deepseek", "dashscope", "openai", "anthropic", "azure", "google");
inline constexpr auto kDowngradeOrder =
    names("openai", "anthropic", "nvidia", "deepseek", "dashscope", "azure", "google");
inline constexpr auto kFamilyOrder =
    names("nvidia", "deepseek", "openai", "anthropic", "dashscope", "google");

const Preset& preset(std::string_view provider);

}  // namespace tarvomeldric
