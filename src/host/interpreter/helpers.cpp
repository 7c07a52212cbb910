#include "host/interpreter/helpers.h"

#include <array>
#include <cstddef>

namespace tarvomeldric::host {
namespace {

struct Place {
  const char* module;
  const char* name;
};

// In the order of `Helper`.
constexpr std::array kPlaces{
    Place{"tarvomeldric._http", "HttpClients"},
    Place{"tarvomeldric._http", "post"},
    Place{"tarvomeldric._http", "post_async"},
    Place{"tarvomeldric._http", "is_timeout"},
    Place{"tarvomeldric._http", "retry_after"},
    Place{"tarvomeldric._streams.opening", "open_blocking"},
    Place{"tarvomeldric._streams.opening", "open_awaited"},
    Place{"tarvomeldric._streams", "stream"},
    Place{"tarvomeldric._streams", "stream_sync"},
    Place{"tarvomeldric._http", "ready"},
    Place{"tarvomeldric._stream", "execute_stream"},
    Place{"tarvomeldric._waiting", "wait_for_permit"},
    Place{"tarvomeldric._waiting", "in_worker"},
    Place{"tarvomeldric._waiting", "hand_over"},
    Place{"tarvomeldric._waiting", "at_most"},
    Place{"tarvomeldric._hedging", "Race"},
    Place{"tarvomeldric._hedging", "at"},
    Place{"tarvomeldric._http", "Abort"},
    Place{"tarvomeldric._http", "is_placed"},
    Place{"tarvomeldric._streams.opening", "discard"},
    Place{"tarvomeldric._seam", "report"},
    Place{"tarvomeldric._fleet", "Link"},
    Place{"tarvomeldric._fleet", "start_subscriber"},
    Place{"tarvomeldric._fleet", "subscribe_for"},
    Place{"tarvomeldric._fleet", "load_rules"},
    Place{"tarvomeldric._rules", "default_path"},
    Place{"tarvomeldric._rules", "load"},
    Place{"tarvomeldric._fork", "watch"},
    Place{"tarvomeldric._fork", "keep"},
    Place{"tarvomeldric._dashboard", "serve"},
    Place{"tarvomeldric._quick_start", "quick_start"},
    Place{"tarvomeldric._quick_start", "check_provider"},
    Place{"tarvomeldric._signatures", "of_function"},
    Place{"tarvomeldric._signatures", "of_bound_method"},
    Place{"tarvomeldric._signatures", "of_class"},
    Place{"tarvomeldric._signatures", "asyncio_mark"},
    Place{"tarvomeldric._signatures", "inspect_mark"},
    Place{"tarvomeldric.telemetry", "TelemetryCollector"},
    Place{"tarvomeldric.types", "RecoveryLevel"},
};
static_assert(kPlaces.size() == static_cast<std::size_t>(Helper::kRecoveryLevel) + 1);

// A program may put its own telemetry module in the place of ours at any time.
bool is_replaceable(Helper wanted) { return wanted == Helper::kTelemetryCollector; }

}  // namespace

nb::object helper(Helper wanted) {
  static std::array<PyObject*, kPlaces.size()> modules{};
  PyObject*& kept = modules[static_cast<std::size_t>(wanted)];
  const auto [module, name] = kPlaces[static_cast<std::size_t>(wanted)];
  if (!kept || is_replaceable(wanted)) {
    nb::object imported = import(module);
    if (is_replaceable(wanted)) return imported.attr(name);
    // Importing may have let another thread run, and that thread may have been here.
    if (!kept) kept = imported.release().ptr();
  }
  return nb::handle(kept).attr(name);
}

}  // namespace tarvomeldric::host
