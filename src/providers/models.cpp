#include "providers/models.h"

#include <algorithm>

#include "providers/presets.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr std::string_view kLastResortModel = "deepseek-chat";

// "gpt*" is how a name begins, "*qwen*" what it holds.
bool fits(std::string_view name, std::string_view shape) {
  shape.remove_suffix(1);
  if (!shape.starts_with('*')) return name.starts_with(shape);
  return text::contains(name, shape.substr(1));
}

std::string family_of(std::string_view model) {
  const std::string name = text::lower(model);
  for (const std::string_view provider : kFamilyOrder) {
    for (const std::string_view shape : preset(provider).family) {
      if (fits(name, shape)) return std::string(provider);
    }
  }
  return "unknown";
}

}  // namespace

std::string resolve_model(std::string_view provider, std::string_view requested) {
  const Preset& known = preset(provider);
  if (!requested.empty() && std::ranges::find(known.models, requested) != known.models.end()) {
    return std::string(requested);
  }
  if (!known.default_model.empty()) return std::string(known.default_model);
  return std::string(requested.empty() ? kLastResortModel : requested);
}

std::optional<std::string> downgraded_model(std::string_view provider, std::string_view current) {
  const Names chain = preset(provider).downgrades;
  const auto at = std::ranges::find(chain, current);
  if (at == chain.end() || at + 1 == chain.end()) return std::nullopt;
  return std::string(*(at + 1));
}

std::optional<std::string> model_to_error_hint(std::string_view model) {
  if (model.empty()) return std::nullopt;
  return "model_request:" + family_of(model);
}

}  // namespace tarvomeldric
