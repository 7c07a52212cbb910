#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/read_outs.h"
#include "host/records/read_outs.h"
#include "host/records/records.h"
#include "providers/request_shape.h"

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
       field<&F::last_error_time_s>("last_error_time", "when that was, in wall-clock seconds"),
       field<&F::circuit_breaker>("circuit_breaker",
                                  "bars traffic while too much fails; a fresh one by default"),
       field<&F::category_circuit_breakers>("_category_circuit_breakers",
                                            "breakers by category of faults, made on first use"),
       field<&F::rate_limiter>("rate_limiter",
                               "limits the requests a second; a fresh one by default"),
       field<&F::bulkhead>("bulkhead", "limits the requests in flight; a fresh one by default"),
       field<&F::recent_latencies_ms>("_recent_latencies",
                                      "milliseconds of the newest 100 successes, oldest first")},
      default_fields);
}

}  // namespace

void bind_providers(nb::module_& module) {
  auto cls = bind_fields(module);
  for (const Field& extra : {
           field<&F::extra_headers>("extra_headers",
                                    "headers for every request, beside or instead of ours; in "
                                    "neither the constructor nor `repr`, `==` and read-outs"),
           field<&F::extra_query>("extra_query",
                                  "query parameters for every request's URL; kept like "
                                  "`extra_headers`"),
       }) {
    record_table<ProviderConfig>->beside.push_back(extra);
    bind_field(cls, extra);
  }
  def(
      cls, "_request_headers",
      [](ProviderConfig& self) {
        nb::dict headers;
        for (const auto& [name, value] : request_headers(self.endpoint())) {
          headers[from_utf8(name)] = from_utf8(value);
        }
        return Dict(headers);
      },
      "What every request to it is sent with.");
  def(cls, "_left_alone_s", &ProviderConfig::left_alone_s,
      "For how many seconds it wants to be left alone.");
  def(cls, "avg_latency", &ProviderConfig::avg_latency,
      "The mean of the recent latencies in milliseconds, 0.0 without any.");
  def(cls, "health_score", &ProviderConfig::health_score,
      "0 to 100, higher is healthier; 50.0 before the first request.");
  def(cls, "is_available", &ProviderConfig::is_available,
      "Whether the breaker lets traffic through and the provider is marked healthy.");
  def(cls, "check_quota", &ProviderConfig::check_quota,
      "Takes one token of the rate limiter; returns whether it was there.");
  def(cls, "can_accept", &ProviderConfig::can_accept,
      "Takes a token and a slot; waits at most `bulkhead_timeout` seconds for the slot.\n\n"
      "Returns whether the request is admitted; a refusal holds nothing.",
      arg("bulkhead_timeout") = 1.0);
  def(cls, "release_slot", &ProviderConfig::release_slot, "Gives back the slot of `can_accept`.");
  def(cls, "record_success", &ProviderConfig::record_success,
      "Counts a success and its latency in milliseconds.", arg("latency_ms"));
  def(cls, "record_failure", &ProviderConfig::record_failure,
      "Counts a failure; one that opens the breaker sets the cooldown of its category.",
      arg("error"), arg("fault_category") = "");
  def(cls, "get_category_circuit_breaker", &ProviderConfig::category_circuit_breaker,
      "The breaker for one category of faults, made on first use.", arg("category"));
  def(
      cls, "to_dict", [](ProviderConfig& self) { return figures_of(self); },
      "The record for read-outs, without the key.");
}

}  // namespace tarvomeldric::host
