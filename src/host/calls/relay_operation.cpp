#include <utility>

#include "host/calls/pipeline_operation.h"

namespace tarvomeldric::host {
namespace {

constexpr double kSlotWaitSeconds = 1.0;

// A call whose body and answer are handed on as they are.
class RelayOperation final : public PipelineOperation {
 public:
  RelayOperation(const Caller& caller, const std::optional<Instance<Contract>>& contract,
                 CallRequest request, nb::dict execution, Relayed relayed)
      : PipelineOperation(caller, Text(from_utf8("")), contract), request_(std::move(request)) {
    state_.options = std::move(execution);
    state_.relayed = std::move(relayed.encode);
    state_.headers = std::move(relayed.headers);
    request_.policy = &state_.asked_policy();
  }

 private:
  Task<void> run_pipeline(Io& io, CallOutcome& outcome) override {
    return run_from_start(request_, io, outcome);
  }
  nb::object concluded(CallOutcome& outcome) override {
    return nb::make_tuple(conclude(state_, outcome), state_.exchange.reply);
  }

  CallRequest request_;
};

}  // namespace

OperationPtr relay_operation(const Caller& caller, const std::optional<Any>& settings,
                             const Any& encode, const OrderedMap<std::string>& route,
                             const Any& headers, const std::string& model,
                             std::int64_t prompt_length, const std::string& api_type,
                             const std::string& task_type, bool has_schema,
                             const std::optional<Instance<Contract>>& contract,
                             const std::optional<std::string>& request_id) {
  CallRequest request;
  request.request_id = request_id;
  request.prompt_length = static_cast<std::size_t>(prompt_length);
  request.model = model;
  request.api_type = api_type;
  request.task_type = task_type;
  request.has_schema = has_schema;
  request.bulkhead_timeout_s = kSlotWaitSeconds;
  request.route = route;
  nb::dict execution;
  put(execution, "api_type"_key, from_utf8(api_type));
  Relayed relayed{encode, headers};
  if (settings) {
    return relayed_stream(caller, *settings, contract, std::move(request), std::move(execution),
                          std::move(relayed));
  }
  return std::make_unique<RelayOperation>(caller, contract, std::move(request),
                                          std::move(execution), std::move(relayed));
}

}  // namespace tarvomeldric::host
