#pragma once

#include "engine/policy.h"
#include "host/calls/engine.h"
#include "host/interpreter/collected.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

// An engine seen through a policy: everything is the engine's, but for how its calls are made.
struct EngineView {
  Instance<Engine> engine;
  Instance<CallPolicy> policy;

  int traverse(visitproc visit, void* arg);
  void clear();
};

constexpr auto python_name(Named<EngineView>) { return const_name("EngineView"); }

using ViewObjects = Held<&EngineView::engine, &EngineView::policy>;
inline int EngineView::traverse(visitproc visit, void* arg) {
  return ViewObjects::traverse(*this, visit, arg);
}
inline void EngineView::clear() { ViewObjects::clear(*this); }

}  // namespace tarvomeldric::host
