#include <memory>
#include <utility>

#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/read_outs.h"
#include "host/calls/fleet_exchange.h"
#include "host/records/read_outs.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

constexpr auto python_name(Named<FleetRateLimiter>) { return const_name("_FleetRateLimiter"); }

namespace {

void bind_breaker(nb::module_& module) {
  using F = CircuitBreakerFields;
  auto cls = bind_record<CircuitBreaker>(
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
       field<&F::opened_at_s>("_opened_at", "when it opened, in wall-clock seconds"),
       field<&F::half_open_tries>("_half_open_tries", "probes counted since it turned half-open"),
       field<&F::last_provider>("_last_provider", "whose failure was counted last"),
       field<&F::trip_count>("_trip_count", "how often it opened")});
  def(
      cls, "record_success", [](CircuitBreaker& self, std::string_view) { self.record_success(); },
      "Counts a success; closes a half-open breaker.", arg("provider") = "");
  def(cls, "record_failure", &CircuitBreaker::record_failure,
      "Counts a failure; opens the breaker when it reaches a threshold.", arg("provider") = "");
  def(cls, "_trip", &CircuitBreaker::trip, "Opens the breaker.");
  def(cls, "trip_with_fault", &CircuitBreaker::trip_with_fault,
      "Opens the breaker and sets the cooldown that suits the fault (10 to 600 seconds).",
      arg("fault_category"));
  def(cls, "is_available", &CircuitBreaker::is_available,
      "Whether traffic may pass. An open breaker that cooled down turns half-open.");
  def(cls, "probe", &CircuitBreaker::probe,
      "Counts a probe; returns whether the breaker is half-open.");
  def(cls, "get_state", &CircuitBreaker::state,
      "The state. An open breaker that cooled down turns half-open.");
  def(
      cls, "to_dict", [](CircuitBreaker& self) { return figures_of(self); },
      "state, consecutive_fails, trip_count, window_errors and window_total.");
}

void bind_limiter(nb::module_& module) {
  using F = RateLimiterFields;
  auto cls = bind_record<RateLimiter>(
      module,
      "A token bucket: a burst of `max_tokens`, then `refill_rate` a second.\n\n"
      "A limiter that is wide open: RateLimiter(max_tokens=N, refill_rate=R, _tokens=N).",
      {field<&F::max_tokens>("max_tokens", "the most tokens it holds: the largest burst"),
       field<&F::refill_rate>("refill_rate", "tokens that come back in a second"),
       field<&F::tokens>("_tokens", "tokens that are there, as of the last refill"),
       varying(field<&F::last_refill_s>("_last_refill",
                                        "when that was, in wall-clock seconds (the present)")),
       lock_field<RateLimiter>(),
       field<&F::rejected>("_rejected", "requests that found too few tokens")},
      [] { return RateLimiter().snapshot(); });
  def(
      cls, "acquire", [](RateLimiter& self, std::int64_t tokens) { return self.acquire(tokens); },
      "Takes tokens if they are there; returns whether it did. Never waits.", arg("tokens") = 1);
  def(
      cls, "to_dict", [](RateLimiter& self) { return figures_of(self); },
      "tokens_remaining, max, refill_rate and rejected.");
}

void bind_fleet_limiter(nb::module_& module) {
  nb::class_<SimulatedClock>(module, "_SimulatedClock", "Time that is moved by hand.")
      .def(nb::init<>())
      .def_rw("now", &SimulatedClock::now_s, "Seconds.");
  nb::class_<FleetRateLimiter, RateLimiter> cls(
      module, "_FleetRateLimiter", "A limiter that is filled from Redis, by whom it rings for.");
  cls.def(
      "__init__",
      [](FleetRateLimiter* self, double tokens_a_second, std::int64_t burst,
         bool shares_retry_after, nb::object ring, std::shared_ptr<SimulatedClock> clock) {
        const Clock& time = clock ? static_cast<const Clock&>(*clock) : system_clock();
        auto rings = ringing(std::move(ring), std::move(clock));
        new (self)
            FleetRateLimiter(tokens_a_second, burst, shares_retry_after, std::move(rings), time);
      },
      nb::arg("tokens_a_second"), nb::arg("burst"), nb::arg("shares_retry_after"), nb::arg("ring"),
      nb::arg("clock").none() = nb::none());
  def(cls, "_due", &FleetRateLimiter::due_s, "Seconds until it wants to hear of Redis.");
  cls.def(
      "_ask", [](FleetRateLimiter& self) { return sent(self.ask()); },
      nb::sig("def _ask(self) -> tuple[float, ...]"),
      "Begins an exchange: what the script is to be told.");
  def(
      cls, "_settle",
      [](FleetRateLimiter& self, std::int64_t granted, std::int64_t members, std::int64_t most,
         std::int64_t in_need, std::int64_t wait, std::int64_t born, std::int64_t alone) {
        self.settle(received(granted, members, most, in_need, wait, born, alone));
      },
      "Ends an exchange with what the script answered.", arg("granted"), arg("members"),
      arg("most"), arg("in_need"), arg("wait"), arg("born"), arg("alone"));
  def(cls, "_fail", &FleetRateLimiter::fail, "Ends an exchange, or an attempt at one, in vain.");
  def(
      cls, "_figures", [](FleetRateLimiter& self) { return figures_of(self); },
      "How it stands, but for the last error.");
}

void bind_bulkhead(nb::module_& module) {
  using F = BulkheadFields;
  auto cls = bind_record<Bulkhead>(
      module, "Caps the requests in flight to one provider.",
      {field<&F::max_concurrent>("max_concurrent", "slots: requests in flight at most"),
       own_part(
           field<&F::semaphore>("_semaphore", "the slots that are free, and who waits for one")),
       field<&F::active>("_active", "slots that are taken"),
       field<&F::rejected>("_rejected", "requests that got no slot in time"),
       lock_field<Bulkhead>()});
  def(cls, "acquire", &Bulkhead::acquire,
      "Waits at most `timeout` seconds for a slot; returns whether it was granted.",
      arg("timeout") = 2.0);
  def(cls, "release", &Bulkhead::release,
      "Gives a slot back. Each one adds a slot: call it once for every granted `acquire`.");
  def(
      cls, "to_dict", [](Bulkhead& self) { return figures_of(self); }, "active, max and rejected.");
}

}  // namespace

void bind_guards(nb::module_& module) {
  bind_breaker(module);
  bind_limiter(module);
  bind_fleet_limiter(module);
  bind_bulkhead(module);
}

}  // namespace tarvomeldric::host
