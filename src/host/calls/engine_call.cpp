#include "host/calls/engine_call.h"

#include <memory>
#include <utility>

#include "host/calls/call_io.h"
#include "host/calls/conclusion.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {
namespace {

constexpr double kDefaultBulkheadTimeoutSeconds = 1.0;  // seconds

CallRequest request_of(const CallArguments& given, const nb::dict& options) {
  CallRequest request;
  if (const nb::handle id = entry(options, "request_id"_key)) {
    request.request_id = convert_argument<std::string>(id, "request_id");
  }
  request.prompt_length = text_length(given.prompt);
  if (!given.model.is_none()) request.model = to_utf8(given.model);
  request.task_type = to_utf8(given.task_type);
  request.has_schema = convert_argument<bool>(given.has_schema, "has_schema");
  request.semantic_domain =
      convert_argument<std::optional<SemanticDomain>>(given.semantic_domain, "semantic_domain");
  if (const nb::handle structured = entry(options, "structured_output"_key)) {
    request.structured_output = convert_argument<bool>(structured, "structured_output");
  }
  const nb::handle timeout = entry(options, "bulkhead_timeout"_key);
  request.bulkhead_timeout_s = timeout ? convert_argument<double>(timeout, "bulkhead_timeout")
                                       : kDefaultBulkheadTimeoutSeconds;
  return request;
}

// The options of every execution: what the caller gave, without the request id.
nb::dict execution_options(const CallArguments& given) {
  if (entry(given.options, "cfg"_key)) throw nb::type_error("cfg is not an option of a call");
  nb::dict options = nb::borrow<nb::dict>(given.options);
  put(options, "api_type"_key, given.api_type);
  return options;
}

void fill(CallState& state, nb::handle engine, const CallArguments& given) {
  state.prompt = require_text(given.prompt, "prompt");
  state.model = require_text_or_none(given.model, "model");
  require_text(given.task_type, "task_type");
  require_text(given.api_type, "api_type");
  state.contract = require_or_none<Contract>(given.contract, "contract");
  nb::dict options = execution_options(given);
  state.request = request_of(given, options);
  if (state.request.request_id) nb::del(options["request_id"_key]);
  state.options = options;
  state.engine = nb::borrow(engine);
}

class CallWork final : public CoroutineWork {
 public:
  CallWork(nb::handle engine, const CallArguments& arguments) { fill(state_, engine, arguments); }
  const char* name() const override { return "call"; }
  const char* qualified_name() const override { return "SelfHealingEngine.call"; }

  Task<nb::object> run(Suspension& suspension) override {
    AwaitingIo io(state_, suspension);
    CallOutcome outcome = co_await run_call(state_.request, state_.surroundings(), io);
    co_return conclude(state_, outcome);
  }
  int traverse(visitproc visit, void* arg) override { return state_.traverse(visit, arg); }
  void clear() override { state_.clear(); }

 private:
  CallState state_;
};

}  // namespace

nb::object call_blocking(nb::handle engine, const CallArguments& arguments) {
  CallState state;
  fill(state, engine, arguments);
  BlockingIo io(state);
  CallOutcome outcome = run_blocking(run_call(state.request, state.surroundings(), io));
  return conclude(state, outcome);
}

nb::object call_coroutine(nb::handle engine, const CallArguments& arguments) {
  return make_coroutine(std::make_unique<CallWork>(engine, arguments));
}

}  // namespace tarvomeldric::host
