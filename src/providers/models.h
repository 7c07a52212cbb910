#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvomeldric {

// The model to send: the requested one when the provider is known to serve it or is not a preset,
// else the provider's default, else a default of our own.
std::string resolve_model(std::string_view provider, std::string_view requested);

// One step down the provider's chain; nothing for a model outside it or at its end.
std::optional<std::string> downgraded_model(std::string_view provider, std::string_view current);

// The provider family that a model's name speaks of, as a pattern of the learner
// ("model_request:openai"); nothing for an empty name.
std::optional<std::string> model_to_error_hint(std::string_view model);

}  // namespace tarvomeldric
