#include "_engine/def.h"

namespace tarvomeldric::host::detail {

std::string signature(const char* name, bool method, std::initializer_list<Parameter> parameters,
                      const char* result) {
  std::string text = "def " + std::string(name) + (method ? "(self" : "(");
  const char* separator = method ? ", " : "";
  for (const Parameter& each : parameters) {
    text += separator + (each.type ? std::string(each.name) + ": " + each.type
                                   : "**" + std::string(each.name) + ": typing.Any");
    if (each.value.is_valid()) text += " = " + literal(each.value);
    separator = ", ";
  }
  return text + ") -> " + result;
}

}  // namespace tarvomeldric::host::detail
