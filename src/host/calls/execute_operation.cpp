#include <utility>

#include "host/calls/exchange.h"
#include "host/calls/operation.h"
#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

class ExecuteOperation final : public Operation {
 public:
  ExecuteOperation(nb::handle engine, Exchange exchange)
      : engine_(nb::borrow(engine)), exchange_(std::move(exchange)) {}

  nb::object run_blocking() override {
    exchange_.report_to_replacement(engine_);
    return exchange_blocking(native(), exchange_);
  }
  Task<nb::object> run(Suspension& suspension) override {
    exchange_.report_to_replacement(engine_);
    return exchange_awaited(native(), exchange_, suspension);
  }
  int traverse(visitproc visit, void* arg) override {
    Py_VISIT(engine_.ptr());
    return exchange_.traverse(visit, arg);
  }
  void clear() override {
    drop(engine_);
    exchange_.clear();
  }

 private:
  Engine& native() const { return *nb::inst_ptr<Engine>(engine_); }

  nb::object engine_;
  Exchange exchange_;
};

}  // namespace

OperationPtr execute_operation(const Caller& caller, const Instance<ProviderConfig>& cfg,
                               const Text& prompt, const Text& model, const Text& api_type,
                               const nb::kwargs& extra) {
  return std::make_unique<ExecuteOperation>(
      caller.engine, Exchange(*cfg, prompt, model, to_utf8(api_type), extra));
}

nb::object execute_stream(nb::handle engine, const Instance<ProviderConfig>& cfg,
                          const Text& prompt, const Text& model, const Text& api_type,
                          const nb::kwargs& extra) {
  const Exchange exchange(*cfg, prompt, model, to_utf8(api_type), extra, Delivery::kStreamed);
  return call(Helper::kExecuteStream, engine, from_utf8(exchange.endpoint.name), exchange.url,
              exchange.body, exchange.headers, exchange.timeout);
}

}  // namespace tarvomeldric::host
