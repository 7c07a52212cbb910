#include <utility>

#include "engine/failover.h"
#include "host/calls/call_io.h"
#include "host/calls/conclusion.h"
#include "host/calls/operation.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {
namespace {

constexpr double kDefaultBulkheadTimeoutSeconds = 1.0;

// An operation that goes through the pipeline and ends in a CallResult.
class PipelineOperation : public Operation {
 public:
  nb::object run_blocking() override {
    BlockingIo io(state_);
    CallOutcome outcome = tarvomeldric::run_blocking(run_pipeline(io));
    return conclude(state_, outcome);
  }
  Task<nb::object> run(Suspension& suspension) override {
    AwaitingIo io(state_, suspension);
    CallOutcome outcome = co_await run_pipeline(io);
    co_return conclude(state_, outcome);
  }
  int traverse(visitproc visit, void* arg) override { return state_.traverse(visit, arg); }
  void clear() override { state_.clear(); }

 protected:
  PipelineOperation(nb::handle engine, const Text& prompt,
                    const std::optional<Instance<Contract>>& contract) {
    state_.engine = nb::borrow(engine);
    state_.prompt = prompt;
    state_.contract = object_or_none(contract);
  }
  virtual Task<CallOutcome> run_pipeline(Io& io) = 0;

  CallState state_;
};

class CallOperation final : public PipelineOperation {
 public:
  CallOperation(nb::handle engine, const Text& prompt,
                const std::optional<Instance<Contract>>& contract, CallRequest request,
                nb::dict options)
      : PipelineOperation(engine, prompt, contract), request_(std::move(request)) {
    state_.options = std::move(options);
  }

 private:
  Task<CallOutcome> run_pipeline(Io& io) override {
    return run_call(request_, state_.surroundings(), io);
  }

  CallRequest request_;
};

class FailoverOperation final : public PipelineOperation {
 public:
  FailoverOperation(nb::handle engine, const Text& prompt,
                    const std::optional<Instance<Contract>>& contract, FailoverRequest request,
                    const Instance<Diagnosis>& diagnosis, nb::object trace, nb::dict options)
      : PipelineOperation(engine, prompt, contract), request_(std::move(request)) {
    state_.fault = diagnosis;
    state_.trace = std::move(trace);
    state_.options = std::move(options);
  }

 private:
  Task<CallOutcome> run_pipeline(Io& io) override {
    return run_failover(request_, state_.surroundings(), io);
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

OperationPtr call_operation(nb::handle engine, const Text& prompt, const std::optional<Text>& model,
                            const Text& task_type, bool has_schema,
                            std::optional<SemanticDomain> semantic_domain,
                            const std::optional<Instance<Contract>>& contract, const Text& api_type,
                            const nb::kwargs& options) {
  CallRequest request;
  request.prompt_length = text_length(prompt);
  if (model) request.model = to_utf8(*model);
  request.task_type = to_utf8(task_type);
  request.has_schema = has_schema;
  request.semantic_domain = semantic_domain;
  nb::dict execution = options;
  put(execution, "api_type"_key, api_type);
  take_options(request, execution);
  return std::make_unique<CallOperation>(engine, prompt, contract, std::move(request),
                                         std::move(execution));
}

OperationPtr failover_operation(nb::handle engine, const Text& prompt,
                                const std::optional<Text>& model,
                                const std::string& failed_provider, const Instance<Diagnosis>& diag,
                                const Instance<SemanticClassification>& sem_class,
                                const std::string& original_provider,
                                const std::string& original_model, const Text&,
                                const std::optional<Instance<Contract>>& contract,
                                const std::optional<Instance<MapeKTrace>>& trace,
                                std::optional<double> call_start, const nb::kwargs& options) {
  FailoverRequest request;
  request.prompt_length = text_length(prompt);
  if (model) request.model = to_utf8(*model);
  request.failed_provider = failed_provider;
  request.diagnosis = *diag;
  CallFacts& facts = request.facts;
  facts.classification = *sem_class;
  facts.original_provider = original_provider;
  facts.original_model = original_model;
  if (trace) facts.trace = &**trace;
  facts.start_s = call_start.value_or(0.0);
  if (const nb::handle kind = entry(options, "api_type"_key)) {
    convert_argument<Text>(kind, "api_type");
  }
  return std::make_unique<FailoverOperation>(engine, prompt, contract, std::move(request), diag,
                                             object_or_none(trace), options);
}

}  // namespace tarvomeldric::host
