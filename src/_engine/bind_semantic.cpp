#include "_engine/bindings.h"
#include "host/argument.h"
#include "host/record.h"
#include "host/records.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {
namespace {

void bind_topology(nb::module_& module) {
  bind_record<SemanticClassification>(
      module, "The domain of a request or answer, why, and its tolerance.",
      {required<&SemanticClassification::domain>("domain", "how far a call may be healed"),
       required<&SemanticClassification::reason>("reason", "why"),
       field<&SemanticClassification::tau_threshold>(
           "tau_threshold", "the tolerance, 0 to 1, of the tolerant domain")});
  nb::class_<SemanticTopology>(module, "SemanticTopology",
                               "Sorts requests and answers into the three semantic domains.")
      .def(nb::init<>(), "Takes nothing: the sorting is fixed.")
      .def(
          "classify_request",
          [](const SemanticTopology& self, Arg<std::string, "task_type"> task_type,
             Arg<bool, "has_schema"> has_schema, Arg<bool, "structured_output"> structured) {
            return self.classify_request(task_type.get(), has_schema.get(), structured.get());
          },
          arg("task_type") = "", arg("has_schema") = false, arg("structured_output") = false,
          nb::sig("def classify_request(self, task_type: str = '', has_schema: bool = False, "
                  "structured_output: bool = False) -> SemanticClassification"),
          "The domain of a request; a declared structure makes it exact.")
      .def(
          "classify_response_drift",
          [](const SemanticTopology& self, Arg<std::int64_t, "primary_len"> primary_len,
             Arg<std::int64_t, "fallback_len"> fallback_len,
             Arg<bool, "has_structure"> has_structure,
             Arg<bool, "structure_match"> structure_match) {
            return self.classify_response_drift(primary_len.get(), fallback_len.get(),
                                                has_structure.get(), structure_match.get());
          },
          arg("primary_len"), arg("fallback_len"), arg("has_structure"), arg("structure_match"),
          nb::sig("def classify_response_drift(self, primary_len: int, fallback_len: int, "
                  "has_structure: bool, structure_match: bool) -> SemanticClassification"),
          "How far a fallback's answer drifted; lengths in characters.");
}

}  // namespace

void bind_semantic(nb::module_& module) {
  bind_topology(module);
  bind_contracts(module);
}

}  // namespace tarvomeldric::host
