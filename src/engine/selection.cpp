#include "engine/selection.h"

#include <algorithm>
#include <span>

#include "providers/presets.h"

namespace tarvomeldric {

const NamedProvider& pick_provider(std::string_view model,
                                   const std::vector<NamedProvider>& providers) {
  for (const std::string_view name : kModelOrder) {
    if (model.empty()) break;
    const Names models = preset(name).models;
    if (std::ranges::find(models, model) == models.end()) continue;
    const auto serving = std::ranges::find(providers, name, &NamedProvider::name);
    if (serving != providers.end()) return *serving;
  }
  return pick_fallback(providers);
}

const NamedProvider& pick_fallback(const std::vector<NamedProvider>& providers) {
  const NamedProvider* healthiest = &providers.front();
  double best = healthiest->provider->health_score();
  for (const NamedProvider& candidate : std::span(providers).subspan(1)) {
    const double score = candidate.provider->health_score();
    if (score <= best) continue;
    healthiest = &candidate;
    best = score;
  }
  return *healthiest;
}

}  // namespace tarvomeldric
