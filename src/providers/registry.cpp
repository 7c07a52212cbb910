#include "providers/registry.h"

namespace tarvomeldric {

std::vector<NamedProvider> available_providers(const Registry& registry) {
  auto entries = registry.entries();
  std::erase_if(entries,
                [](const NamedProvider& entry) { return !entry.provider->is_available(); });
  return entries;
}

}  // namespace tarvomeldric
