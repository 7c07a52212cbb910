#pragma once

#include <memory>
#include <optional>

#include "diagnosis/diagnoser.h"
#include "engine/trace.h"
#include "host/calls/engine.h"
#include "host/interpreter/coroutine.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

// What an application asks of an engine, with its arguments: made when they are checked, and run
// once, blocking or as the work of a coroutine. Nothing has happened before it runs. Of the thread
// or the event loop that runs it.
using OperationPtr = std::unique_ptr<CoroutineWork>;

// On what a call was made: the engine, or a view of it with a policy, which is null otherwise.
struct Caller {
  nb::handle engine;
  nb::handle policy = {};
};

// One pass of the loop: a CallResult.
OperationPtr call_operation(const Caller& caller, const Text& prompt,
                            const std::optional<Text>& model, const Text& task_type,
                            bool has_schema, std::optional<SemanticDomain> semantic_domain,
                            const std::optional<Instance<Contract>>& contract, const Text& api_type,
                            const nb::kwargs& options);

// One pass of the loop, as far as the first output of a streamed answer: the CallResult, the rest
// of the stream, and its StreamLease. `settings` are those of the package's own stream.
OperationPtr stream_operation(const Caller& caller, const Any& settings, const Text& prompt,
                              const std::optional<Text>& model, const Text& task_type,
                              bool has_schema, std::optional<SemanticDomain> semantic_domain,
                              const std::optional<Instance<Contract>>& contract,
                              const Text& api_type, const nb::kwargs& options);

// One pass of the loop for a body of somebody else's: `encode` gives its bytes for a model, and the
// route says who serves the one that it names. The CallResult and the package's AttemptContext,
// with the answer's bytes; for a body that asks for a stream, which has `settings`, what
// `stream_operation` gives. An error has the latest provider's reply, if there was one, as
// `_reply`.
OperationPtr relay_operation(const Caller& caller, const std::optional<Any>& settings,
                             const Any& encode, const OrderedMap<std::string>& route,
                             const Any& headers, const std::string& model,
                             std::int64_t prompt_length, const std::string& api_type,
                             const std::string& task_type, bool has_schema,
                             const std::optional<Instance<Contract>>& contract,
                             const std::optional<std::string>& request_id);

// One request to one provider, without a call around it: the answer's text, or None.
OperationPtr execute_operation(const Caller& caller, const Instance<ProviderConfig>& cfg,
                               const Text& prompt, const Text& model, const Text& api_type,
                               const nb::kwargs& extra);

// A failover that Python code starts by hand: a CallResult.
OperationPtr failover_operation(const Caller& caller, const Text& prompt,
                                const std::optional<Text>& model,
                                const std::string& failed_provider, const Instance<Diagnosis>& diag,
                                const Instance<SemanticClassification>& sem_class,
                                const std::string& original_provider,
                                const std::string& original_model, const Text& request_id,
                                const std::optional<Instance<Contract>>& contract,
                                const std::optional<Instance<MapeKTrace>>& trace,
                                std::optional<double> call_start, const nb::kwargs& options);

// The asynchronous generator of the events of one provider's streamed answer.
nb::object execute_stream(nb::handle engine, const Instance<ProviderConfig>& cfg,
                          const Text& prompt, const Text& model, const Text& api_type,
                          const nb::kwargs& extra);

}  // namespace tarvomeldric::host
