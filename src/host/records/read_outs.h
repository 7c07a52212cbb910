#pragma once

#include <string_view>

#include "host/interpreter/python.h"
#include "observability/metrics_collector.h"
#include "support/figures.h"

namespace tarvomeldric::host {

// A read-out as a fresh dictionary.
nb::dict dict_of(const Figures& figures);

// A span record that carries the counters as events; `attrs` is None or a mapping.
nb::dict span_of(const MetricsCollector& metrics, std::string_view name, nb::handle attrs);

}  // namespace tarvomeldric::host
