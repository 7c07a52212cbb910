#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/policy.h"
#include "providers/registry.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

// The provider and model of an attempt.
struct Target {
  std::string name;
  ProviderPtr provider;
  std::string model;
};

// Who serves a model, in order, and what each of them calls it.
using Route = OrderedMap<std::string>;

// Who may be asked in one call, in which order, and for which model. What it is made of outlives
// it. Does not change; of one call.
class Candidates {
 public:
  Candidates(const std::string& model, const CallPolicy& policy, const std::optional<Route>& route)
      : model_(model), policy_(policy), route_(route) {}

  // Those that may be called now: in the order of the route, else of the policy's list, else as
  // they are registered.
  std::vector<NamedProvider> available(const Registry& registry) const;
  // The first choice among a non-empty list of them.
  const NamedProvider& pick(const std::vector<NamedProvider>& among) const;
  // The substitute when the first choice refuses.
  const NamedProvider& pick_next(const std::vector<NamedProvider>& among) const;
  Target target(const NamedProvider& at) const;

  // Whether their order is given; health and advice decide otherwise.
  bool ordered() const { return policy_.providers || route_; }
  // Whether a cheaper model may answer.
  bool may_downgrade() const { return !policy_.exact_model && !route_; }

 private:
  bool exact() const { return policy_.exact_model && !route_ && !model_.empty(); }
  bool serves(const NamedProvider& candidate) const;
  std::string model_at(const std::string& provider) const;

  const std::string& model_;
  const CallPolicy& policy_;
  const std::optional<Route>& route_;
};

}  // namespace tarvomeldric
