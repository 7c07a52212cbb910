#include "_engine/forms.h"
#include "host/records/views.h"

namespace tarvomeldric::host {

void bind_relay(nb::class_<EngineView>& cls) {
  const auto none = nb::none();
  const auto bind = [&](const char* name, auto form) {
    def(cls, name, form, "Hands a body on to whom its route names, and the answer back.",
        arg("_settings"), arg("encode"), arg("route"), arg("headers"), arg("model"),
        arg("prompt_length"), arg("api_type"), arg("task_type"), arg("has_schema"),
        arg("contract") = none, arg("request_id") = none);
  };
  using Relay =
      Forms<EngineView, relay_operation, "EngineView.relay", Annotated<"tuple[typing.Any, ...]">>;
  bind("_relay_sync", Relay::blocking);
  bind("_relay", Relay::awaited);
}

}  // namespace tarvomeldric::host
