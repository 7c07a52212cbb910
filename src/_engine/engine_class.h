#pragma once

#include "_engine/def.h"
#include "host/calls/engine.h"

// The engine's class is bound in parts.
namespace tarvomeldric::host {

using EngineClass = nb::class_<Engine>;

void bind_calls(EngineClass& cls);
void bind_decisions(EngineClass& cls);

}  // namespace tarvomeldric::host
