#include "host/calls/observation.h"

#include "host/interpreter/collected.h"
#include "host/interpreter/errors.h"

namespace tarvomeldric::host {

namespace {

void require_plain_function(const Any& listener) {
  if (PyCallable_Check(listener.ptr()) == 0) {
    refuse_argument("listener", "callable", listener);
  }
  const nb::object inspect = import("inspect");
  const nb::object called = attribute_or(listener, "__call__", nb::none());
  const bool awaited = is_true(call(inspect.attr("iscoroutinefunction"), listener)) ||
                       is_true(call(inspect.attr("iscoroutinefunction"), called)) ||
                       is_true(call(inspect.attr("isasyncgenfunction"), listener));
  if (awaited) {
    throw nb::type_error("listener must be a plain function: nobody would await its coroutine");
  }
}

}  // namespace

Annotated<"Observation"> Engine::observe(const Any& listener) {
  if (!nb::isinstance<RecentCalls>(listener)) require_plain_function(listener);
  const nb::object made =
      nb::cast(new Observation(nb::find(this), listener), nb::rv_policy::take_ownership);
  observations = observations + nb::make_tuple(made);
  return made;
}

void Observation::close() {
  if (!engine_.is_valid()) return;
  auto& engine = *nb::inst_ptr<Engine>(engine_);
  nb::list others;
  for (nb::handle other : engine.observations) {
    if (nb::inst_ptr<Observation>(other) != this) others.append(other);
  }
  engine.observations = nb::tuple(others);
  drop(*this);
}

void Observation::tell(const CallEvent& event, nb::object& shown) const {
  if (!listener_.is_valid()) return;  // closed while others were told
  const nb::object listener = listener_;
  if (nb::isinstance<RecentCalls>(listener)) {
    nb::inst_ptr<RecentCalls>(listener)->record(event);
    return;
  }
  if (!shown.is_valid()) {
    shown = std::visit([](const auto& one) { return nb::cast(one); }, event);
  }
  quietly([&] { call(listener, shown); });
}

void tell_observers(const Engine& engine, const CallEvent& event) {
  nb::object shown;
  const nb::object observations = engine.observations;
  for (nb::handle each : observations) nb::inst_ptr<Observation>(each)->tell(event, shown);
}

}  // namespace tarvomeldric::host
