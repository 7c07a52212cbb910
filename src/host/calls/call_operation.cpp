#include <utility>

#include "engine/failover.h"
#include "host/calls/call_io.h"
#include "host/calls/conclusion.h"
#include "host/calls/operation.h"
#include "host/calls/stream_lease.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {
namespace {

constexpr double kSlotWaitSeconds = 1.0;

// One pass of the pipeline, as far as the first output where the answer is streamed; or a failover
// that Python code starts by hand.
class Pipeline final : public CoroutineWork {
 public:
  Pipeline(const Caller& caller, nb::object prompt,
           const std::optional<Instance<Contract>>& contract) {
    state.engine = nb::borrow(caller.engine);
    state.policy = nb::borrow(caller.policy);
    state.prompt = std::move(prompt);
    state.contract = object_or_none(contract);
    request.policy = &state.asked_policy();
    request.bulkhead_timeout_s = kSlotWaitSeconds;
  }

  Task<void> run(Suspension* suspension) override {
    if (state.settings.is_valid()) start_s_ = system_clock().monotonic();
    Io& io = io_.emplace(state, suspension);
    if (failover) return run_failover(*failover, state.surroundings(), io, outcome_);
    state.trace = std::make_shared<MapeKTrace>();
    return run_call(request, state.surroundings(), io, *state.trace, outcome_);
  }
  nb::object result() override {
    if (state.settings.is_valid()) return opened();
    nb::object result = conclude(state, outcome_);
    return state.relayed.is_valid() ? nb::make_tuple(result, state.exchange.reply) : result;
  }
  // Listeners hear of the end even so.
  void dropped() override {
    if (!state.untold_end) return;
    tell_of(state, EndEvent{*state.untold_end, "abandoned", 0.0});
  }
  int traverse(visitproc visit, void* arg) override { return visit_python(state, visit, arg); }

  void stream(nb::object settings) {
    state.settings = std::move(settings);
    request.streamed = true;
  }

  CallState state;
  CallRequest request;
  std::optional<FailoverRequest> failover;

 private:
  // A provider that answered has done its part, whatever becomes of the answer here.
  nb::object opened() {
    if (!std::holds_alternative<CallAnswered>(outcome_) && state.lease.is_valid()) {
      nb::inst_ptr<StreamLease>(state.lease)->succeed(state.attempts.back().duration_s * 1e3);
    }
    if (state.owed_end) {
      nb::inst_ptr<StreamLease>(state.lease)->owe(state.engine, std::move(*state.owed_end));
    }
    const nb::object result = conclude(state, outcome_);
    nb::inst_ptr<CallResult>(result)->ttft_ms = (system_clock().monotonic() - start_s_) * 1e3;
    return nb::make_tuple(result, state.exchange.reply.attr("stream"), state.lease);
  }

  std::optional<CallIo> io_;
  CallOutcome outcome_;
  double start_s_ = 0.0;  // of a stream; monotonic, seconds
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
  if (const nb::handle timeout = entry(options, "bulkhead_timeout"_key)) {
    request.bulkhead_timeout_s = convert_argument<double>(timeout, "bulkhead_timeout");
  }
}

std::unique_ptr<Pipeline> pipeline(const Caller& caller, const Text& prompt,
                                   const std::optional<Text>& model, const Text& task_type,
                                   bool has_schema, std::optional<SemanticDomain> semantic_domain,
                                   const std::optional<Instance<Contract>>& contract,
                                   const Text& api_type, const nb::kwargs& options) {
  auto made = std::make_unique<Pipeline>(caller, prompt, contract);
  CallRequest& request = made->request;
  request.prompt_length = text_length(prompt);
  if (model) request.model = to_utf8(*model);
  request.api_type = to_utf8(api_type);
  request.task_type = to_utf8(task_type);
  request.has_schema = has_schema;
  request.semantic_domain = semantic_domain;
  nb::dict execution = options;
  put(execution, "api_type"_key, api_type);
  take_options(request, execution);
  made->state.options = std::move(execution);
  return made;
}

}  // namespace

OperationPtr call_operation(const Caller& caller, const Text& prompt,
                            const std::optional<Text>& model, const Text& task_type,
                            bool has_schema, std::optional<SemanticDomain> semantic_domain,
                            const std::optional<Instance<Contract>>& contract, const Text& api_type,
                            const nb::kwargs& options) {
  return pipeline(caller, prompt, model, task_type, has_schema, semantic_domain, contract, api_type,
                  options);
}

OperationPtr stream_operation(const Caller& caller, const Any& settings, const Text& prompt,
                              const std::optional<Text>& model, const Text& task_type,
                              bool has_schema, std::optional<SemanticDomain> semantic_domain,
                              const std::optional<Instance<Contract>>& contract,
                              const Text& api_type, const nb::kwargs& options) {
  auto made = pipeline(caller, prompt, model, task_type, has_schema, semantic_domain, contract,
                       api_type, options);
  made->stream(settings);
  return made;
}

OperationPtr relay_operation(const Caller& caller, const std::optional<Any>& settings,
                             const Any& encode, const OrderedMap<std::string>& route,
                             const Any& headers, const std::string& model,
                             std::int64_t prompt_length, const std::string& api_type,
                             const std::string& task_type, bool has_schema,
                             const std::optional<Instance<Contract>>& contract,
                             const std::optional<std::string>& request_id) {
  auto made = std::make_unique<Pipeline>(caller, from_utf8(""), contract);
  CallRequest& request = made->request;
  request.request_id = request_id;
  request.prompt_length = static_cast<std::size_t>(prompt_length);
  request.model = model;
  request.api_type = api_type;
  request.task_type = task_type;
  request.has_schema = has_schema;
  request.route = route;
  nb::dict execution;
  put(execution, "api_type"_key, from_utf8(api_type));
  made->state.options = std::move(execution);
  made->state.relayed = encode;
  made->state.headers = headers;
  if (settings) made->stream(*settings);
  return made;
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
  auto made = std::make_unique<Pipeline>(caller, prompt, contract);
  FailoverRequest& request = made->failover.emplace();
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
  made->state.fault = diag;
  made->state.given_trace = object_or_none(trace);
  made->state.options = options;
  return made;
}

}  // namespace tarvomeldric::host
