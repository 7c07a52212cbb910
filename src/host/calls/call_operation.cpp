#include <utility>

#include "engine/failover.h"
#include "host/calls/pipeline_operation.h"

namespace tarvomeldric::host {
namespace {

constexpr double kDefaultBulkheadTimeoutSeconds = 1.0;

class CallOperation final : public PipelineOperation {
 public:
  CallOperation(const Caller& caller, const Text& prompt,
                const std::optional<Instance<Contract>>& contract, CallRequest request,
                nb::dict options)
      : PipelineOperation(caller, prompt, contract), request_(std::move(request)) {
    state_.options = std::move(options);
    request_.policy = &state_.asked_policy();
  }

 private:
  Task<void> run_pipeline(Io& io, CallOutcome& outcome) override {
    return run_from_start(request_, io, outcome);
  }

  CallRequest request_;
};

class FailoverOperation final : public PipelineOperation {
 public:
  FailoverOperation(const Caller& caller, const Text& prompt,
                    const std::optional<Instance<Contract>>& contract, FailoverRequest request,
                    const Instance<Diagnosis>& diagnosis, nb::object trace, nb::dict options)
      : PipelineOperation(caller, prompt, contract), request_(std::move(request)) {
    state_.fault = diagnosis;
    state_.given_trace = std::move(trace);
    state_.options = std::move(options);
  }

 private:
  Task<void> run_pipeline(Io& io, CallOutcome& outcome) override {
    return run_failover(request_, state_.surroundings(), io, outcome);
  }

  FailoverRequest request_;
};

// Takes a call's own options out of what goes into the request.
void take_options(CallRequest& request, nb::dict& options) {
  if (entry(options, "cfg"_key)) throw nb::type_error("cfg is not an option of a call");
  if (const nb::handle id = entry(options, "request_id"_key)) {
    request.request_id = convert_argument<std::string>(id, "request_id");
    nb::del(options["request_id"_key]);
  }
  if (const nb::handle structured = entry(options, "structured_output"_key)) {
    request.structured_output = convert_argument<bool>(structured, "structured_output");
  }
  const nb::handle timeout = entry(options, "bulkhead_timeout"_key);
  request.bulkhead_timeout_s = timeout ? convert_argument<double>(timeout, "bulkhead_timeout")
                                       : kDefaultBulkheadTimeoutSeconds;
}

}  // namespace

CallArguments call_arguments(const Text& prompt, const std::optional<Text>& model,
                             const Text& task_type, bool has_schema,
                             std::optional<SemanticDomain> semantic_domain, const Text& api_type,
                             const nb::kwargs& options) {
  CallRequest request;
  request.prompt_length = text_length(prompt);
  if (model) request.model = to_utf8(*model);
  request.api_type = to_utf8(api_type);
  request.task_type = to_utf8(task_type);
  request.has_schema = has_schema;
  request.semantic_domain = semantic_domain;
  nb::dict execution = options;
  put(execution, "api_type"_key, api_type);
  take_options(request, execution);
  return {std::move(request), std::move(execution)};
}

OperationPtr call_operation(const Caller& caller, const Text& prompt,
                            const std::optional<Text>& model, const Text& task_type,
                            bool has_schema, std::optional<SemanticDomain> semantic_domain,
                            const std::optional<Instance<Contract>>& contract, const Text& api_type,
                            const nb::kwargs& options) {
  CallArguments given =
      call_arguments(prompt, model, task_type, has_schema, semantic_domain, api_type, options);
  return std::make_unique<CallOperation>(caller, prompt, contract, std::move(given.request),
                                         std::move(given.execution));
}

OperationPtr failover_operation(const Caller& caller, const Text& prompt,
                                const std::optional<Text>& model,
                                const std::string& failed_provider, const Instance<Diagnosis>& diag,
                                const Instance<SemanticClassification>& sem_class,
                                const std::string& original_provider,
                                const std::string& original_model, const Text& request_id,
                                const std::optional<Instance<Contract>>& contract,
                                const std::optional<Instance<MapeKTrace>>& trace,
                                std::optional<double> call_start, const nb::kwargs& options) {
  FailoverRequest request;
  request.call.request_id = to_utf8(request_id);
  request.call.prompt_length = text_length(prompt);
  if (model) request.call.model = to_utf8(*model);
  request.failed_provider = failed_provider;
  request.diagnosis = *diag;
  CallFacts& facts = request.facts;
  facts.classification = *sem_class;
  facts.original_provider = original_provider;
  facts.original_model = original_model;
  if (trace) facts.trace = &**trace;
  facts.start_s = call_start.value_or(0.0);
  if (const nb::handle kind = entry(options, "api_type"_key)) {
    request.call.api_type = to_utf8(convert_argument<Text>(kind, "api_type"));
  }
  return std::make_unique<FailoverOperation>(caller, prompt, contract, std::move(request), diag,
                                             object_or_none(trace), options);
}

}  // namespace tarvomeldric::host
