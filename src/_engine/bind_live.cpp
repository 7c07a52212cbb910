#include "_engine/def.h"
#include "_engine/rooms.h"
#include "engine/live_figures.h"
#include "host/calls/engine.h"
#include "host/records/read_outs.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

using DictList = Annotated<"list[dict[str, typing.Any]]">;

template <class T>
nb::list dicts_of(const std::vector<T>& all) {
  nb::list dicts;
  for (const T& one : all) dicts.append(dict_of(figures_of(one)));
  return dicts;
}

DictList calls_of(const RecentCalls& recent) {
  nb::list calls;
  for (const RecentCall& call : recent.calls()) {
    nb::dict dict = dict_of(figures_of(call));
    dict["steps"] = dicts_of(call.steps);
    calls.append(dict);
  }
  return DictList(calls);
}

}  // namespace

void bind_live(nb::module_& module) {
  nb::class_<RecentCalls> cls(
      module, "_RecentCalls",
      "The newest calls of the engine that it observes, and their history.");
  def(
      cls, "__init__", [](RecentCalls* self) { new (self) RecentCalls(); },
      "Records from now on, once an engine is observed with it.");
  def(cls, "age", &RecentCalls::age_s, "Seconds since it was made.");
  def(
      cls, "calls", [](const RecentCalls& self) { return calls_of(self); },
      "Those under way, then those that are over; the newest first. Moments are seconds after it\n"
      "was made.");
  def(
      cls, "history", [](RecentCalls& self) { return DictList(dicts_of(self.history())); },
      "What calls came to in each step that is over, the oldest first.");
  cls.attr("STEP") = CallHistory::kStepSeconds;
  def(
      module, "_live_figures",
      [](const DictOf<"dict[str, ProviderConfig]">& providers) {
        return live_figures(PythonRegistry(providers));
      },
      "Each provider as it is now, by name.", arg("providers"));
}

}  // namespace tarvomeldric::host
