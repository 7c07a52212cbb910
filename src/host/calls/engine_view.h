#pragma once

#include <tuple>

#include "engine/policy.h"
#include "host/calls/engine.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

// An engine seen through a policy: everything is the engine's, but for how its calls are made.
struct EngineView {
  Instance<Engine> engine;
  Instance<CallPolicy> policy;

  auto held() { return std::tie(engine, policy); }
};

constexpr auto python_name(Named<EngineView>) { return const_name("EngineView"); }

}  // namespace tarvomeldric::host
