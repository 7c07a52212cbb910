#include "_engine/bindings.h"
#include "guards/bulkhead.h"
#include "guards/circuit_breaker.h"
#include "guards/rate_limiter.h"
#include "host/argument.h"
#include "host/read_outs.h"
#include "host/record.h"
#include "host/records.h"

namespace tarvomeldric::host {
namespace {

void bind_breaker(nb::module_& module) {
  using F = CircuitBreakerFields;
  bind_record<CircuitBreaker>(
      module,
      "Bars traffic to what keeps failing.\n\n"
      "It opens on `failure_threshold` failures in a row, or when at least\n"
      "`error_rate_threshold` of the newest outcomes failed; it is half-open when asked\n"
      "`cooldown_seconds` later, and closed by the next success.",
      {field<&F::failure_threshold>("failure_threshold", "failures in a row that open it"),
       field<&F::error_rate_threshold>("error_rate_threshold",
                                       "share of failures, 0 to 1, in a full window that opens it"),
       field<&F::window_size>("window_size",
                              "outcomes it takes for the share to count; the newest 20 are kept"),
       field<&F::cooldown_seconds>("cooldown_seconds",
                                   "seconds that an open breaker bars traffic for"),
       field<&F::half_open_max>("half_open_max", "probes let through while half-open"),
       field<&F::state>("_state", "whether traffic may pass; closed at first"),
       field<&F::consecutive_fails>("_consecutive_fails", "failures since the last success"),
       field<&F::window>("_window", "the newest outcomes, oldest first; True is a success"),
       field<&F::opened_at>("_opened_at", "when it opened, in wall-clock seconds"),
       field<&F::half_open_tries>("_half_open_tries", "probes counted since it turned half-open"),
       field<&F::last_provider>("_last_provider", "whose failure was counted last"),
       field<&F::trip_count>("_trip_count", "how often it opened")})
      .def(
          "record_success",
          [](CircuitBreaker& self, Arg<std::string, "provider"> provider) {
            provider.get();
            self.record_success();
          },
          arg("provider") = "", nb::sig("def record_success(self, provider: str = '') -> None"),
          "Counts a success; closes a half-open breaker.")
      .def(
          "record_failure",
          [](CircuitBreaker& self, Arg<std::string, "provider"> provider) {
            self.record_failure(provider.get());
          },
          arg("provider") = "", nb::sig("def record_failure(self, provider: str = '') -> None"),
          "Counts a failure; opens the breaker when it reaches a threshold.")
      .def("_trip", &CircuitBreaker::trip, "Opens the breaker.")
      .def(
          "trip_with_fault",
          [](CircuitBreaker& self, Arg<std::string, "fault_category"> category) {
            self.trip_with_fault(category.get());
          },
          arg("fault_category"), nb::sig("def trip_with_fault(self, fault_category: str) -> None"),
          "Opens the breaker and sets the cooldown that suits the fault (10 to 600 seconds).")
      .def("is_available", &CircuitBreaker::is_available,
           "Whether traffic may pass. An open breaker that cooled down turns half-open.")
      .def("probe", &CircuitBreaker::probe,
           "Counts a probe; returns whether the breaker is half-open.")
      .def(
          "get_state", [](CircuitBreaker& self) { return Convert<CircuitState>::to(self.state()); },
          nb::sig("def get_state(self) -> CircuitState"),
          "The state. An open breaker that cooled down turns half-open.")
      .def(
          "to_dict", [](CircuitBreaker& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "state, consecutive_fails, trip_count, window_errors and window_total.");
}

void bind_limiter(nb::module_& module) {
  using F = RateLimiterFields;
  bind_record<RateLimiter>(
      module,
      "A token bucket: a burst of `max_tokens`, then `refill_rate` a second.\n\n"
      "A limiter that is wide open: RateLimiter(max_tokens=N, refill_rate=R, _tokens=N).",
      {field<&F::max_tokens>("max_tokens", "the most tokens it holds: the largest burst"),
       field<&F::refill_rate>("refill_rate", "tokens that come back in a second"),
       field<&F::tokens>("_tokens", "tokens that are there, as of the last refill"),
       varying(field<&F::last_refill>("_last_refill",
                                      "when that was, in wall-clock seconds (the present)")),
       lock_field<RateLimiter>(),
       field<&F::rejected>("_rejected", "requests that found too few tokens")},
      [] { return RateLimiter().snapshot(); })
      .def(
          "acquire",
          [](RateLimiter& self, Arg<std::int64_t, "tokens"> tokens) {
            return self.acquire(tokens.get());
          },
          arg("tokens") = 1, nb::sig("def acquire(self, tokens: int = 1) -> bool"),
          "Takes tokens if they are there; returns whether it did. Never waits.")
      .def(
          "to_dict", [](RateLimiter& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "tokens_remaining, max, refill_rate and rejected.");
}

void bind_bulkhead(nb::module_& module) {
  using F = BulkheadFields;
  bind_record<Bulkhead>(
      module, "Caps the requests in flight to one provider.",
      {field<&F::max_concurrent>("max_concurrent", "slots: requests in flight at most"),
       own_part(
           field<&F::semaphore>("_semaphore", "the slots that are free, and who waits for one")),
       field<&F::active>("_active", "slots that are taken"),
       field<&F::rejected>("_rejected", "requests that got no slot in time"),
       lock_field<Bulkhead>()})
      .def(
          "acquire",
          [](Bulkhead& self, Arg<double, "timeout"> timeout) {
            return self.acquire(timeout.get());
          },
          arg("timeout") = 2.0, nb::sig("def acquire(self, timeout: float = 2.0) -> bool"),
          "Waits at most `timeout` seconds for a slot; returns whether it was granted.")
      .def("release", &Bulkhead::release,
           "Gives a slot back. Each one adds a slot: call it once for every granted `acquire`.")
      .def(
          "to_dict", [](Bulkhead& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"), "active, max and rejected.");
}

}  // namespace

void bind_guards(nb::module_& module) {
  bind_breaker(module);
  bind_limiter(module);
  bind_bulkhead(module);
}

}  // namespace tarvomeldric::host
