#include "host/engine_call.h"

#include <memory>
#include <utility>

#include "host/argument.h"
#include "host/call_io.h"
#include "host/errors.h"
#include "host/read_outs.h"
#include "host/records.h"

namespace tarvomeldric::host {
namespace {

constexpr double kDefaultBulkheadTimeout = 1.0;  // seconds

nb::object require_text(nb::handle value, const char* name) {
  if (!PyUnicode_Check(value.ptr())) refuse_argument(name, "str", value);
  return nb::borrow(value);
}

nb::object require_text_or_none(nb::handle value, const char* name) {
  if (!value.is_none() && !PyUnicode_Check(value.ptr())) refuse_argument(name, "str or None", value);
  return nb::borrow(value);
}

nb::object require_contract(nb::handle contract) {
  if (!contract.is_none() && !nb::isinstance<Contract>(contract)) {
    refuse_argument("contract", "Contract or None", contract);
  }
  return nb::borrow(contract);
}

PyObject* option(const nb::dict& options, const char* name) {
  return PyDict_GetItemString(options.ptr(), name);
}

CallRequest request_of(const CallArguments& given, const nb::dict& options) {
  CallRequest request;
  if (PyObject* id = option(options, "request_id")) {
    request.request_id = convert_argument<std::string>(id, "request_id");
  }
  if (!given.model.is_none()) request.model = to_utf8(given.model);
  request.task_type = to_utf8(given.task_type);
  request.has_schema = convert_argument<bool>(given.has_schema, "has_schema");
  request.semantic_domain =
      convert_argument<std::optional<SemanticDomain>>(given.semantic_domain, "semantic_domain");
  if (PyObject* structured = option(options, "structured_output")) {
    request.structured_output = convert_argument<bool>(structured, "structured_output");
  }
  PyObject* timeout = option(options, "bulkhead_timeout");
  request.bulkhead_timeout =
      timeout ? convert_argument<double>(timeout, "bulkhead_timeout") : kDefaultBulkheadTimeout;
  return request;
}

// The options of every execution: what the caller gave, without the request id.
nb::dict execution_options(const CallArguments& given) {
  if (option(given.options, "cfg")) throw nb::type_error("cfg is not an option of a call");
  nb::dict options = nb::borrow<nb::dict>(given.options);
  put(options, "api_type", given.api_type);
  return options;
}

void fill(CallState& state, nb::handle engine, const CallArguments& given) {
  state.prompt = require_text(given.prompt, "prompt");
  state.model = require_text_or_none(given.model, "model");
  require_text(given.task_type, "task_type");
  require_text(given.api_type, "api_type");
  state.contract = require_contract(given.contract);
  nb::dict options = execution_options(given);
  state.request = request_of(given, options);
  if (state.request.request_id) nb::del(options["request_id"]);
  state.options = options;
  state.engine = nb::borrow(engine);
}

// The decoded body of that very attempt when the native exchange made it.
nb::object raw_response_of(const CallState& state) {
  return state.raw_response.is_valid() ? state.raw_response : state.native().last_raw_response;
}

nb::object result_of(CallState& state, CallAnswered& answered) {
  CallResult result;
  result.text = std::move(state.answer);
  result.provider = std::move(answered.provider);
  result.model = std::move(answered.model);
  result.original_provider = std::move(answered.original_provider);
  result.original_model = std::move(answered.original_model);
  result.latency_ms = answered.latency_ms;
  result.heal_level = std::move(answered.heal_level);
  result.semantic_domain = value_of(answered.domain);
  result.mapek_trace = to_dict(answered.trace);
  result.raw_response = raw_response_of(state);
  return nb::cast(std::move(result));
}

nb::object conclude(CallState& state, CallOutcome& outcome) {
  if (auto* answered = std::get_if<CallAnswered>(&outcome)) return result_of(state, *answered);
  const auto& failed = std::get<CallFailed>(outcome);
  switch (failed.kind) {
    case CallFailed::Kind::kProviderError:
      raise_object(state.error);
    case CallFailed::Kind::kRefused:
      break;
  }
  throw std::runtime_error(failed.message);
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

Exchange exchange_of(const ExecuteArguments& given) {
  if (!nb::isinstance<ProviderConfig>(given.cfg)) {
    refuse_argument("cfg", "ProviderConfig", given.cfg);
  }
  require_text(given.prompt, "prompt");
  require_text(given.model, "model");
  require_text(given.api_type, "api_type");
  return Exchange(*nb::inst_ptr<ProviderConfig>(given.cfg), given.prompt, given.model,
                  to_utf8(given.api_type), given.extra);
}

class ExecuteWork final : public CoroutineWork {
 public:
  ExecuteWork(nb::handle engine, const ExecuteArguments& arguments)
      : engine_(nb::borrow(engine)), exchange_(exchange_of(arguments)) {}
  const char* name() const override { return "_execute"; }
  const char* qualified_name() const override { return "SelfHealingEngine._execute"; }

  Task<nb::object> run(Suspension& suspension) override {
    return exchange_awaited(*nb::inst_ptr<Engine>(engine_), exchange_, suspension);
  }
  int traverse(visitproc visit, void* arg) override {
    Py_VISIT(engine_.ptr());
    return exchange_.traverse(visit, arg);
  }
  void clear() override {
    engine_.reset();
    exchange_.clear();
  }

 private:
  nb::object engine_;
  Exchange exchange_;
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

nb::object execute_blocking(nb::handle engine, const ExecuteArguments& arguments) {
  Exchange exchange = exchange_of(arguments);
  return exchange_blocking(*nb::inst_ptr<Engine>(engine), exchange);
}

nb::object execute_coroutine(nb::handle engine, const ExecuteArguments& arguments) {
  return make_coroutine(std::make_unique<ExecuteWork>(engine, arguments));
}

}  // namespace tarvomeldric::host
