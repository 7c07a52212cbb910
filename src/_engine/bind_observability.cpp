#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/read_outs.h"
#include "host/records/read_outs.h"
#include "host/records/records.h"
#include "observability/metrics_collector.h"

namespace tarvomeldric::host {

void bind_observability(nb::module_& module) {
  nb::class_<MetricsCollector> cls(module, "MetricsCollector",
                                   "Named counters, gauges and histograms of one engine.");
  cls.def(nb::init<>(), "Starts without any metric.");
  def(cls, "inc", &MetricsCollector::inc, "Adds `value` to a counter.", arg("name"),
      arg("value") = 1);
  def(cls, "set_gauge", &MetricsCollector::set_gauge, "Sets a gauge.", arg("name"), arg("value"));
  def(cls, "observe", &MetricsCollector::observe,
      "Adds a sample to a histogram, which keeps the newest ones.", arg("name"), arg("value"));
  def(cls, "get_counter", &MetricsCollector::counter,
      "A counter's value, 0 when it was never incremented.", arg("name"));
  def(
      cls, "get_all", [](const MetricsCollector& self) { return figures_of(self); },
      "A snapshot: counters, gauges, and histograms with count, p50, p95, p99 and avg.");
  def(cls, "prometheus_format", &MetricsCollector::prometheus_format,
      "The metrics in the classic Prometheus text form.");
  def(
      cls, "opentelemetry_span",
      [](const MetricsCollector& self, std::string_view name,
         const Annotated<"dict[str, typing.Any] | None">& attrs) {
        if (!attrs.is_none() && !PyMapping_Check(attrs.ptr())) {
          refuse_argument("attrs", "dict or None", attrs);
        }
        return span_of(self, name, attrs);
      },
      "A span record that carries the counters as events.", arg("name"), arg("attrs") = nb::none());
  def(
      cls, "health_endpoint", [](const MetricsCollector& self) { return health_document(self); },
      "A health document: status, version, uptime_checks, error_count, metrics_summary.");
  bind_field(cls, field<&MetricsFields::counters>("_counters", "counters by name"));
  bind_field(cls, field<&MetricsFields::gauges>("_gauges", "gauges by name"));
  bind_field(cls,
             field<&MetricsFields::histograms>("_histograms", "samples by name, oldest first"));
  bind_field(cls, lock_field<MetricsCollector>());
}

}  // namespace tarvomeldric::host
