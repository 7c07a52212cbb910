#include <algorithm>
#include <optional>

#include "_engine/bindings.h"
#include "engine/failover.h"
#include "engine/selection.h"
#include "host/argument.h"
#include "host/call_io.h"
#include "host/collected.h"
#include "host/engine.h"
#include "host/engine_call.h"
#include "host/read_outs.h"
#include "host/records.h"
#include "host/views.h"
#include "providers/models.h"

namespace tarvomeldric::host {
namespace {

using EngineClass = nb::class_<Engine>;
using OptionalText = std::optional<std::string>;

constexpr const char* kCallArguments =
    "self, prompt: str, model: str | None = None, task_type: str = '', has_schema: bool = False, "
    "semantic_domain: SemanticDomain | None = None, contract: Contract | None = None, "
    "api_type: str = 'chat', **options: typing.Any";
constexpr const char* kFailoverArguments =
    "self, prompt: str, model: str | None, failed_provider: str, diag: Diagnosis, "
    "sem_class: SemanticClassification, original_provider: str, original_model: str, "
    "request_id: str, contract: Contract | None = None, trace: MapeKTrace | None = None, "
    "call_start: float | None = None, **options: typing.Any";
constexpr const char* kExecuteArguments =
    "self, cfg: ProviderConfig, prompt: str, model: str, api_type: str = 'chat', "
    "**extra: typing.Any";

std::string signature(const char* name, const char* arguments, const std::string& result) {
  return "def " + std::string(name) + "(" + arguments + ") -> " + result;
}
std::string awaitable(const char* result) {
  return std::string("collections.abc.Coroutine[typing.Any, typing.Any, ") + result + "]";
}

constexpr const char* kCallDoc =
    "Sends a prompt through one pass of the loop and returns its CallResult.\n\n"
    "Args:\n"
    "    prompt: the user prompt.\n"
    "    model: the requested model; None lets the provider's default be chosen.\n"
    "    task_type: a label such as \"summarization\" that decides how far the call may be "
    "healed.\n"
    "    has_schema: an output schema is declared, so that the answer must be exact.\n"
    "    semantic_domain: replaces the domain that the task type stands for.\n"
    "    contract: what healed output must look like.\n"
    "    api_type: \"chat\", \"completions\", \"embeddings\", \"images/generations\" or\n"
    "        \"audio/transcriptions\".\n"
    "    **options: `request_id` (text, made fresh when absent), `bulkhead_timeout` (seconds to\n"
    "        wait for a slot, 1.0), `timeout` (seconds for the request, 8.0), "
    "`structured_output`;\n"
    "        all but `request_id` are also sent in the request's body, and so is any other "
    "option.\n\n"
    "Raises:\n"
    "    APIError: no provider answered; the error of the last one.\n"
    "    ContractViolationError: healed output does not hold the contract.\n"
    "    SemanticBoundaryViolationError: a fault in a call that must not be healed.\n"
    "    RuntimeError: no provider is available, or none would take the request.\n"
    "    TypeError: an argument of the wrong type, before anything happens.";

constexpr const char* kStreamDoc =
    "Streams one chat prompt to one provider: an asynchronous generator of its events.\n\n"
    "Each item is the JSON value of one event, as the provider sent it and as soon as it arrives.\n"
    "A failure raises nothing: it is the last item, a dictionary with \"error\" and\n"
    "\"recoverable\", which is true when the connection was lost or the provider took too long.\n"
    "Nothing is healed or counted here. Closing the generator closes the connection.\n\n"
    "Args:\n"
    "    cfg: the provider.\n"
    "    prompt: the user prompt.\n"
    "    model: the model, sent as it is given.\n"
    "    api_type: decides the path of the request alone.\n"
    "    **extra: sent in the body; `timeout` (seconds, 8.0) also bounds the connecting and\n"
    "        each pause between two pieces of the answer.\n\n"
    "Raises:\n"
    "    TypeError: an argument of the wrong type, when called.";

template <class F>
void bind_call(EngineClass& cls, const char* name, const std::string& sig, F function,
               const char* doc) {
  cls.def(
      name,
      [function](nb::pointer_and_handle<Engine> self, nb::handle prompt, nb::handle model,
                 nb::handle task_type, nb::handle has_schema, nb::handle semantic_domain,
                 nb::handle contract, nb::handle api_type, nb::kwargs options) {
        const CallArguments arguments{prompt,          model,    task_type, has_schema,
                                      semantic_domain, contract, api_type,  std::move(options)};
        return function(self.h, arguments);
      },
      arg("prompt"), arg("model") = nb::none(), arg("task_type") = "", arg("has_schema") = false,
      arg("semantic_domain") = nb::none(), arg("contract") = nb::none(), arg("api_type") = "chat",
      arg("options"), nb::sig(sig.c_str()), doc);
}

template <class F>
void bind_execute(EngineClass& cls, const char* name, const std::string& sig, F function,
                  const char* doc) {
  cls.def(
      name,
      [function](nb::pointer_and_handle<Engine> self, nb::handle cfg, nb::handle prompt,
                 nb::handle model, nb::handle api_type, nb::kwargs extra) {
        const ExecuteArguments arguments{cfg, prompt, model, api_type, std::move(extra)};
        return function(self.h, arguments);
      },
      arg("cfg"), arg("prompt"), arg("model"), arg("api_type") = "chat", arg("extra"),
      nb::sig(sig.c_str()), doc);
}

template <class F>
void bind_failover(EngineClass& cls, const char* name, const std::string& sig, F function,
                   const char* doc) {
  cls.def(
      name,
      [function](nb::pointer_and_handle<Engine> self, nb::handle prompt, nb::handle model,
                 nb::handle failed_provider, nb::handle diag, nb::handle sem_class,
                 nb::handle original_provider, nb::handle original_model, nb::handle request_id,
                 nb::handle contract, nb::handle trace, nb::handle call_start, nb::kwargs options) {
        const FailoverArguments arguments{
            prompt,         model,      failed_provider, diag,  sem_class,  original_provider,
            original_model, request_id, contract,        trace, call_start, std::move(options)};
        return function(self.h, arguments);
      },
      arg("prompt"), arg("model"), arg("failed_provider"), arg("diag"), arg("sem_class"),
      arg("original_provider"), arg("original_model"), arg("request_id"),
      arg("contract") = nb::none(), arg("trace") = nb::none(), arg("call_start") = nb::none(),
      arg("options"), nb::sig(sig.c_str()), doc);
}

void bind_calls(EngineClass& cls) {
  bind_call(cls, "call_sync", signature("call_sync", kCallArguments, "CallResult"), call_blocking,
            kCallDoc);
  bind_call(
      cls, "call", signature("call", kCallArguments, awaitable("CallResult")), call_coroutine,
      "The same as `call_sync`, to be awaited.\n\nThe event loop goes on while the call waits "
      "for a slot, a pause or the provider.");
  bind_execute(cls, "_execute_sync", signature("_execute_sync", kExecuteArguments, "str | None"),
               execute_blocking,
               "Sends one request to one provider; returns the answer's text.\n\n"
               "May be replaced in a subclass or on an instance. Raises APIError.");
  bind_execute(cls, "_execute", signature("_execute", kExecuteArguments, awaitable("str | None")),
               execute_coroutine, "The same as `_execute_sync`, to be awaited.");
  bind_execute(cls, "_execute_stream",
               signature("_execute_stream", kExecuteArguments,
                         "collections.abc.AsyncGenerator[typing.Any, None]"),
               execute_stream, kStreamDoc);
  bind_failover(cls, "_failover_sync",
                signature("_failover_sync", kFailoverArguments, "CallResult"), failover_blocking,
                "Tries every other available provider, best first, until one answers.\n\n"
                "Raises the last APIError, RuntimeError when no provider could be tried, or\n"
                "ContractViolationError.");
  bind_failover(cls, "_failover",
                signature("_failover", kFailoverArguments, awaitable("CallResult")),
                failover_coroutine, "The same as `_failover_sync`, to be awaited.");
  execute_sync_seam = {"_execute_sync"_key, cls.attr("_execute_sync").inc_ref()};
  execute_seam = {"_execute"_key, cls.attr("_execute").inc_ref()};
}

// The given names with their records; one that is not registered is the host's key error.
std::vector<NamedProvider> named(const Engine& engine, nb::handle names) {
  std::vector<NamedProvider> chosen;
  for (nb::handle name : names) {
    const nb::object record = nb::steal(PyObject_GetItem(engine.providers.ptr(), name.ptr()));
    if (!record.is_valid()) throw nb::python_error();
    bound<ProviderConfig>(record, "a provider");
    chosen.push_back(
        {convert_argument<std::string>(name, "providers: a name"), nb::cast<ProviderPtr>(record)});
  }
  if (chosen.empty()) throw nb::value_error("providers must not be empty");
  return chosen;
}

void bind_decisions(EngineClass& cls) {
  cls.def(
         "_pick_provider",
         [](const Engine& self, Arg<OptionalText, "model"> model, nb::handle providers) {
           return from_utf8(pick_provider(model.get().value_or(""), named(self, providers)).name);
         },
         arg("model"), nb::arg("providers"),
         nb::sig("def _pick_provider(self, model: str | None, providers: list[str]) -> str"),
         "The provider of a first attempt: one that serves the model, else the healthiest.")
      .def(
          "_pick_fallback",
          [](const Engine& self, nb::handle providers) {
            return from_utf8(pick_fallback(named(self, providers)).name);
          },
          nb::arg("providers"), nb::sig("def _pick_fallback(self, providers: list[str]) -> str"),
          "The healthiest of the providers; among equals the first.")
      .def(
          "_provider_priority",
          [](const Engine& self, Arg<std::string, "provider"> provider,
             Arg<std::string, "fault_pattern"> pattern,
             Arg<std::string, "sub_category"> sub_category) {
            const nb::list names(nb::make_tuple(from_utf8(provider.get())));
            const std::string category = pattern.get();
            const std::string label = sub_category.get();
            return provider_priority(named(self, names).front(),
                                     bound<HostLearner>(self.learner, "_learner")
                                         .advise(label.empty() ? category : label));
          },
          arg("provider"), arg("fault_pattern"), arg("sub_category") = "",
          nb::sig("def _provider_priority(self, provider: str, fault_pattern: str, sub_category: "
                  "str = '') -> float"),
          "The score by which failover candidates are ordered; higher is better.")
      .def(
          "_resolve_model",
          [](const Engine&, Arg<std::string, "provider_name"> provider,
             Arg<OptionalText, "requested_model"> model) {
            return from_utf8(resolve_model(provider.get(), model.get().value_or("")));
          },
          arg("provider_name"), arg("requested_model") = nb::none(),
          nb::sig("def _resolve_model(self, provider_name: str, "
                  "requested_model: str | None = None) -> str"),
          "The model to send to a provider for the requested one.")
      .def(
          "_get_downgraded_model",
          [](const Engine& self, Arg<std::string, "provider"> provider,
             Arg<std::string, "current_model"> model,
             Arg<SemanticDomain, "semantic_domain"> domain) -> OptionalText {
            const std::string from = provider.get();
            const std::string current = model.get();
            if (domain.get() != SemanticDomain::kOutOfBounds) {
              return downgraded_model(from, current);
            }
            bound<MetricsCollector>(self.metrics, "_metrics").inc("downgrade_blocked_oob");
            return std::nullopt;
          },
          arg("provider"), arg("current_model"),
          arg("semantic_domain") =
              HostEnum<SemanticDomain>::member(SemanticDomain::kTauNeighborhood),
          nb::sig("def _get_downgraded_model(self, provider: str, current_model: str, "
                  "semantic_domain: SemanticDomain = ...) -> str | None"),
          "The next model down the provider's chain, or None; none when out of bounds.")
      .def(
          "_model_to_error_hint",
          [](const Engine&, Arg<OptionalText, "model"> model) {
            return model_to_error_hint(model.get().value_or(""));
          },
          arg("model"), nb::sig("def _model_to_error_hint(self, model: str | None) -> str | None"),
          "The learner's pattern for requests of the model's family, or None.");
}

// A counter of the engine, or an attribute of the caller's own.
void inc_counter(nb::pointer_and_handle<Engine> self, const std::string& name, std::int64_t value) {
  Engine& engine = *self.p;
  for (std::size_t i = 0; i < kCounterNames.size(); ++i) {
    if (name == std::string("_") + kCounterNames[i]) {
      engine.counters.add(static_cast<Counter>(i), value);
      return;
    }
  }
  MutexLock lock(engine.counters.counter_lock());
  const nb::str key = from_utf8(name);
  const nb::object sum = attribute_or(self.h, key, nb::int_(0));
  host_call([&] { nb::setattr(self.h, key, sum + nb::int_(value)); });
}

void bind_read_outs(EngineClass& cls) {
  cls.def(
         "_inc_counter",
         [](nb::pointer_and_handle<Engine> self, Arg<std::string, "name"> name,
            Arg<std::int64_t, "value"> value) { inc_counter(self, name.get(), value.get()); },
         arg("name"), arg("value") = 1,
         nb::sig("def _inc_counter(self, name: str, value: int = 1) -> None"),
         "Adds to a counter; a new name makes an attribute.")
      .def("_read_counters", &Engine::read_counters,
           nb::sig("def _read_counters(self) -> dict[str, int]"), "A snapshot of the counters.")
      .def("health_check", &Engine::health_check,
           nb::sig("def health_check(self) -> dict[str, str]"),
           "Each provider's state: no_key, circuit_open, degraded, unhealthy or healthy.")
      .def(
          "get_available_providers",
          [](const Engine& self) {
            nb::list names;
            for (const auto& entry : available_providers(HostRegistry(self.providers))) {
              names.append(from_utf8(entry.name));
            }
            return names;
          },
          nb::sig("def get_available_providers(self) -> list[str]"),
          "The names of the providers that may be called now, in order of registration.")
      .def(
          "get_metrics", [](const Engine& self) { return self.metrics; },
          nb::sig("def get_metrics(self) -> MetricsCollector"), "The engine's own collector.")
      .def("get_stats", &Engine::stats, nb::sig("def get_stats(self) -> dict[str, typing.Any]"),
           "Counters, providers, diagnoses, learned rules and metrics, built afresh.")
      .def("get_mapek_stats", &Engine::mapek_stats,
           nb::sig("def get_mapek_stats(self) -> dict[str, typing.Any]"),
           "What the loop did: healing by level, contracts, semantic boundaries, rules.")
      .def("_get_telemetry", &Engine::telemetry_collector,
           nb::sig("def _get_telemetry(self) -> typing.Any"),
           "The telemetry collector, made on first use.");
}

void bind_lifecycle(EngineClass& cls) {
  cls.def("add_provider", &Engine::add_provider, arg("config_or_name"), arg("config") = nb::none(),
          nb::sig("def add_provider(self, config_or_name: ProviderConfig | str, "
                  "config: ProviderConfig | None = None) -> None"),
          "Registers a record under its own name, or under a given one.\n\n"
          "A name that is there already keeps its place. TypeError for anything else.")
      .def("_auto_discover", &Engine::auto_discover, arg("api_keys"),
           "Registers every preset provider that has a key.")
      .def("_init_from_list", &Engine::init_from_list, arg("names"), arg("api_keys"),
           "Registers the named preset providers; ValueError for an unknown name.")
      .def(
          "_get_sync_client",
          [](Engine& self, Arg<std::string, "provider_name"> name) {
            return self.sync_client(name.get());
          },
          arg("provider_name"),
          nb::sig("def _get_sync_client(self, provider_name: str) -> typing.Any"),
          "The pooled blocking HTTP client for a provider.")
      .def(
          "_get_session",
          [](Engine& self, Arg<std::string, "provider_name"> name) {
            return self.session(name.get());
          },
          arg("provider_name"),
          nb::sig("def _get_session(self, provider_name: str) -> "
                  "collections.abc.Coroutine[typing.Any, typing.Any, typing.Any]"),
          "The pooled asynchronous HTTP client of the running loop, to be awaited.")
      .def("close", &Engine::close,
           nb::sig("def close(self) -> collections.abc.Coroutine[typing.Any, typing.Any, None]"),
           "Closes every pooled client, to be awaited. The engine stays usable.")
      .def("close_sync", &Engine::close_sync, "Closes every pooled client, blocking.")
      .def("_after_fork", &Engine::after_fork, "Starts afresh in the child of a fork.")
      .def("_close_sync_clients", &Engine::close_sync_clients, "Closes the blocking clients.")
      .def(
          "__enter__", [](nb::handle_t<Engine> self) { return self; },
          nb::sig("def __enter__(self) -> typing.Self"))
      .def(
          "__exit__",
          [](nb::handle_t<Engine> self, const nb::args&) { call(self.attr("close_sync")); },
          nb::sig("def __exit__(self, *args: object) -> None"))
      .def(
          "__aenter__",
          [](nb::handle_t<Engine> self) {
            return call(import("tarvomeldric._http").attr("ready"), self);
          },
          nb::sig("def __aenter__(self) -> collections.abc.Coroutine[typing.Any, typing.Any, "
                  "typing.Self]"))
      .def(
          "__aexit__",
          [](nb::handle_t<Engine> self, const nb::args&) { return call(self.attr("close")); },
          nb::sig("def __aexit__(self, *args: object) -> "
                  "collections.abc.Coroutine[typing.Any, typing.Any, None]"));
}

template <nb::object Engine::*Member>
void bind_member(EngineClass& cls, const char* name, const char* type) {
  const std::string getter = "def " + std::string(name) + "(self) -> " + type;
  const std::string setter = "def " + std::string(name) + "(self, value: " + type + ", /) -> None";
  cls.def_prop_rw(
      name, [](const Engine& self) { return self.*Member; },
      [](Engine& self, nb::handle value) { self.*Member = nb::borrow(value); },
      nb::for_getter(nb::sig(getter.c_str())), nb::for_setter(nb::sig(setter.c_str())),
      nb::for_setter(nb::arg("value").none()));
}

// A member in which a call can use one type only.
template <nb::object Engine::*Member, class T>
void bind_typed_member(EngineClass& cls, const char* name) {
  const std::string type = HostName<T>::value.text;
  const std::string getter = "def " + std::string(name) + "(self) -> " + type;
  const std::string setter = "def " + std::string(name) + "(self, value: " + type + ", /) -> None";
  cls.def_prop_rw(
      name, [](const Engine& self) { return self.*Member; },
      [name](Engine& self, nb::handle value) {
        bound<T>(value, name);
        self.*Member = nb::borrow(value);
      },
      nb::for_getter(nb::sig(getter.c_str())), nb::for_setter(nb::sig(setter.c_str())),
      nb::for_setter(nb::arg("value").none()));
}

template <nb::object Engine::*Member>
void bind_dictionary(EngineClass& cls, const char* name, const char* type) {
  const std::string getter = "def " + std::string(name) + "(self) -> " + type;
  const std::string setter = "def " + std::string(name) + "(self, value: " + type + ", /) -> None";
  cls.def_prop_rw(
      name, [](const Engine& self) { return self.*Member; },
      [name](Engine& self, nb::handle value) {
        if (!PyDict_Check(value.ptr())) refuse_argument(name, "dict", value);
        self.*Member = nb::borrow(value);
      },
      nb::for_getter(nb::sig(getter.c_str())), nb::for_setter(nb::sig(setter.c_str())),
      nb::for_setter(nb::arg("value").none()));
}

void bind_lock(EngineClass& cls, const char* name, Mutex& (*lock)(Engine&)) {
  cls.def_prop_ro(
      name, [lock](Engine& self) -> Mutex& { return lock(self); },
      nb::rv_policy::reference_internal);
}

void bind_members(EngineClass& cls) {
  bind_dictionary<&Engine::providers>(cls, "_providers", "dict[str, ProviderConfig]");
  bind_typed_member<&Engine::diagnoser, Diagnoser>(cls, "_diagnoser");
  bind_typed_member<&Engine::learner, HostLearner>(cls, "_learner");
  bind_typed_member<&Engine::metrics, MetricsCollector>(cls, "_metrics");
  bind_typed_member<&Engine::topology, SemanticTopology>(cls, "_topology");
  bind_lock(cls, "_lock", [](Engine& e) -> Mutex& { return e.counters.general_lock(); });
  bind_dictionary<&Engine::http_pool>(cls, "_http_pool", "dict[str, typing.Any]");
  bind_lock(cls, "_pool_lock", [](Engine& e) -> Mutex& { return e.pool_lock; });
  bind_dictionary<&Engine::sync_client_pool>(cls, "_sync_client_pool", "dict[str, typing.Any]");
  bind_lock(cls, "_sync_client_lock", [](Engine& e) -> Mutex& { return e.sync_client_lock; });
  bind_lock(cls, "_counter_lock", [](Engine& e) -> Mutex& { return e.counters.counter_lock(); });
  for (std::size_t i = 0; i < kCounterNames.size(); ++i) {
    const auto counter = static_cast<Counter>(i);
    const std::string name = std::string("_") + kCounterNames[i];
    cls.def_prop_rw(
        name.c_str(), [counter](const Engine& self) { return self.counters.value(counter); },
        [counter](Engine& self, Arg<std::int64_t, "a counter"> value) {
          self.counters.set(counter, value.get());
        });
  }
  bind_member<&Engine::last_raw_response>(cls, "_last_raw_response", "typing.Any");
  bind_member<&Engine::telemetry>(cls, "_telemetry", "typing.Any");
}

}  // namespace

void bind_engine(nb::module_& module) {
  PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_object<Engine>)},
                         {Py_tp_clear, reinterpret_cast<void*>(clear_object<Engine>)},
                         {0, nullptr}};
  EngineClass cls(
      module, "SelfHealingEngine",
      "Sends prompts to model providers and heals what goes wrong on the way.\n\n"
      "One engine serves any number of threads and event loops. As a context manager, `with` or\n"
      "`async with`, it closes its HTTP clients on exit.",
      nb::type_slots(slots), nb::dynamic_attr(), nb::is_weak_referenceable());
  cls.def(
      "__init__",
      [](nb::pointer_and_handle<Engine> self, nb::handle providers, nb::handle api_keys) {
        new (self.p) Engine(providers, api_keys);
        nb::inst_set_state(self.h, true, true);
        call(import("tarvomeldric._fork").attr("watch"), self.h);
      },
      arg("providers") = nb::none(), arg("api_keys") = nb::none(),
      nb::sig("def __init__(self, providers: list[str] | dict[str, ProviderConfig] | None = None, "
              "api_keys: dict[str, str] | None = None) -> None"),
      "Args:\n"
      "    providers: None finds every preset provider that has a key; a list names presets; a\n"
      "        dictionary holds ProviderConfig records by name, and is used as it is.\n"
      "    api_keys: keys by provider name; the environment has those that are missing here.\n\n"
      "Raises:\n"
      "    TypeError: an argument of the wrong type.\n"
      "    ValueError: the list names a provider that is no preset.");
  bind_calls(cls);
  bind_decisions(cls);
  bind_read_outs(cls);
  bind_lifecycle(cls);
  bind_members(cls);
}

}  // namespace tarvomeldric::host
