#include "providers/preset_tables.h"

namespace tarvomeldric {
namespace {

constexpr const char* kOpenAiUrl = "https://api.openai.com/v1";
constexpr const char* kAnthropicUrl = "https://api.anthropic.com/v1";
constexpr const char* kDeepSeekUrl = "https://api.deepseek.com/v1";
constexpr const char* kGoogleUrl = "https://generativelanguage.googleapis.com/v1beta";
constexpr const char* kDashScopeUrl = "https://dashscope.aliyuncs.com/compatible-mode/v1";
constexpr const char* kNvidiaUrl = "https://integrate.api.nvidia.com/v1";
constexpr const char* kGroqUrl = "https://api.groq.com/openai/v1";
// Every customer has an endpoint of their own; the reserved ending keeps a stranger from
// registering this one and collecting keys.
constexpr const char* kAzureExampleUrl =
    "https://your-resource.openai.azure.invalid/openai/deployments";

// clang-format off
constexpr std::array kNvidiaModels{"meta/llama-3.1-8b-instruct", "meta/llama-3.1-70b-instruct"};
constexpr std::array kDeepSeekModels{"deepseek-chat", "deepseek-coder", "deepseek-reasoner"};
constexpr std::array kDashScopeModels{"qwen-max", "qwen-plus", "qwen-turbo"};
constexpr std::array kGptModels{"gpt-4o", "gpt-4o-mini", "gpt-3.5-turbo"};
constexpr std::array kAnthropicModels{"claude-sonnet-4-20250514", "claude-3-5-haiku-20241022"};
constexpr std::array kGoogleModels{"gemini-2.0-flash", "gemini-1.5-pro", "gemini-1.5-flash"};

// Each model's downgrade is the next one to its right.
constexpr std::array kNvidiaChain{"meta/llama-3.1-70b-instruct", "meta/llama-3.1-8b-instruct"};
constexpr std::array kDeepSeekChain{"deepseek-chat", "deepseek-coder"};
constexpr std::array kGoogleChain{"gemini-1.5-pro", "gemini-2.0-flash", "gemini-1.5-flash"};
// clang-format on

template <class Row, std::size_t N>
const Row* row_of(const std::array<Row, N>& table, std::string_view provider) {
  for (const Row& row : table) {
    if (provider == row.provider) return &row;
  }
  return nullptr;
}

}  // namespace

const std::array<PresetUrl, 8> kPresetUrls{{
    {"openai", kOpenAiUrl},
    {"anthropic", kAnthropicUrl},
    {"deepseek", kDeepSeekUrl},
    {"google", kGoogleUrl},
    {"dashscope", kDashScopeUrl},
    {"nvidia", kNvidiaUrl},
    {"groq", kGroqUrl},
    {"azure", ""},
}};

const std::array<ProviderKeyVariable, 8> kEnvKeyMap{{
    {"openai", "OPENAI_API_KEY"},
    {"anthropic", "ANTHROPIC_API_KEY"},
    {"deepseek", "DEEPSEEK_API_KEY"},
    {"google", "GOOGLE_API_KEY"},
    {"dashscope", "DASHSCOPE_API_KEY"},
    {"nvidia", "NVIDIA_API_KEY"},
    {"groq", "GROQ_API_KEY"},
    {"azure", "AZURE_OPENAI_API_KEY"},
}};

const std::array<ProviderModels, 7> kModelProviders{{
    {"nvidia", kNvidiaModels},
    {"deepseek", kDeepSeekModels},
    {"dashscope", kDashScopeModels},
    {"openai", kGptModels},
    {"anthropic", kAnthropicModels},
    {"azure", kGptModels},
    {"google", kGoogleModels},
}};

const std::array<DefaultModel, 7> kDefaultModels{{
    {"nvidia", "meta/llama-3.1-8b-instruct"},
    {"deepseek", "deepseek-chat"},
    {"dashscope", "qwen-turbo"},
    {"openai", "gpt-4o-mini"},
    {"anthropic", "claude-3-5-haiku-20241022"},
    {"azure", "gpt-4o-mini"},
    {"google", "gemini-2.0-flash"},
}};

const std::array<ProviderModels, 7> kDowngradeChains{{
    {"openai", kGptModels},
    {"anthropic", kAnthropicModels},
    {"nvidia", kNvidiaChain},
    {"deepseek", kDeepSeekChain},
    {"dashscope", kDashScopeModels},
    {"azure", kGptModels},
    {"google", kGoogleChain},
}};

const std::array<QuickStartProvider, 7> kQuickStartProviders{{
    {"NVIDIA_API_KEY", "nvidia", kNvidiaUrl},
    {"DEEPSEEK_API_KEY", "deepseek", kDeepSeekUrl},
    {"DASHSCOPE_API_KEY", "dashscope", kDashScopeUrl},
    {"OPENAI_API_KEY", "openai", kOpenAiUrl},
    {"ANTHROPIC_API_KEY", "anthropic", kAnthropicUrl},
    {"AZURE_OPENAI_API_KEY", "azure", kAzureExampleUrl},
    {"GOOGLE_API_KEY", "google", kGoogleUrl},
}};

std::string_view preset_url(std::string_view provider) {
  const auto* row = row_of(kPresetUrls, provider);
  return row ? row->base_url : "";
}

std::string_view key_variable(std::string_view provider) {
  const auto* row = row_of(kEnvKeyMap, provider);
  return row ? row->variable : "";
}

std::span<const char* const> preset_models(std::string_view provider) {
  const auto* row = row_of(kModelProviders, provider);
  return row ? row->models : std::span<const char* const>{};
}

std::string_view default_model(std::string_view provider) {
  const auto* row = row_of(kDefaultModels, provider);
  return row ? row->model : "";
}

std::span<const char* const> downgrade_chain(std::string_view provider) {
  const auto* row = row_of(kDowngradeChains, provider);
  return row ? row->models : std::span<const char* const>{};
}

}  // namespace tarvomeldric
