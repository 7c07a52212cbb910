#include "_engine/bind_record.h"
#include "_engine/engine_class.h"
#include "_engine/rooms.h"
#include "host/interpreter/collected.h"
#include "host/interpreter/helpers.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

void bind_lifecycle(EngineClass& cls) {
  def(cls, "add_provider", &Engine::add_provider,
      "Registers a record under its own name, or under a given one.\n\n"
      "A name that is there already keeps its place. TypeError for anything else.",
      arg("config_or_name"), arg("config") = nb::none());
  def(cls, "_auto_discover", &Engine::auto_discover,
      "Registers every preset provider that has a key.", arg("api_keys"));
  def(cls, "_init_from_list", &Engine::init_from_list,
      "Registers the named preset providers; ValueError for an unknown name.", arg("names"),
      arg("api_keys"));
  def(cls, "_get_sync_client", &Engine::sync_client,
      "The pooled blocking HTTP client for a provider.", arg("provider_name"));
  def(cls, "_get_session", &Engine::session,
      "The pooled asynchronous HTTP client of the running loop, to be awaited.",
      arg("provider_name"));
  def(cls, "close", &Engine::close,
      "Closes every pooled client, to be awaited. The engine stays usable.");
  def(cls, "close_sync", &Engine::close_sync, "Closes every pooled client, blocking.");
  def(cls, "_after_fork", &Engine::after_fork, "Starts afresh in the child of a fork.");
  def(cls, "_close_sync_clients", &Engine::close_sync_clients, "Closes the blocking clients.");
}

void bind_contexts(EngineClass& cls) {
  cls.def(
      "__enter__", [](nb::handle_t<Engine> self) { return self; },
      nb::sig("def __enter__(self) -> typing.Self"));
  cls.def(
      "__exit__", [](nb::handle_t<Engine> self, const nb::args&) { call(self.attr("close_sync")); },
      nb::sig("def __exit__(self, *args: object) -> None"));
  cls.def(
      "__aenter__", [](nb::handle_t<Engine> self) { return call(Helper::kReady, self); },
      nb::sig("def __aenter__(self) -> collections.abc.Coroutine[typing.Any, typing.Any, "
              "typing.Self]"));
  cls.def(
      "__aexit__",
      [](nb::handle_t<Engine> self, const nb::args&) { return call(self.attr("close")); },
      nb::sig("def __aexit__(self, *args: object) -> "
              "collections.abc.Coroutine[typing.Any, typing.Any, None]"));
}

void bind_lock(EngineClass& cls, const char* name, Mutex& (*lock)(Engine&)) {
  cls.def_prop_ro(
      name, [lock](Engine& self) -> Mutex& { return lock(self); },
      nb::rv_policy::reference_internal);
}

void bind_members(EngineClass& cls) {
  bind_member<&Engine::providers>(cls, "_providers");
  bind_member<&Engine::diagnoser>(cls, "_diagnoser");
  bind_member<&Engine::learner>(cls, "_learner");
  bind_member<&Engine::metrics>(cls, "_metrics");
  bind_member<&Engine::topology>(cls, "_topology");
  bind_member<&Engine::http_pool>(cls, "_http_pool");
  bind_member<&Engine::sync_client_pool>(cls, "_sync_client_pool");
  bind_member<&Engine::last_raw_response>(cls, "_last_raw_response");
  bind_member<&Engine::telemetry>(cls, "_telemetry");
  bind_lock(cls, "_lock", [](Engine& e) -> Mutex& { return e.counters.general_lock(); });
  bind_lock(cls, "_pool_lock", [](Engine& e) -> Mutex& { return e.pool_lock; });
  bind_lock(cls, "_sync_client_lock", [](Engine& e) -> Mutex& { return e.sync_client_lock; });
  bind_lock(cls, "_counter_lock", [](Engine& e) -> Mutex& { return e.counters.counter_lock(); });
  for (std::size_t i = 0; i < kCounterNames.size(); ++i) {
    const auto counter = static_cast<Counter>(i);
    const std::string name = std::string("_") + kCounterNames[i];
    cls.def_prop_rw(
        name.c_str(), [counter](const Engine& self) { return self.counters.value(counter); },
        [counter](Engine& self, nb::handle value) {
          self.counters.set(counter, convert_argument<std::int64_t>(value, "a counter"));
        },
        nb::for_setter(nb::arg("value").none()));
  }
}

}  // namespace

void bind_engine(nb::module_& module) {
  EngineClass cls(
      module, "SelfHealingEngine",
      "Sends prompts to model providers and heals what goes wrong on the way.\n\n"
      "One engine serves any number of threads and event loops. As a context manager, `with` or\n"
      "`async with`, it closes its HTTP clients on exit.",
      nb::type_slots(collected<Engine>), nb::dynamic_attr(), nb::is_weak_referenceable());
  def(
      cls, "__init__",
      [](nb::pointer_and_handle<Engine> self,
         const Annotated<"list[str] | dict[str, ProviderConfig] | None">& providers,
         const Keys& api_keys) {
        new (self.p) Engine(providers, api_keys);
        nb::inst_set_state(self.h, true, true);
        call(Helper::kWatchForks, self.h);
      },
      "Args:\n"
      "    providers: None finds every preset provider that has a key; a list names presets; a\n"
      "        dictionary holds ProviderConfig records by name, and is used as it is.\n"
      "    api_keys: keys by provider name; the environment has those that are missing here.\n\n"
      "Raises:\n"
      "    TypeError: an argument of the wrong type.\n"
      "    ValueError: the list names a provider that is no preset.",
      arg("providers") = nb::none(), arg("api_keys") = nb::none());
  bind_calls(cls);
  bind_decisions(cls);
  bind_lifecycle(cls);
  bind_contexts(cls);
  bind_members(cls);
}

}  // namespace tarvomeldric::host
