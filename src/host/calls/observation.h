#pragma once

#include <tuple>

#include "engine/events.h"
#include "engine/recent_calls.h"
#include "host/calls/engine.h"
#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// A listener of an engine, from `observe` until `close`: a function, or the record of recent calls.
// Held by the engine and by the caller of `observe`. Any thread, with the interpreter lock held.
class Observation {
 public:
  Observation(nb::object engine, nb::object listener)
      : engine_(std::move(engine)), listener_(std::move(listener)) {}

  void close();
  // Makes Python's form of the event for the first listener that is a function. What one raises is
  // nobody's failure; what is no `Exception` passes.
  void tell(const CallEvent& event, nb::object& shown) const;

  auto held() { return std::tie(listener_, engine_); }

 private:
  nb::object engine_;
  nb::object listener_;
};

// Tells everybody who listens to the engine at this moment.
void tell_observers(const Engine& engine, const CallEvent& event);

}  // namespace tarvomeldric::host
