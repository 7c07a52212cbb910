#include "providers/presets.h"

namespace tarvomeldric {
namespace {

// clang-format off
constexpr auto kGptModels = names("gpt-4o", "gpt-4o-mini", "gpt-3.5-turbo");
constexpr auto kClaudeModels = names("claude-sonnet-4-20250514", "claude-3-5-haiku-20241022");
constexpr auto kDeepSeekModels = names("deepseek-chat", "deepseek-coder", "deepseek-reasoner");
constexpr auto kDeepSeekChain = names("deepseek-chat", "deepseek-coder");
constexpr auto kGeminiModels = names("gemini-2.0-flash", "gemini-1.5-pro", "gemini-1.5-flash");
constexpr auto kGeminiChain = names("gemini-1.5-pro", "gemini-2.0-flash", "gemini-1.5-flash");
constexpr auto kQwenModels = names("qwen-max", "qwen-plus", "qwen-turbo");
constexpr auto kNvidiaModels = names("meta/llama-3.1-8b-instruct", "meta/llama-3.1-70b-instruct");
constexpr auto kNvidiaChain = names("meta/llama-3.1-70b-instruct", "meta/llama-3.1-8b-instruct");

constexpr auto kGptNames = names("gpt*");
constexpr auto kClaudeNames = names("*claude*");
constexpr auto kDeepSeekNames = names("*deepseek*");
constexpr auto kGeminiNames = names("*gemini*");
constexpr auto kQwenNames = names("*qwen*");
constexpr auto kNvidiaNames = names("meta/*", "nvidia/*");
// clang-format on

constexpr Preset kUnknown;

}  // namespace

const std::array<Preset, 8> kPresets{{
    {.name = "openai",
     .base_url = "https://api.openai.com/v1",
     .key_variable = "OPENAI_API_KEY",
     .models = kGptModels,
     .default_model = "gpt-4o-mini",
     .downgrades = kGptModels,
     .family = kGptNames},
    {.name = "anthropic",
     .base_url = "https://api.anthropic.com/v1",
     .key_variable = "ANTHROPIC_API_KEY",
     .models = kClaudeModels,
     .default_model = "claude-3-5-haiku-20241022",
     .downgrades = kClaudeModels,
     .family = kClaudeNames},
    {.name = "deepseek",
     .base_url = "https://api.deepseek.com/v1",
     .key_variable = "DEEPSEEK_API_KEY",
     .models = kDeepSeekModels,
     .default_model = "deepseek-chat",
     .downgrades = kDeepSeekChain,
     .family = kDeepSeekNames},
    {.name = "google",
     .base_url = "https://generativelanguage.googleapis.com/v1beta",
     .key_variable = "GOOGLE_API_KEY",
     .models = kGeminiModels,
     .default_model = "gemini-2.0-flash",
     .downgrades = kGeminiChain,
     .family = kGeminiNames},
    {.name = "dashscope",
     .base_url = "https://dashscope.aliyuncs.com/compatible-mode/v1",
     .key_variable = "DASHSCOPE_API_KEY",
     .models = kQwenModels,
     .default_model = "qwen-turbo",
     .downgrades = kQwenModels,
     .family = kQwenNames},
    {.name = "nvidia",
     .base_url = "https://integrate.api.nvidia.com/v1",
     .key_variable = "NVIDIA_API_KEY",
     .models = kNvidiaModels,
     .default_model = "meta/llama-3.1-8b-instruct",
     .downgrades = kNvidiaChain,
     .family = kNvidiaNames},
    {.name = "groq", .base_url = "https://api.groq.com/openai/v1", .key_variable = "GROQ_API_KEY"},
    {.name = "azure",
     .key_variable = "AZURE_OPENAI_API_KEY",
     .models = kGptModels,
     .default_model = "gpt-4o-mini",
     .downgrades = kGptModels,
     // The reserved ending keeps a stranger from registering this address and collecting keys.
     .placeholder_url = "https://your-resource.openai.azure.invalid/openai/deployments"},
}};

const Preset& preset(std::string_view provider) {
  for (const Preset& row : kPresets) {
    if (provider == row.name) return row;
  }
  return kUnknown;
}

}  // namespace tarvomeldric
