#include <utility>

#include "host/calls/pipeline_operation.h"
#include "host/calls/stream_lease.h"
#include "host/interpreter/collected.h"

namespace tarvomeldric::host {
namespace {

// What a pass leaves of a stream, beside the state of every call.
struct StreamState {
  nb::object lease;
  std::optional<EndEvent> end;  // to be told once the answer has been read

  nb::object make_lease(const CallState& call, const ProviderPtr& provider, AdmittedSlot slot) {
    return nb::cast(new StreamLease(call.parts.diagnoser, provider, std::move(slot)),
                    nb::rv_policy::take_ownership);
  }
};

// The exchange of a stream, in both ways of waiting. It is always the engine's own: what replaces
// `_execute` gives no events.
template <class Base>
class StreamIo : public Base {
 public:
  template <class... Way>
  StreamIo(StreamState& stream, Way&... way) : Base(way...), stream_(stream) {}
  void hold(const ProviderPtr& provider, AdmittedSlot slot) override {
    stream_.lease = stream_.make_lease(this->state_, provider, std::move(slot));
  }
  void tell(const CallEvent& event) override {
    const auto* end = std::get_if<EndEvent>(&event);
    if (!end || end->outcome != "answered") return Base::tell(event);
    stream_.end = *end;
    stream_.end->first_output_s = end->duration_s;
    this->state_.untold_end.reset();
  }

 protected:
  void prepare(ProviderConfig& provider, const std::string& model, double limit_s) {
    drop(stream_.lease);
    this->prepare_exchange(provider, model, limit_s, Delivery::kStreamed);
    this->state_.exchange.timeout = this->state_.settings.attr("first_token_timeout");
    this->state_.raw_response = nb::borrow(Py_None);
  }

  StreamState& stream_;
};

// One of such an exchange beside another one.
struct OwnStream {
  StreamState own;
};
template <class Base>
struct StreamTwin final : OwnStream, Base {
  template <class... Way>
  explicit StreamTwin(Way&... way) : Base(own, way...) {}
};

class BlockingStreamIo : public StreamIo<BlockingIo> {
 public:
  using StreamIo::StreamIo;
  MakeIo twin() const override {
    return [](CallState& state, Suspension*) -> std::unique_ptr<CallIo> {
      return std::make_unique<StreamTwin<BlockingStreamIo>>(state);
    };
  }

 private:
  Task<nb::object> perform(ProviderPtr provider, std::string model, AttemptTerms terms) override {
    prepare(*provider, model, terms.limit_s);
    co_return open_blocking(state_.native(), state_.exchange, state_.settings, terms.whole);
  }
};

class AwaitingStreamIo : public StreamIo<AwaitingIo> {
 public:
  using StreamIo::StreamIo;
  MakeIo twin() const override {
    return [](CallState& state, Suspension* suspension) -> std::unique_ptr<CallIo> {
      return std::make_unique<StreamTwin<AwaitingStreamIo>>(state, *suspension);
    };
  }

 private:
  Task<nb::object> perform(ProviderPtr provider, std::string model, AttemptTerms terms) override {
    prepare(*provider, model, terms.limit_s);
    nb::object text = co_await open_awaited(state_.native(), state_.exchange, state_.settings,
                                            terms.whole, suspension_);
    co_return text;
  }
};

class StreamOperation final : public PipelineOperation {
 public:
  StreamOperation(const Caller& caller, nb::object settings, const Text& prompt,
                  const std::optional<Instance<Contract>>& contract, CallArguments given,
                  Relayed relayed = {})
      : PipelineOperation(caller, prompt, contract), request_(std::move(given.request)) {
    state_.options = std::move(given.execution);
    state_.relayed = std::move(relayed.encode);
    state_.headers = std::move(relayed.headers);
    state_.settings = std::move(settings);
    request_.policy = &state_.asked_policy();
    request_.streamed = true;
  }

  nb::object run_blocking() override {
    const double start_s = system_clock().monotonic();
    BlockingStreamIo io(stream_, state_);
    CallOutcome outcome;
    tarvomeldric::run_blocking(run_pipeline(io, outcome));
    return opened(outcome, start_s);
  }
  Task<nb::object> run(Suspension& suspension) override {
    const double start_s = system_clock().monotonic();
    AwaitingStreamIo io(stream_, state_, suspension);
    CallOutcome outcome;
    co_await run_pipeline(io, outcome);
    co_return opened(outcome, start_s);
  }
  int traverse(visitproc visit, void* arg) override {
    if (const int stop = Objects::traverse(stream_, visit, arg)) return stop;
    return PipelineOperation::traverse(visit, arg);
  }
  void clear() override {
    Objects::clear(stream_);
    PipelineOperation::clear();
  }

 private:
  using Objects = Held<&StreamState::lease>;

  Task<void> run_pipeline(Io& io, CallOutcome& outcome) override {
    return run_from_start(request_, io, outcome);
  }

  // A provider that answered has done its part, whatever becomes of the answer here.
  nb::object opened(CallOutcome& outcome, double start_s) {
    if (!std::holds_alternative<CallAnswered>(outcome) && stream_.lease.is_valid()) {
      nb::inst_ptr<StreamLease>(stream_.lease)->succeed(state_.attempts.back().duration_s * 1e3);
    }
    if (stream_.end) {
      nb::inst_ptr<StreamLease>(stream_.lease)->owe(state_.engine, std::move(*stream_.end));
    }
    const nb::object result = conclude(state_, outcome);
    nb::inst_ptr<CallResult>(result)->ttft_ms = (system_clock().monotonic() - start_s) * 1e3;
    return nb::make_tuple(result, state_.exchange.reply.attr("stream"), stream_.lease);
  }

  CallRequest request_;
  StreamState stream_;
};

}  // namespace

OperationPtr stream_operation(const Caller& caller, const Any& settings, const Text& prompt,
                              const std::optional<Text>& model, const Text& task_type,
                              bool has_schema, std::optional<SemanticDomain> semantic_domain,
                              const std::optional<Instance<Contract>>& contract,
                              const Text& api_type, const nb::kwargs& options) {
  return std::make_unique<StreamOperation>(
      caller, settings, prompt, contract,
      call_arguments(prompt, model, task_type, has_schema, semantic_domain, api_type, options));
}

OperationPtr relayed_stream(const Caller& caller, nb::object settings,
                            const std::optional<Instance<Contract>>& contract, CallRequest request,
                            nb::dict execution, Relayed relayed) {
  return std::make_unique<StreamOperation>(
      caller, std::move(settings), Text(from_utf8("")), contract,
      CallArguments{std::move(request), std::move(execution)}, std::move(relayed));
}

}  // namespace tarvomeldric::host
