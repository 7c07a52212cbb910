#include <utility>

#include "host/calls/exchange.h"
#include "host/calls/operation.h"
#include "host/interpreter/collected.h"
#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

class ExecuteOperation final : public CoroutineWork {
 public:
  ExecuteOperation(nb::handle engine, Exchange exchange)
      : engine_(nb::borrow(engine)), exchange_(std::move(exchange)) {}

  Task<void> run(Suspension* suspension) override {
    exchange_.report_to_replacement(engine_);
    return send(*nb::inst_ptr<Engine>(engine_), exchange_, suspension, answer_);
  }
  nb::object result() override { return std::move(answer_); }
  int traverse(visitproc visit, void* arg) override {
    Py_VISIT(engine_.ptr());
    Py_VISIT(answer_.ptr());
    return visit_python(exchange_, visit, arg);
  }

 private:
  nb::object engine_;
  Exchange exchange_;
  nb::object answer_;
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
