#pragma once

#include <array>
#include <optional>

#include "diagnosis/fault.h"
#include "engine/trace.h"
#include "guards/circuit_breaker.h"
#include "host/interpreter/python.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {

using nb::detail::const_name;

// A core enumeration as a string enumeration of Python. Its members are made once, when the module
// loads, and live as long as the interpreter.
template <class E>
struct PythonEnum;

template <class E, const auto& Table>
struct PythonEnumOf {
  static constexpr const auto& kTable = Table;
  static inline std::array<PyObject*, Table.size()> members{};

  static nb::object member(E value) { return nb::borrow(members[static_cast<std::size_t>(value)]); }
  static std::optional<E> find(nb::handle h) {
    for (std::size_t i = 0; i < members.size(); ++i) {
      if (members[i] == h.ptr()) return static_cast<E>(i);
    }
    return std::nullopt;
  }
};

template <>
struct PythonEnum<FaultCategory> : PythonEnumOf<FaultCategory, kFaultCategories> {
  static constexpr auto kName = const_name("FaultCategory");
};
template <>
struct PythonEnum<CircuitState> : PythonEnumOf<CircuitState, kCircuitStates> {
  static constexpr auto kName = const_name("CircuitState");
};
template <>
struct PythonEnum<SemanticDomain> : PythonEnumOf<SemanticDomain, kSemanticDomains> {
  static constexpr auto kName = const_name("SemanticDomain");
};
template <>
struct PythonEnum<MapeKPhase> : PythonEnumOf<MapeKPhase, kMapeKPhases> {
  static constexpr auto kName = const_name("MapeKPhase");
};

template <class E>
concept PythonEnumerated = requires {
  PythonEnum<E>::kTable;
};

}  // namespace tarvomeldric::host
