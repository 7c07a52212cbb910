#pragma once

#include <cstdint>

#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// What the package says in Python: the only names of Python modules of ours that C++ knows, and so
// the only arrow that points up. Its module is imported when it is first asked for, and kept; what
// it holds under the name at that moment counts, so a test can replace it.
enum class Helper : std::uint8_t {
  kHttpClients,
  kPost,
  kPostAwaited,
  kIsTimeout,
  kRetryAfter,
  kOpenStream,
  kOpenStreamAwaited,
  kStream,
  kStreamSync,
  kReady,
  kExecuteStream,
  kWaitForPermit,
  kInWorker,
  kHandOver,
  kAtMost,
  kRace,
  kHedgeAt,
  kAbort,
  kIsPlaced,
  kDiscardStream,
  kSeamReport,
  kFleetLink,
  kStartSubscriber,
  kSubscribeFor,
  kLoadSharedRules,
  kDefaultRulesPath,
  kLoadRules,
  kWatchForks,
  kKeepAfterFork,
  kServeDashboard,
  kQuickStart,
  kCheckProvider,
  kFunctionSignature,
  kMethodSignature,
  kClassSignature,
  kAsyncioMark,
  kInspectMark,
  kTelemetryCollector,
  kRecoveryLevel,
};

nb::object helper(Helper wanted);

// Calls a helper.
template <class... Args>
nb::object call(Helper wanted, Args&&... args) {
  return call(helper(wanted), std::forward<Args>(args)...);
}

}  // namespace tarvomeldric::host
