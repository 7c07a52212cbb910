#pragma once

#include <string>
#include <utility>
#include <vector>

#include "providers/provider_config.h"

namespace tarvomeldric {

// A provider and its name in the registry.
struct NamedProvider {
  std::string name;
  ProviderPtr provider;
};

// The providers of an engine by the names they were registered under, in order of registration. The
// engine's own stands on a Python dictionary, and is read with the interpreter lock held.
class Registry {
 public:
  virtual ~Registry() = default;
  virtual std::vector<NamedProvider> entries() const = 0;
};

// Those that may be called now, in registry order.
std::vector<NamedProvider> available_providers(const Registry& registry);

}  // namespace tarvomeldric
