#include "_engine/forms.h"
#include "host/calls/call_io.h"
#include "host/interpreter/collected.h"
#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

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

constexpr const char* kEventsDoc =
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

Annotated<"collections.abc.AsyncGenerator[typing.Any, None]"> events(
    Self<Engine> self, const Instance<ProviderConfig>& cfg, const Text& prompt, const Text& model,
    const Text& api_type, const nb::kwargs& extra) {
  return execute_stream(self.h, cfg, prompt, model, api_type, extra);
}

// `call_sync` and `call`, the same on an engine and on a view of it.
template <Literal Name, class C>
void bind_call(nb::class_<C>& cls, const char* doc) {
  const auto none = nb::none();
  const auto bind = [&](const char* name, auto form, const char* text) {
    def(cls, name, form, text, arg("prompt"), arg("model") = none, arg("task_type") = "",
        arg("has_schema") = false, arg("semantic_domain") = none, arg("contract") = none,
        arg("api_type") = "chat", arg("options"));
  };
  using Call = Forms<C, call_operation, Name, Annotated<"CallResult">>;
  bind("call_sync", Call::blocking, doc);
  bind("call", Call::awaited,
       "The same as `call_sync`, to be awaited.\n\nThe event loop goes on while the call waits for "
       "a slot, a pause or the provider.");
}

constexpr const char* kStreamDoc =
    "Streams an answer: a Stream, for `async with` and `async for`.\n\n"
    "Until the first output (words, reasoning, a refusal, a tool call or a finish reason) the "
    "whole\n"
    "engine heals, as in `call`; nothing is said twice. An answer that ends without a finish "
    "reason\n"
    "and `[DONE]` is a failure.\n\n"
    "Args:\n"
    "    prompt, model, task_type, has_schema, semantic_domain, contract, api_type, **options: as\n"
    "        in `call`. A contract that could end a healed call holds the answer back to its end.\n"
    "    messages: a conversation in place of the prompt.\n"
    "    first_token_timeout: seconds that an attempt may take to its first output.\n"
    "    idle_timeout: seconds between two events; comments and pings are none.\n"
    "    total_timeout: seconds for the whole; None for no bound.\n"
    "    include_usage: ask the provider to count, for `result.usage`.\n"
    "    require_end: False for servers that send neither finish reason nor `[DONE]`.\n\n"
    "Raises:\n"
    "    TypeError, ValueError: a wrong argument, when called.\n"
    "    When it is entered, what `call` raises; DeadlineExceeded for `total_timeout`.\n"
    "    StreamInterrupted: the answer broke off after its first output.";

// `stream` and `stream_sync`: objects of the package, which open themselves by the operation.
template <class C>
void bind_streams(nb::class_<C>& cls) {
  const auto bind = [&](const char* form, Helper made, const char* kind, const char* doc) {
    const std::string text =
        "def " + std::string(form) +
        "(self, prompt: str | None = None, model: str | None = None, task_type: str = '', "
        "has_schema: bool = False, semantic_domain: SemanticDomain | None = None, contract: "
        "Contract | None = None, api_type: str = 'chat', *, messages: "
        "collections.abc.Sequence[collections.abc.Mapping[str, typing.Any]] | None = None, "
        "first_token_timeout: float = 8.0, idle_timeout: float = 30.0, total_timeout: float | "
        "None = None, include_usage: bool = False, require_end: bool = True, **options: "
        "typing.Any) -> " +
        kind;
    cls.def(
        form,
        [made](nb::handle_t<C> self, const nb::args& args, const nb::kwargs& kwargs) {
          return call(made, self, *args, **kwargs);
        },
        nb::sig(text.c_str()), doc);
  };
  bind("stream", Helper::kStream, "Stream", kStreamDoc);
  bind("stream_sync", Helper::kStreamSync, "SyncStream",
       "The same as `stream`, blocking: for `with` and `for`.");
}

template <Literal Name, class C>
void bind_opening(nb::class_<C>& cls) {
  const auto none = nb::none();
  const auto bind = [&](const char* name, auto form) {
    def(cls, name, form, "Opens a stream of the package's.", arg("_settings"), arg("prompt"),
        arg("model") = none, arg("task_type") = "", arg("has_schema") = false,
        arg("semantic_domain") = none, arg("contract") = none, arg("api_type") = "chat",
        arg("options"));
  };
  using Opening = Forms<C, stream_operation, Name, Annotated<"tuple[typing.Any, ...]">>;
  bind("_open_stream_sync", Opening::blocking);
  bind("_open_stream", Opening::awaited);
}

constexpr const char* kWithPolicyDoc =
    "The engine seen through a policy: its calls are made as the policy says.\n\n"
    "Registry, guards, learner, metrics and clients are the engine's, and its `_execute` forms "
    "are\n"
    "used where they are replaced; a replaced `call` is not. Nothing changes for others.";

}  // namespace

void bind_view(nb::module_& module) {
  nb::class_<EngineView> cls(module, "EngineView",
                             "An engine seen through a policy; from `with_policy`.",
                             nb::type_slots(collected<EngineView>), nb::is_weak_referenceable());
  bind_call<"EngineView.call">(
      cls,
      "Sends a prompt as the engine's `call_sync` does, by the policy; see there.\n\n"
      "Raises:\n"
      "    DeadlineExceeded: the policy's time is over; an APIError.\n"
      "    NoProviderAvailable, ProvidersBusy, AllProvidersFailed: a RuntimeError of the engine\n"
      "        by its reason; each is a CallRefused.\n"
      "    APIError, ContractViolationError, SemanticBoundaryViolationError, TypeError: as on\n"
      "        the engine. `attempts` of an error made here are the requests that were sent.");
  bind_streams(cls);
  bind_opening<"EngineView.stream">(cls);
  bind_relay(cls);
  def(
      cls, "with_policy",
      [](EngineView& self, const Instance<CallPolicy>& policy) {
        return EngineView{self.engine, policy};
      },
      "The same engine seen through another policy.", arg("policy"));
  cls.def_prop_ro(
      "engine", [](const EngineView& self) -> nb::object { return self.engine; },
      nb::sig("def engine(self) -> SelfHealingEngine"), "Whose calls these are.");
  cls.def_prop_ro(
      "policy", [](const EngineView& self) -> nb::object { return self.policy; },
      nb::sig("def policy(self) -> CallPolicy"), "By which they are made.");
}

void bind_calls(EngineClass& cls) {
  const auto none = nb::none();
  bind_call<"SelfHealingEngine.call">(cls, kCallDoc);
  bind_streams(cls);
  bind_opening<"SelfHealingEngine.stream">(cls);
  def(
      cls, "with_policy",
      [](Self<Engine> self, const Instance<CallPolicy>& policy) {
        return EngineView{Instance<Engine>(nb::borrow(self.h)), policy};
      },
      kWithPolicyDoc, arg("policy"));
  def(cls, "observe", &Engine::observe,
      "Tells a function of everything that happens in calls from now on.\n\n"
      "It is called with one event at a time (AttemptEvent, FaultEvent, SleepEvent, RefusalEvent,\n"
      "BreakerEvent, HealEvent, EndEvent), where and when it happens: by several threads at once,\n"
      "and on event loops, so it must not wait. What it raises is ignored. Nothing is paid while\n"
      "nobody listens.\n\n"
      "Returns the handle that ends it, `close()`. TypeError for a coroutine function.",
      arg("listener"));

  const auto bind_execute = [&](const char* name, auto form, const char* doc) {
    def(cls, name, form, doc, arg("cfg"), arg("prompt"), arg("model"), arg("api_type") = "chat",
        arg("extra"));
  };
  using Execute =
      Forms<Engine, execute_operation, "SelfHealingEngine._execute", Annotated<"str | None">>;
  bind_execute("_execute_sync", Execute::blocking,
               "Sends one request to one provider; returns the answer's text.\n\n"
               "May be replaced in a subclass or on an instance. Raises APIError.");
  bind_execute("_execute", Execute::awaited, "The same as `_execute_sync`, to be awaited.");
  bind_execute("_execute_stream", events, kEventsDoc);

  const auto bind_failover = [&](const char* name, auto form, const char* doc) {
    def(cls, name, form, doc, arg("prompt"), arg("model"), arg("failed_provider"), arg("diag"),
        arg("sem_class"), arg("original_provider"), arg("original_model"), arg("request_id"),
        arg("contract") = none, arg("trace") = none, arg("call_start") = none, arg("options"));
  };
  using Failover =
      Forms<Engine, failover_operation, "SelfHealingEngine._failover", Annotated<"CallResult">>;
  bind_failover("_failover_sync", Failover::blocking,
                "Tries every other available provider, best first, until one answers.\n\n"
                "Raises the last APIError, RuntimeError when no provider could be tried, or\n"
                "ContractViolationError.");
  bind_failover("_failover", Failover::awaited, "The same as `_failover_sync`, to be awaited.");

  execute_sync_seam = {"_execute_sync"_key, cls.attr("_execute_sync").inc_ref()};
  execute_seam = {"_execute"_key, cls.attr("_execute").inc_ref()};
}

}  // namespace tarvomeldric::host
