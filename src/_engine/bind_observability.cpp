#include "_engine/bindings.h"
#include "host/argument.h"
#include "host/read_outs.h"
#include "host/record.h"
#include "host/records.h"
#include "observability/metrics_collector.h"

namespace tarvomeldric::host {

void bind_observability(nb::module_& module) {
  nb::class_<MetricsCollector> cls(module, "MetricsCollector",
                                   "Named counters, gauges and histograms of one engine.");
  cls.def(nb::init<>(), "Starts without any metric.")
      .def(
          "inc",
          [](MetricsCollector& self, Arg<std::string, "name"> name,
             Arg<std::int64_t, "value"> value) { self.inc(name.get(), value.get()); },
          arg("name"), arg("value") = 1,
          nb::sig("def inc(self, name: str, value: int = 1) -> None"), "Adds `value` to a counter.")
      .def(
          "set_gauge",
          [](MetricsCollector& self, Arg<std::string, "name"> name, Arg<double, "value"> value) {
            self.set_gauge(name.get(), value.get());
          },
          arg("name"), arg("value"),
          nb::sig("def set_gauge(self, name: str, value: float) -> None"), "Sets a gauge.")
      .def(
          "observe",
          [](MetricsCollector& self, Arg<std::string, "name"> name, Arg<double, "value"> value) {
            self.observe(name.get(), value.get());
          },
          arg("name"), arg("value"), nb::sig("def observe(self, name: str, value: float) -> None"),
          "Adds a sample to a histogram, which keeps the newest ones.")
      .def(
          "get_counter",
          [](const MetricsCollector& self, Arg<std::string, "name"> name) {
            return self.counter(name.get());
          },
          arg("name"), nb::sig("def get_counter(self, name: str) -> int"),
          "A counter's value, 0 when it was never incremented.")
      .def(
          "get_all", [](const MetricsCollector& self) { return all_of(self); },
          nb::sig("def get_all(self) -> dict[str, typing.Any]"),
          "A snapshot: counters, gauges, and histograms with count, p50, p95, p99 and avg.")
      .def(
          "prometheus_format",
          [](const MetricsCollector& self) { return from_utf8(self.prometheus_format()); },
          "The metrics in the classic Prometheus text form.")
      .def(
          "opentelemetry_span",
          [](const MetricsCollector& self, Arg<std::string, "name"> name, nb::handle attrs) {
            if (!attrs.is_none() && !PyMapping_Check(attrs.ptr())) {
              refuse_argument("attrs", "dict or None", attrs);
            }
            return span_of(self, name.get(), attrs);
          },
          arg("name"), arg("attrs") = nb::none(),
          nb::sig("def opentelemetry_span(self, name: str, "
                  "attrs: dict[str, typing.Any] | None = None) -> dict[str, typing.Any]"),
          "A span record that carries the counters as events.")
      .def(
          "health_endpoint", [](const MetricsCollector& self) { return health_of(self); },
          nb::sig("def health_endpoint(self) -> dict[str, typing.Any]"),
          "A health document: status, version, uptime_checks, error_count, metrics_summary.");
  bind_field(cls, field<&MetricsFields::counters>("_counters", "counters by name"));
  bind_field(cls, field<&MetricsFields::gauges>("_gauges", "gauges by name"));
  bind_field(cls,
             field<&MetricsFields::histograms>("_histograms", "samples by name, oldest first"));
  bind_field(cls, lock_field<MetricsCollector>());
}

}  // namespace tarvomeldric::host
