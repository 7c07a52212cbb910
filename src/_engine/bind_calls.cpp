#include "_engine/engine_class.h"
#include "host/calls/call_io.h"
#include "host/calls/operation.h"
#include "host/interpreter/recursion.h"

namespace tarvomeldric::host {
namespace {

using Self = nb::pointer_and_handle<Engine>;

// The two forms of an operation.
template <auto Make, Literal Name, class Result>
struct Forms;
template <class... P, OperationPtr (*Make)(nb::handle, P...), Literal Name, class Result>
struct Forms<Make, Name, Result> {
  static Result blocking(Self self, P... given) {
    const RecursionScope scope;
    return Make(self.h, given...)->run_blocking();
  }
  static Awaitable<Result> awaited(Self self, P... given) {
    return make_coroutine(Make(self.h, given...), Name.value);
  }
};

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

Annotated<"collections.abc.AsyncGenerator[typing.Any, None]"> stream(
    Self self, const Instance<ProviderConfig>& cfg, const Text& prompt, const Text& model,
    const Text& api_type, const nb::kwargs& extra) {
  return execute_stream(self.h, cfg, prompt, model, api_type, extra);
}

}  // namespace

void bind_calls(EngineClass& cls) {
  const auto none = nb::none();
  const auto bind_call = [&](const char* name, auto form, const char* doc) {
    def(cls, name, form, doc, arg("prompt"), arg("model") = none, arg("task_type") = "",
        arg("has_schema") = false, arg("semantic_domain") = none, arg("contract") = none,
        arg("api_type") = "chat", arg("options"));
  };
  using Call = Forms<call_operation, "SelfHealingEngine.call", Annotated<"CallResult">>;
  bind_call("call_sync", Call::blocking, kCallDoc);
  bind_call("call", Call::awaited,
            "The same as `call_sync`, to be awaited.\n\nThe event loop goes on while the call "
            "waits for a slot, a pause or the provider.");

  const auto bind_execute = [&](const char* name, auto form, const char* doc) {
    def(cls, name, form, doc, arg("cfg"), arg("prompt"), arg("model"), arg("api_type") = "chat",
        arg("extra"));
  };
  using Execute = Forms<execute_operation, "SelfHealingEngine._execute", Annotated<"str | None">>;
  bind_execute("_execute_sync", Execute::blocking,
               "Sends one request to one provider; returns the answer's text.\n\n"
               "May be replaced in a subclass or on an instance. Raises APIError.");
  bind_execute("_execute", Execute::awaited, "The same as `_execute_sync`, to be awaited.");
  bind_execute("_execute_stream", stream, kStreamDoc);

  const auto bind_failover = [&](const char* name, auto form, const char* doc) {
    def(cls, name, form, doc, arg("prompt"), arg("model"), arg("failed_provider"), arg("diag"),
        arg("sem_class"), arg("original_provider"), arg("original_model"), arg("request_id"),
        arg("contract") = none, arg("trace") = none, arg("call_start") = none, arg("options"));
  };
  using Failover =
      Forms<failover_operation, "SelfHealingEngine._failover", Annotated<"CallResult">>;
  bind_failover("_failover_sync", Failover::blocking,
                "Tries every other available provider, best first, until one answers.\n\n"
                "Raises the last APIError, RuntimeError when no provider could be tried, or\n"
                "ContractViolationError.");
  bind_failover("_failover", Failover::awaited, "The same as `_failover_sync`, to be awaited.");

  execute_sync_seam = {"_execute_sync"_key, cls.attr("_execute_sync").inc_ref()};
  execute_seam = {"_execute"_key, cls.attr("_execute").inc_ref()};
}

}  // namespace tarvomeldric::host
