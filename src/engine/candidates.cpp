#include "engine/candidates.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "engine/selection.h"
#include "providers/models.h"

namespace tarvomeldric {
namespace {

// Those whose names are listed, in the list's order.
std::vector<NamedProvider> in_order(const auto& list, auto name_of,
                                    std::vector<NamedProvider> available) {
  std::vector<NamedProvider> listed;
  for (const auto& entry : list) {
    const std::string& name = std::invoke(name_of, entry);
    const auto named = std::ranges::find(available, name, &NamedProvider::name);
    if (named == available.end()) continue;
    listed.push_back(std::move(*named));
    available.erase(named);  // a name that is listed twice counts once
  }
  return listed;
}

}  // namespace

std::vector<NamedProvider> Candidates::available(const Registry& registry) const {
  std::vector<NamedProvider> available = available_providers(registry);
  if (exact()) std::erase_if(available, [&](const auto& entry) { return !serves(entry); });
  if (policy_.providers)
    available = in_order(*policy_.providers, std::identity(), std::move(available));
  if (route_) available = in_order(*route_, &Route::Entry::first, std::move(available));
  return available;
}

// A provider that lists no models may serve any.
bool Candidates::serves(const NamedProvider& candidate) const {
  const std::vector<std::string> models = candidate.provider->models();
  return models.empty() || std::ranges::find(models, model_) != models.end();
}

const NamedProvider& Candidates::pick(const std::vector<NamedProvider>& among) const {
  return ordered() ? among.front() : pick_provider(model_, among);
}

const NamedProvider& Candidates::pick_next(const std::vector<NamedProvider>& among) const {
  return ordered() ? among.front() : pick_fallback(among);
}

Target Candidates::target(const NamedProvider& at) const {
  return {at.name, at.provider, model_at(at.name)};
}

std::string Candidates::model_at(const std::string& provider) const {
  if (route_) return *route_->find(provider);
  return exact() ? model_ : resolve_model(provider, model_);
}

}  // namespace tarvomeldric
