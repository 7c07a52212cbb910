#pragma once

#include <string_view>

#include "host/records/convert.h"
#include "observability/metrics_collector.h"
#include "support/figures.h"

namespace tarvomeldric::host {

// A read-out as a fresh dictionary.
nb::dict dict_of(const Figures& figures);
template <>
struct Convert<Figures> {
  static constexpr auto kName = const_name("dict[str, typing.Any]");
  static nb::object to(const Figures& figures) { return dict_of(figures); }
};

// A span record that carries the counters as events; `attrs` is None or a mapping.
Annotated<"dict[str, typing.Any]"> span_of(const MetricsCollector& metrics, std::string_view name,
                                           nb::handle attrs);

}  // namespace tarvomeldric::host
