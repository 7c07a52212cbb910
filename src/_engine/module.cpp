#include "_engine/bindings.h"
#include "diagnosis/fault_patterns.h"
#include "host/coroutine.h"
#include "host/errors.h"
#include "host/signatures.h"
#include "host/str_enum.h"
#include "host/views.h"
#include "support/version.h"

namespace nb = nanobind;
using namespace tarvomeldric;
using namespace tarvomeldric::host;

NB_MODULE(_engine, module) {
  module.doc() =
      "The engine of TarvoMeldric: calls to hosted model providers that heal themselves.";
  module.attr("__version__") = kVersion;
  // A user's exit prints nothing, whatever is still alive in daemon threads.
  nb::set_leak_warnings(false);
  install_hooks();
  bind_enum<FaultCategory>(module, "What kind of failure a provider request met.");
  bind_enum<CircuitState>(module, "Whether a circuit breaker lets traffic through.");
  bind_enum<SemanticDomain>(module, "How far a call may be healed.");
  bind_enum<MapeKPhase>(module, "The five stages of one pass through the loop.");
  bind_errors(module);
  bind_views(module);
  bind_locks(module);
  bind_diagnosis(module);
  bind_guards(module);
  bind_semantic(module);
  bind_flywheel(module);
  bind_observability(module);
  bind_providers(module);
  bind_results(module);
  bind_coroutine(module);
  bind_stream(module);
  bind_engine(module);
  bind_dashboard(module);
  bind_quick_start(module);
  bind_tables(module);
  bind_signatures(module.attr("SemanticTopology"), "classify_request", module.attr("__getattr__"));
  warm_fault_patterns();
}
