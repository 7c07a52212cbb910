#pragma once

#include <string>
#include <tuple>

#include "engine/admission.h"
#include "engine/events.h"
#include "host/calls/engine.h"
#include "host/interpreter/python.h"
#include "providers/provider_config.h"

namespace tarvomeldric::host {

// What a streamed answer holds of its provider while it is being read: the slot, and the duty to
// record how it ends, which is done once, and to tell it to those who heard of the call before. One
// that is only dropped gives the slot back, and the call was abandoned.
class StreamLease {
 public:
  StreamLease(Instance<Diagnoser> diagnoser, ProviderPtr provider, AdmittedSlot slot)
      : diagnoser_(std::move(diagnoser)), provider_(std::move(provider)), slot_(std::move(slot)) {}
  ~StreamLease();
  StreamLease(const StreamLease&) = delete;
  StreamLease& operator=(const StreamLease&) = delete;

  // The answer came to its end, or nobody wants the rest. `latency_ms` is the time to its
  // beginning.
  void succeed(double latency_ms);
  // It broke off with this error. Answers with what may be shown of it.
  std::string fail(nb::handle error);

  // From now on the end of the call is told here; `end` is as it stands at the first output.
  void owe(nb::object engine, EndEvent end);
  // Tells it: "answered", "failed" or "abandoned". `usage` is what the provider counted, or None.
  void tell_end(const std::string& outcome, nb::handle usage);

  // What it holds of the provider goes back with the lease itself.
  auto held() { return std::tie(diagnoser_, engine_); }

 private:
  template <class Record>
  void record(Record&& record);
  void tell(const CallEvent& event) const;

  Instance<Diagnoser> diagnoser_;
  ProviderPtr provider_;
  AdmittedSlot slot_;
  bool recorded_ = false;
  nb::object engine_;  // whose listeners are to be told; null when there is nothing to tell
  EndEvent end_;
  double owed_since_s_ = 0.0;  // monotonic, seconds
};

}  // namespace tarvomeldric::host
