#pragma once

#include <array>
#include <span>
#include <string_view>

namespace tarvomeldric {

using Names = std::span<const char* const>;

// What is known about a provider without being told. A provider that nothing is known about has a
// preset of empty texts and lists.
struct Preset {
  const char* name = "";
  const char* base_url = "";      // empty where every customer has an address of their own
  const char* key_variable = "";  // of the environment
  Names models = {};              // those it serves, in order of preference
  const char* default_model = "";
  Names downgrades = {};  // each model's cheaper one is the next
  Names family = {};      // model names that speak of it: "gpt*" begin so, "*qwen*" hold it
  const char* placeholder_url = "";  // stands in for a base URL that is not known
};

// A row a provider, in the order in which providers are registered and listed.
extern const std::array<Preset, 8> kPresets;

// The orders in which rows are asked, where it is another one: who serves a model (and who is tried
// by the quick start), whose downgrades are listed, which family a model's name speaks of first.
inline constexpr std::array kModelOrder{"nvidia",    "deepseek", "dashscope", "openai",
                                        "anthropic", "azure",    "google"};
inline constexpr std::array kDowngradeOrder{"openai",    "anthropic", "nvidia", "deepseek",
                                            "dashscope", "azure",     "google"};
inline constexpr std::array kFamilyOrder{"nvidia",    "deepseek",  "openai",
                                         "anthropic", "dashscope", "google"};

const Preset& preset(std::string_view provider);

}  // namespace tarvomeldric
