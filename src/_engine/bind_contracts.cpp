#include "_engine/bindings.h"
#include "host/argument.h"
#include "host/contract.h"
#include "host/record.h"
#include "host/records.h"

namespace tarvomeldric::host {
namespace {

void bind_verdicts(nb::module_& module) {
  bind_record<ContractCheck>(
      module, "The verdict of one strategy of a contract.",
      {required<&ContractCheck::strategy>("strategy", "which check it was"),
       required<&ContractCheck::passed>("passed", "whether the output holds it"),
       field<&ContractCheck::detail>("detail", "what was found")});
  bind_record<ContractResult>(
      module, "The verdict of a contract.",
      {required<&ContractResult::passed>("passed", "whether every check passed"),
       required<&ContractResult::checks>("checks", "the verdict of each check",
                                         "list[ContractCheck]"),
       required<&ContractResult::contract_type>("contract_type",
                                                "the contract's primary strategy")})
      .def(
          "to_dict", [](const ContractResult& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "passed, contract_type and checks.");
}

using Strategy = ContractCheck (*)(const Contract&, nb::handle);

void bind_strategy(nb::class_<Contract>& cls, const char* name, Strategy strategy) {
  const std::string sig = "def " + std::string(name) + "(self, output: str) -> ContractCheck";
  cls.def(
      name,
      [strategy](const Contract& self, nb::handle output) {
        return strategy(self, require_text(output, "output"));
      },
      arg("output"), nb::sig(sig.c_str()), "One check of an output.");
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
  cls.def(
         "validate",
         [](const Contract& self, nb::handle output) {
           return validate(self, require_text(output, "output"));
         },
         arg("output"), nb::sig("def validate(self, output: str) -> ContractResult"),
         "Holds an output against the contract; returns the verdict, never raises one.\n\n"
         "Raises what the host raises for a forbidden pattern that is no regular expression.")
      .def(
          "_primary_strategy",
          [](const Contract& self) { return from_utf8(primary_strategy(self)); },
          "The first strategy that is configured.");
  bind_strategy(cls, "_validate_schema", validate_schema);
  bind_strategy(cls, "_validate_determinism", validate_determinism);
  bind_strategy(cls, "_validate_similarity", validate_similarity);
  bind_strategy(cls, "_validate_entities", validate_entities);
  bind_strategy(cls, "_validate_forbidden", validate_forbidden);
}

}  // namespace tarvomeldric::host
