#pragma once

#include <string>

#include "host/interpreter/python.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

// The five strategies of a contract, each a check of one output. A contract that fails is a result;
// only a forbidden pattern that is no regular expression, or a "required" that cannot be walked, is
// Python's own error.
ContractCheck validate_schema(const Contract& contract, nb::handle output);
ContractCheck validate_determinism(const Contract& contract, nb::handle output);
ContractCheck validate_similarity(const Contract& contract, nb::handle output);
ContractCheck validate_entities(const Contract& contract, nb::handle output);
ContractCheck validate_forbidden(const Contract& contract, nb::handle output);

// Every strategy that the contract configures; it holds when all of them pass.
ContractResult validate(const Contract& contract, nb::handle output);
std::string primary_strategy(const Contract& contract);

// Its checks as dictionaries.
nb::dict to_dict(const ContractResult& result);

}  // namespace tarvomeldric::host
