#include <memory>
#include <utility>

#include "engine/failover.h"
#include "host/calls/call_io.h"
#include "host/calls/conclusion.h"
#include "host/calls/engine_call.h"
#include "host/records/argument.h"
#include "host/records/records.h"

// A failover that Python code starts by hand.
namespace tarvomeldric::host {
namespace {

std::string text(nb::handle given, const char* name) { return to_utf8(require_text(given, name)); }

FailoverRequest request_of(const FailoverArguments& given) {
  FailoverRequest request;
  require_text(given.prompt, "prompt");
  request.prompt_length = text_length(given.prompt);
  if (const auto model = convert_argument<std::optional<std::string>>(given.model, "model")) {
    request.model = *model;
  }
  request.failed_provider = text(given.failed_provider, "failed_provider");
  request.diagnosis = require<Diagnosis>(given.diag, "diag");
  CallFacts& facts = request.facts;
  facts.classification = require<SemanticClassification>(given.sem_class, "sem_class");
  facts.original_provider = text(given.original_provider, "original_provider");
  facts.original_model = text(given.original_model, "original_model");
  require_text(given.request_id, "request_id");
  if (!given.trace.is_none()) facts.trace = &require<MapeKTrace>(given.trace, "trace");
  facts.start_s =
      convert_argument<std::optional<double>>(given.call_start, "call_start").value_or(0.0);
  return request;
}

struct FailoverCall {
  CallState state;
  FailoverRequest request;

  FailoverCall(nb::handle engine, const FailoverArguments& given) : request(request_of(given)) {
    state.contract = require_or_none<Contract>(given.contract, "contract");
    state.engine = nb::borrow(engine);
    state.prompt = nb::borrow(given.prompt);
    state.fault = nb::borrow(given.diag);
    state.trace = nb::borrow(given.trace);
    state.options = nb::borrow<nb::dict>(given.options);
    if (const nb::handle kind = entry(given.options, "api_type"_key)) {
      require_text(kind, "api_type");
    }
  }
};

class FailoverWork final : public CoroutineWork {
 public:
  FailoverWork(nb::handle engine, const FailoverArguments& arguments) : call_(engine, arguments) {}
  const char* name() const override { return "_failover"; }
  const char* qualified_name() const override { return "SelfHealingEngine._failover"; }

  Task<nb::object> run(Suspension& suspension) override {
    AwaitingIo io(call_.state, suspension);
    CallOutcome outcome = co_await run_failover(call_.request, call_.state.surroundings(), io);
    co_return conclude(call_.state, outcome);
  }
  int traverse(visitproc visit, void* arg) override { return call_.state.traverse(visit, arg); }
  void clear() override { call_.state.clear(); }

 private:
  FailoverCall call_;
};

}  // namespace

nb::object failover_blocking(nb::handle engine, const FailoverArguments& arguments) {
  FailoverCall call(engine, arguments);
  BlockingIo io(call.state);
  CallOutcome outcome = run_blocking(run_failover(call.request, call.state.surroundings(), io));
  return conclude(call.state, outcome);
}

nb::object failover_coroutine(nb::handle engine, const FailoverArguments& arguments) {
  return make_coroutine(std::make_unique<FailoverWork>(engine, arguments));
}

}  // namespace tarvomeldric::host
