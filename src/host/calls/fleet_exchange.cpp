#include "host/calls/fleet_exchange.h"

#include <utility>

#include "host/interpreter/errors.h"

namespace tarvomeldric::host {
namespace {

double us(double seconds) { return seconds * 1e6; }
double seconds(std::int64_t us) { return static_cast<double>(us) * 1e-6; }

}  // namespace

std::function<void()> ringing(nb::object ring, std::shared_ptr<SimulatedClock> kept) {
  return [ring = std::move(ring), kept = std::move(kept)] {
    static_cast<void>(quietly([&] { call(ring); }));
  };
}

nb::tuple sent(const FleetRequest& request) {
  return nb::make_tuple(request.interval_us, request.burst, request.slice, request.held,
                        request.wanted, request.returned, request.in_demand ? 1 : 0, request.owed,
                        us(request.cut_off_s), us(request.patience_s), request.born_us,
                        us(request.alone_s));
}

FleetReply received(std::int64_t granted, std::int64_t members, std::int64_t most,
                    std::int64_t in_need, std::int64_t wait_us, std::int64_t born_us,
                    std::int64_t alone_us) {
  return {granted, members, most, in_need, seconds(wait_us), born_us, seconds(alone_us)};
}

}  // namespace tarvomeldric::host
