#include "providers/models.h"

#include <algorithm>

#include "providers/preset_tables.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr std::string_view kLastResortModel = "deepseek-chat";

}  // namespace

std::string resolve_model(std::string_view provider, std::string_view requested) {
  const auto served = preset_models(provider);
  if (!requested.empty() && std::ranges::find(served, requested) != served.end()) {
    return std::string(requested);
  }
  const std::string_view preset = default_model(provider);
  if (!preset.empty()) return std::string(preset);
  return std::string(requested.empty() ? kLastResortModel : requested);
}

std::optional<std::string> downgraded_model(std::string_view provider, std::string_view current) {
  const auto chain = downgrade_chain(provider);
  const auto at = std::ranges::find(chain, current);
  if (at == chain.end() || at + 1 == chain.end()) return std::nullopt;
  return std::string(*(at + 1));
}

std::optional<std::string> model_to_error_hint(std::string_view model) {
  if (model.empty()) return std::nullopt;
  const std::string name = text::lower(model);
  const auto family = [&]() -> std::string_view {
    if (name.starts_with("meta/") || name.starts_with("nvidia/")) return "nvidia";
    if (text::contains(name, "deepseek")) return "deepseek";
    if (name.starts_with("gpt")) return "openai";
    if (text::contains(name, "claude")) return "anthropic";
    if (text::contains(name, "qwen")) return "dashscope";
    if (text::contains(name, "gemini")) return "google";
    return "unknown";
  }();
  return "model_request:" + std::string(family);
}

}  // namespace tarvomeldric
