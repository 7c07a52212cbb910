#pragma once

#include "host/interpreter/python.h"

// One function per room, called by the module's entry in the order in which the rooms need each
// other.
namespace tarvomeldric::host {

void bind_enums(nb::module_& module);
void bind_errors(nb::module_& module);
void bind_views(nb::module_& module);
void bind_locks(nb::module_& module);
void bind_diagnosis(nb::module_& module);
void bind_guards(nb::module_& module);
void bind_semantic(nb::module_& module);
void bind_contracts(nb::module_& module);
void bind_flywheel(nb::module_& module);
void bind_observability(nb::module_& module);
void bind_providers(nb::module_& module);
void bind_events(nb::module_& module);
void bind_policy(nb::module_& module);
void bind_results(nb::module_& module);
void bind_coroutine(nb::module_& module);
void bind_stream(nb::module_& module);
void bind_live(nb::module_& module);
void bind_dashboard(nb::module_& module);
void bind_quick_start(nb::module_& module);
void bind_engine(nb::module_& module);
void bind_view(nb::module_& module);
void bind_tables(nb::module_& module);

}  // namespace tarvomeldric::host
