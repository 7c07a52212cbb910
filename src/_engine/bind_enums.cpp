#include "_engine/rooms.h"
#include "host/records/str_enum.h"

namespace tarvomeldric::host {
namespace {

// Makes a `str` enumeration whose `str()` and `format()` are the value on every version of Python.
template <PythonEnumerated E>
void bind_enum(nb::module_& module, const char* doc) {
  nb::list items;
  for (const auto& [name, value] : PythonEnum<E>::kTable) items.append(nb::make_tuple(name, value));
  const nb::handle text(reinterpret_cast<PyObject*>(&PyUnicode_Type));
  const char* name = PythonEnum<E>::kName.text;
  nb::object made = import("enum").attr("Enum")(name, items, "module"_a = module.attr("__name__"),
                                                "qualname"_a = name, "type"_a = text);
  made.attr("__doc__") = doc;
  made.attr("__str__") = text.attr("__str__");
  made.attr("__format__") = text.attr("__format__");
  std::size_t i = 0;
  for (nb::handle member : made) PythonEnum<E>::members[i++] = member.inc_ref().ptr();
  module.attr(name) = made;
}

}  // namespace

void bind_enums(nb::module_& module) {
  bind_enum<FaultCategory>(module, "What kind of failure a provider request met.");
  bind_enum<CircuitState>(module, "Whether a circuit breaker lets traffic through.");
  bind_enum<SemanticDomain>(module, "How far a call may be healed.");
  bind_enum<MapeKPhase>(module, "The five stages of one pass through the loop.");
}

}  // namespace tarvomeldric::host
