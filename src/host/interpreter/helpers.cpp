#include "host/interpreter/helpers.h"

#include <array>
#include <cstddef>

namespace tarvomeldric::host {
namespace {

struct Place {
  Helper helper;
  const char* module;
  const char* name;
};

// In the order of `Helper`.
constexpr std::array kPlaces{
    Place{Helper::kHttpClients, "tarvomeldric._http", "HttpClients"},
    Place{Helper::kPost, "tarvomeldric._http", "post"},
    Place{Helper::kPostAwaited, "tarvomeldric._http", "post_async"},
    Place{Helper::kIsTimeout, "tarvomeldric._http", "is_timeout"},
    Place{Helper::kRetryAfter, "tarvomeldric._http", "retry_after"},
    Place{Helper::kOpenStream, "tarvomeldric._streams.opening", "open_blocking"},
    Place{Helper::kOpenStreamAwaited, "tarvomeldric._streams.opening", "open_awaited"},
    Place{Helper::kStream, "tarvomeldric._streams", "stream"},
    Place{Helper::kStreamSync, "tarvomeldric._streams", "stream_sync"},
    Place{Helper::kReady, "tarvomeldric._http", "ready"},
    Place{Helper::kExecuteStream, "tarvomeldric._stream", "execute_stream"},
    Place{Helper::kWaitForPermit, "tarvomeldric._waiting", "wait_for_permit"},
    Place{Helper::kInWorker, "tarvomeldric._waiting", "in_worker"},
    Place{Helper::kHandOver, "tarvomeldric._waiting", "hand_over"},
    Place{Helper::kAtMost, "tarvomeldric._waiting", "at_most"},
    Place{Helper::kRace, "tarvomeldric._hedging", "Race"},
    Place{Helper::kHedgeAt, "tarvomeldric._hedging", "at"},
    Place{Helper::kAbort, "tarvomeldric._http", "Abort"},
    Place{Helper::kIsPlaced, "tarvomeldric._http", "is_placed"},
    Place{Helper::kDiscardStream, "tarvomeldric._streams.opening", "discard"},
    Place{Helper::kSeamReport, "tarvomeldric._seam", "report"},
    Place{Helper::kFleetLink, "tarvomeldric._fleet", "Link"},
    Place{Helper::kStartSubscriber, "tarvomeldric._fleet", "start_subscriber"},
    Place{Helper::kSubscribeFor, "tarvomeldric._fleet", "subscribe_for"},
    Place{Helper::kLoadSharedRules, "tarvomeldric._fleet", "load_rules"},
    Place{Helper::kDefaultRulesPath, "tarvomeldric._rules", "default_path"},
    Place{Helper::kLoadRules, "tarvomeldric._rules", "load"},
    Place{Helper::kWatchForks, "tarvomeldric._fork", "watch"},
    Place{Helper::kKeepAfterFork, "tarvomeldric._fork", "keep"},
    Place{Helper::kServeDashboard, "tarvomeldric._dashboard", "serve"},
    Place{Helper::kQuickStart, "tarvomeldric._quick_start", "quick_start"},
    Place{Helper::kCheckProvider, "tarvomeldric._quick_start", "check_provider"},
    Place{Helper::kFunctionSignature, "tarvomeldric._signatures", "of_function"},
    Place{Helper::kMethodSignature, "tarvomeldric._signatures", "of_bound_method"},
    Place{Helper::kClassSignature, "tarvomeldric._signatures", "of_class"},
    Place{Helper::kAsyncioMark, "tarvomeldric._signatures", "asyncio_mark"},
    Place{Helper::kInspectMark, "tarvomeldric._signatures", "inspect_mark"},
    Place{Helper::kTelemetryCollector, "tarvomeldric.telemetry", "TelemetryCollector"},
    Place{Helper::kRecoveryLevel, "tarvomeldric.types", "RecoveryLevel"},
};

constexpr bool each_in_its_place() {
  for (std::size_t at = 0; at < kPlaces.size(); ++at) {
    if (kPlaces[at].helper != static_cast<Helper>(at)) return false;
  }
  return kPlaces.back().helper == Helper::kRecoveryLevel;
}
static_assert(each_in_its_place());

// A program may put its own telemetry module in the place of ours at any time.
bool is_replaceable(Helper wanted) { return wanted == Helper::kTelemetryCollector; }

}  // namespace

nb::object helper(Helper wanted) {
  static std::array<PyObject*, kPlaces.size()> modules{};
  PyObject*& kept = modules[static_cast<std::size_t>(wanted)];
  const auto& [_, module, name] = kPlaces[static_cast<std::size_t>(wanted)];
  if (!kept || is_replaceable(wanted)) {
    nb::object imported = import(module);
    if (is_replaceable(wanted)) return imported.attr(name);
    // Importing may have let another thread run, and that thread may have been here.
    if (!kept) kept = imported.release().ptr();
  }
  return nb::handle(kept).attr(name);
}

}  // namespace tarvomeldric::host
