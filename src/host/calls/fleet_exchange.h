#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "guards/fleet_share.h"
#include "host/interpreter/python.h"
#include "support/clock.h"

namespace tarvomeldric::host {

// How a fleet's limiter and the Redis that fills it talk, in the words of the script that runs
// there: times are whole microseconds, in the order in which the script reads and answers.

// Time that stands still until it is moved: simulations of a fleet go by it. Not to be moved while
// another thread reads it.
struct SimulatedClock final : Clock {
  double wall() const override { return now_s; }
  double monotonic() const override { return now_s; }
  double now_s = 0.0;
};

// Calls what rings for an exchange. An error of it concerns nobody who asks for tokens; `kept`
// lives as long. From any thread that holds the interpreter.
std::function<void()> ringing(nb::object ring, std::shared_ptr<SimulatedClock> kept);

nb::tuple sent(const FleetRequest& request);
FleetReply received(std::int64_t granted, std::int64_t members, std::int64_t most,
                    std::int64_t in_need, std::int64_t wait_us, std::int64_t born_us,
                    std::int64_t alone_us);

}  // namespace tarvomeldric::host
