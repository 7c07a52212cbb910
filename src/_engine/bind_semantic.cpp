#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "host/records/records.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {

void bind_semantic(nb::module_& module) {
  bind_record<SemanticClassification>(
      module, "The domain of a request or answer, why, and its tolerance.",
      {required<&SemanticClassification::domain>("domain", "how far a call may be healed"),
       required<&SemanticClassification::reason>("reason", "why"),
       field<&SemanticClassification::tau_threshold>(
           "tau_threshold", "the tolerance, 0 to 1, of the tolerant domain")});
  nb::class_<SemanticTopology> cls(module, "SemanticTopology",
                                   "Sorts requests and answers into the three semantic domains.");
  cls.def(nb::init<>(), "Takes nothing: the sorting is fixed.");
  def(cls, "classify_request", &SemanticTopology::classify_request,
      "The domain of a request; a declared structure makes it exact.", arg("task_type") = "",
      arg("has_schema") = false, arg("structured_output") = false);
  def(cls, "classify_response_drift", &SemanticTopology::classify_response_drift,
      "How far a fallback's answer drifted; lengths in characters.", arg("primary_len"),
      arg("fallback_len"), arg("has_structure"), arg("structure_match"));
}

}  // namespace tarvomeldric::host
