#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "host/calls/contract.h"

namespace tarvomeldric::host {
namespace {

void bind_verdicts(nb::module_& module) {
  bind_record<ContractCheck>(
      module, "The verdict of one strategy of a contract.",
      {required<&ContractCheck::strategy>("strategy", "which check it was"),
       required<&ContractCheck::passed>("passed", "whether the output holds it"),
       field<&ContractCheck::detail>("detail", "what was found")});
  auto cls = bind_record<ContractResult>(
      module, "The verdict of a contract.",
      {required<&ContractResult::passed>("passed", "whether every check passed"),
       required<&ContractResult::checks>("checks", "the verdict of each check",
                                         "list[ContractCheck]"),
       required<&ContractResult::contract_type>("contract_type",
                                                "the contract's primary strategy")});
  def(
      cls, "to_dict", [](const ContractResult& self) { return Dict(to_dict(self)); },
      "passed, contract_type and checks.");
}

template <ContractCheck (*Strategy)(const Contract&, nb::handle)>
void bind_strategy(nb::class_<Contract>& cls, const char* name) {
  def(
      cls, name,
      [](const Contract& self, std::string_view output) {
        return Strategy(self, from_utf8(output));
      },
      "One check of an output.", arg("output"));
}

}  // namespace

void bind_contracts(nb::module_& module) {
  bind_verdicts(module);
  auto cls = bind_record<Contract>(
      module,
      "What a healed answer must look like; every field that is given is one check.\n\n"
      "Texts and patterns are looked for without regard to letter case.",
      {field<&Contract::output_schema>(
           "output_schema", "a dictionary whose \"required\" lists the keys of a JSON answer",
           "dict[str, typing.Any] | None"),
       field<&Contract::determinism_hash>("determinism_hash",
                                          "the first 16 hexadecimal digits of the answer's SHA-256",
                                          "str | None"),
       field<&Contract::similarity_threshold>(
           "similarity_threshold", "the share of words in common with the reference, 0 to 1",
           "float | None"),
       field<&Contract::reference_text>("reference_text", "the reference", "str | None"),
       field<&Contract::required_entities>("required_entities", "texts that must occur",
                                           "collections.abc.Sequence[str] | None"),
       field<&Contract::forbidden_patterns>("forbidden_patterns",
                                            "regular expressions that must not match",
                                            "collections.abc.Sequence[str] | None")});
  def(
      cls, "validate",
      [](const Contract& self, std::string_view output) {
        return validate(self, from_utf8(output));
      },
      "Holds an output against the contract; returns the verdict, never raises one.\n\n"
      "Raises what Python raises for a forbidden pattern that is no regular expression.",
      arg("output"));
  def(cls, "_primary_strategy", &primary_strategy, "The first strategy that is configured.");
  bind_strategy<validate_schema>(cls, "_validate_schema");
  bind_strategy<validate_determinism>(cls, "_validate_determinism");
  bind_strategy<validate_similarity>(cls, "_validate_similarity");
  bind_strategy<validate_entities>(cls, "_validate_entities");
  bind_strategy<validate_forbidden>(cls, "_validate_forbidden");
}

}  // namespace tarvomeldric::host
