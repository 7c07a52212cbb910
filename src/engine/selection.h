#pragma once

#include <string_view>
#include <vector>

#include "providers/registry.h"

namespace tarvomeldric {

// The first choice of a call among a non-empty list: the first preset provider that serves the
// requested model and is in the list, else the healthiest.
const NamedProvider& pick_provider(std::string_view model,
                                   const std::vector<NamedProvider>& providers);

// The substitute when the first choice refuses: the healthiest; among equals the first in the list.
const NamedProvider& pick_fallback(const std::vector<NamedProvider>& providers);

}  // namespace tarvomeldric
