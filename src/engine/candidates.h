#pragma once

#include <string>
#include <vector>

#include "engine/policy.h"
#include "providers/registry.h"

namespace tarvomeldric {

// The provider and model of an attempt.
struct Target {
  std::string name;
  ProviderPtr provider;
  std::string model;
};

// Who may be asked in one call, in which order, and for which model. Model and policy outlive it.
class Candidates {
 public:
  Candidates(const std::string& model, const CallPolicy& policy) : model_(model), policy_(policy) {}

  // Those that may be called now: in the order of the policy's list, else as they are registered.
  std::vector<NamedProvider> available(const Registry& registry) const;
  // The first choice among a non-empty list of them.
  const NamedProvider& pick(const std::vector<NamedProvider>& among) const;
  // The substitute when the first choice refuses.
  const NamedProvider& pick_next(const std::vector<NamedProvider>& among) const;
  Target target(const NamedProvider& at) const;

  // Whether the policy gives their order; health and advice do otherwise.
  bool ordered() const { return policy_.providers.has_value(); }
  // Whether a cheaper model may answer.
  bool may_downgrade() const { return !policy_.exact_model; }

 private:
  bool exact() const { return policy_.exact_model && !model_.empty(); }
  bool serves(const NamedProvider& candidate) const;

  const std::string& model_;
  const CallPolicy& policy_;
};

}  // namespace tarvomeldric
