#pragma once

#include <string>

#include "engine/admission.h"
#include "host/calls/engine.h"
#include "host/interpreter/python.h"
#include "providers/provider_config.h"

namespace tarvomeldric::host {

// What a streamed answer holds of its provider while it is being read: the slot, and the duty to
// record how it ends, which is done once. One that is only dropped gives the slot back.
class StreamLease {
 public:
  StreamLease(Instance<Diagnoser> diagnoser, ProviderPtr provider, AdmittedSlot slot)
      : diagnoser_(std::move(diagnoser)), provider_(std::move(provider)), slot_(std::move(slot)) {}

  // The answer came to its end, or nobody wants the rest. `latency_ms` is the time to its
  // beginning.
  void succeed(double latency_ms);
  // It broke off with this error. Answers with what may be shown of it.
  std::string fail(nb::handle error);

  int traverse(visitproc visit, void* arg);
  void clear();

 private:
  Instance<Diagnoser> diagnoser_;
  ProviderPtr provider_;
  AdmittedSlot slot_;
  bool recorded_ = false;
};

}  // namespace tarvomeldric::host
