#include "_engine/engine_class.h"
#include "host/calls/call_io.h"
#include "host/calls/engine_call.h"

// These leave the conversion of their arguments to the calls themselves, so their signatures are
// written by hand.
namespace tarvomeldric::host {
namespace {

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

}  // namespace

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

}  // namespace tarvomeldric::host
