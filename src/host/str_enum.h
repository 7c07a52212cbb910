#pragma once

#include <array>
#include <optional>

#include "diagnosis/fault.h"
#include "engine/trace.h"
#include "guards/circuit_breaker.h"
#include "host/python.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {

// A core enumeration as a string enumeration of the host. Its members are made once, when the
// module loads, and live as long as the interpreter.
template <class E>
struct HostEnum;

template <class E, const auto& Table>
struct HostEnumOf {
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
struct HostEnum<FaultCategory> : HostEnumOf<FaultCategory, kFaultCategories> {
  static constexpr auto kName = nb::detail::const_name("FaultCategory");
};
template <>
struct HostEnum<CircuitState> : HostEnumOf<CircuitState, kCircuitStates> {
  static constexpr auto kName = nb::detail::const_name("CircuitState");
};
template <>
struct HostEnum<SemanticDomain> : HostEnumOf<SemanticDomain, kSemanticDomains> {
  static constexpr auto kName = nb::detail::const_name("SemanticDomain");
};
template <>
struct HostEnum<MapeKPhase> : HostEnumOf<MapeKPhase, kMapeKPhases> {
  static constexpr auto kName = nb::detail::const_name("MapeKPhase");
};

template <class E>
concept HostEnumerated = requires {
  HostEnum<E>::kTable;
};

// Makes the host's enumeration: a `str` whose `str()` and `format()` are the value on every
// version.
template <HostEnumerated E>
void bind_enum(nb::module_& module, const char* doc) {
  nb::list items;
  for (const auto& [name, value] : HostEnum<E>::kTable) items.append(nb::make_tuple(name, value));
  const nb::handle text(reinterpret_cast<PyObject*>(&PyUnicode_Type));
  const char* name = HostEnum<E>::kName.text;
  nb::object made = import("enum").attr("Enum")(name, items, "module"_a = module.attr("__name__"),
                                                "qualname"_a = name, "type"_a = text);
  made.attr("__doc__") = doc;
  made.attr("__str__") = text.attr("__str__");
  made.attr("__format__") = text.attr("__format__");
  std::size_t i = 0;
  for (nb::handle member : made) HostEnum<E>::members[i++] = member.inc_ref().ptr();
  module.attr(name) = made;
}

}  // namespace tarvomeldric::host
