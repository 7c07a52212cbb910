#include "_engine/bindings.h"
#include "host/argument.h"
#include "host/read_outs.h"
#include "host/record.h"
#include "host/records.h"
#include "providers/provider_config.h"

namespace tarvomeldric::host {
namespace {

using F = ProviderFields;

ProviderFields default_fields() { return ProviderConfig().snapshot(); }

nb::class_<ProviderConfig> bind_fields(nb::module_& module) {
  return bind_record<ProviderConfig>(
      module, "One provider: where its API lives, the key, how it has been doing, and its guards.",
      {required<&F::name>("name", "what it is called in the registry, results and errors"),
       required<&F::base_url>("base_url",
                              "where its API is; request paths are appended as they are"),
       secret(required<&F::api_key>("api_key", "the key; never shown")),
       field<&F::models>("models", "its models, in order of preference; none by default"),
       field<&F::healthy>("healthy", "whether it may be called at all; a success sets it"),
       field<&F::success_count>("success_count", "attempts that were answered"),
       field<&F::fail_count>("fail_count", "attempts that failed"),
       field<&F::last_error>("last_error", "the text of the last failure; empty after a success"),
       field<&F::last_error_time>("last_error_time", "when that was, in wall-clock seconds"),
       field<&F::circuit_breaker>("circuit_breaker",
                                  "bars traffic while too much fails; a fresh one by default"),
       field<&F::category_circuit_breakers>("_category_circuit_breakers",
                                            "breakers by category of faults, made on first use"),
       field<&F::rate_limiter>("rate_limiter",
                               "limits the requests a second; a fresh one by default"),
       field<&F::bulkhead>("bulkhead", "limits the requests in flight; a fresh one by default"),
       field<&F::recent_latencies>("_recent_latencies",
                                   "milliseconds of the newest 100 successes, oldest first")},
      default_fields);
}

}  // namespace

void bind_providers(nb::module_& module) {
  bind_fields(module)
      .def("avg_latency", &ProviderConfig::avg_latency,
           "The mean of the recent latencies in milliseconds, 0.0 without any.")
      .def("health_score", &ProviderConfig::health_score,
           "0 to 100, higher is healthier; 50.0 before the first request.")
      .def("is_available", &ProviderConfig::is_available,
           "Whether the breaker lets traffic through and the provider is marked healthy.")
      .def("check_quota", &ProviderConfig::check_quota,
           "Takes one token of the rate limiter; returns whether it was there.")
      .def(
          "can_accept",
          [](ProviderConfig& self, Arg<double, "bulkhead_timeout"> timeout) {
            return self.can_accept(timeout.get());
          },
          arg("bulkhead_timeout") = 1.0,
          nb::sig("def can_accept(self, bulkhead_timeout: float = 1.0) -> bool"),
          "Takes a token and a slot; waits at most `bulkhead_timeout` seconds for the slot.\n\n"
          "Returns whether the request is admitted; a refusal holds nothing.")
      .def("release_slot", &ProviderConfig::release_slot, "Gives back the slot of `can_accept`.")
      .def(
          "record_success",
          [](ProviderConfig& self, Arg<double, "latency_ms"> latency_ms) {
            self.record_success(latency_ms.get());
          },
          arg("latency_ms"), nb::sig("def record_success(self, latency_ms: float) -> None"),
          "Counts a success and its latency in milliseconds.")
      .def(
          "record_failure",
          [](ProviderConfig& self, Arg<std::string, "error"> error,
             Arg<std::string, "fault_category"> category) {
            self.record_failure(error.get(), category.get());
          },
          arg("error"), arg("fault_category") = "",
          nb::sig("def record_failure(self, error: str, fault_category: str = '') -> None"),
          "Counts a failure; one that opens the breaker sets the cooldown of its category.")
      .def(
          "get_category_circuit_breaker",
          [](ProviderConfig& self, Arg<std::string, "category"> category) {
            return self.category_circuit_breaker(category.get());
          },
          arg("category"),
          nb::sig("def get_category_circuit_breaker(self, category: str) -> CircuitBreaker"),
          "The breaker for one category of faults, made on first use.")
      .def(
          "to_dict", [](ProviderConfig& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "The record for read-outs, without the key.");
}

}  // namespace tarvomeldric::host
