#pragma once

#include "engine/outcome.h"
#include "host/calls/call_io.h"
#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// What the caller of a finished call gets: its CallResult, or the error that it ended with, thrown.
nb::object conclude(CallState& state, CallOutcome& outcome);

}  // namespace tarvomeldric::host
