#pragma once

#include <optional>
#include <utility>

#include "host/calls/call_io.h"
#include "host/calls/conclusion.h"
#include "host/calls/operation.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {

// An operation that goes through the pipeline and ends in a CallResult, or a tuple that begins with
// one.
class PipelineOperation : public Operation {
 public:
  nb::object run_blocking() override {
    BlockingIo io(state_);
    CallOutcome outcome;
    tarvomeldric::run_blocking(run_pipeline(io, outcome));
    return concluded(outcome);
  }
  Task<nb::object> run(Suspension& suspension) override {
    AwaitingIo io(state_, suspension);
    CallOutcome outcome;
    co_await run_pipeline(io, outcome);
    co_return concluded(outcome);
  }
  // Listeners hear of the end even so.
  void dropped() override {
    if (!state_.untold_end) return;
    tell_of(state_, EndEvent{*state_.untold_end, "abandoned", 0.0});
  }
  int traverse(visitproc visit, void* arg) override { return state_.traverse(visit, arg); }
  void clear() override { state_.clear(); }

 protected:
  PipelineOperation(const Caller& caller, const Text& prompt,
                    const std::optional<Instance<Contract>>& contract) {
    state_.engine = nb::borrow(caller.engine);
    state_.policy = nb::borrow(caller.policy);
    state_.prompt = prompt;
    state_.contract = object_or_none(contract);
  }
  virtual Task<void> run_pipeline(Io& io, CallOutcome& outcome) = 0;
  // A call from its beginning, with a trace for its result.
  Task<void> run_from_start(const CallRequest& request, Io& io, CallOutcome& outcome) {
    state_.trace = std::make_shared<MapeKTrace>();
    return run_call(request, state_.surroundings(), io, *state_.trace, outcome);
  }
  virtual nb::object concluded(CallOutcome& outcome) { return conclude(state_, outcome); }

  CallState state_;
};

// What a call's arguments come to: what steers it, and what every execution of it is given.
struct CallArguments {
  CallRequest request;
  nb::dict execution;
};
// A body of somebody else's that is to be sent as it is, and where to.
struct Relayed {
  nb::object encode;  // gives the bytes for a model
  nb::object headers;
};
// The streamed form of such a call.
OperationPtr relayed_stream(const Caller& caller, nb::object settings,
                            const std::optional<Instance<Contract>>& contract, CallRequest request,
                            nb::dict execution, Relayed relayed);

CallArguments call_arguments(const Text& prompt, const std::optional<Text>& model,
                             const Text& task_type, bool has_schema,
                             std::optional<SemanticDomain> semantic_domain, const Text& api_type,
                             const nb::kwargs& options);

}  // namespace tarvomeldric::host
