#pragma once

#include "engine/recent_calls.h"
#include "providers/registry.h"
#include "support/figures.h"

namespace tarvomeldric {

// What the live page shows: each provider as it is at the moment, a call, a step of the history. To
// look at a provider changes nothing, not even a breaker that has cooled down. Any thread.
Figures live_figures(const Registry& registry);
Figures figures_of(const RecentCall& call);  // without its steps
Figures figures_of(const CallStep& step);
Figures figures_of(const HistoryStep& step);

}  // namespace tarvomeldric
