#include "_engine/bindings.h"
#include "engine/trace.h"
#include "host/argument.h"
#include "host/read_outs.h"
#include "host/record.h"
#include "host/records.h"

namespace tarvomeldric::host {
namespace {

void bind_trace(nb::module_& module) {
  bind_record<MapeKTrace>(
      module,
      "What one call did, stage by stage.\n\n"
      "`phases` holds (phase, time of entry in microseconds of the monotonic\n"
      "clock); `total_loop_us` is the duration of the whole pass.",
      {required<&MapeKTrace::request_id>("request_id"), field<&MapeKTrace::phases>("phases"),
       field<&MapeKTrace::monitor_result>("monitor_result"),
       field<&MapeKTrace::analyze_result>("analyze_result"),
       field<&MapeKTrace::plan_result>("plan_result"),
       field<&MapeKTrace::execute_result>("execute_result"),
       field<&MapeKTrace::knowledge_recorded>("knowledge_recorded"),
       field<&MapeKTrace::total_loop_us>("total_loop_us")})
      .def(
          "enter",
          [](MapeKTrace& self, Arg<MapeKPhase, "phase"> phase) { self.enter(phase.get()); },
          arg("phase"), nb::sig("def enter(self, phase: MapeKPhase) -> None"),
          "Adds a phase with the present time.")
      .def(
          "to_dict", [](const MapeKTrace& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "A copy of every field; later entries do not change it.");
}

}  // namespace

void bind_results(nb::module_& module) {
  bind_trace(module);
  bind_record<CallResult>(
      module,
      "What a call hands back: the answer, where it came from and how it was healed.\n\n"
      "`text` is the answer (None when the provider's was null), `latency_ms` the duration of\n"
      "the attempt that answered, `heal_level` \"\", \"l1_retry\", \"l2_downgrade\",\n"
      "\"l3_failover\" or \"l4_learned\", `fault` the Diagnosis of the last fault on the way,\n"
      "`mapek_trace` the trace as a dictionary, `raw_response` the decoded body of a\n"
      "first-attempt answer.",
      {required<&CallResult::text>("text", "str | typing.Any"),
       required<&CallResult::provider>("provider"), required<&CallResult::model>("model"),
       field<&CallResult::success>("success"),
       field<&CallResult::fault>("fault", "Diagnosis | None"),
       field<&CallResult::original_provider>("original_provider"),
       field<&CallResult::original_model>("original_model"),
       field<&CallResult::latency_ms>("latency_ms"), field<&CallResult::from_cache>("from_cache"),
       field<&CallResult::downgraded>("downgraded"), field<&CallResult::heal_level>("heal_level"),
       field<&CallResult::semantic_domain>("semantic_domain"),
       field<&CallResult::validation_passed>("validation_passed"),
       field<&CallResult::contract_result>("contract_result", "dict[str, typing.Any] | None"),
       field<&CallResult::mapek_trace>("mapek_trace"),
       field<&CallResult::raw_response>("raw_response")});
}

}  // namespace tarvomeldric::host
