#include <memory>
#include <utility>

#include "host/calls/engine_call.h"
#include "host/calls/exchange.h"
#include "host/interpreter/helpers.h"
#include "host/records/argument.h"
#include "host/records/records.h"

// One request to one provider, as Python code may make it without a call around it.
namespace tarvomeldric::host {
namespace {

Exchange exchange_of(const ExecuteArguments& given, Delivery delivery = Delivery::kWhole) {
  auto& provider = require<ProviderConfig>(given.cfg, "cfg");
  require_text(given.prompt, "prompt");
  require_text(given.model, "model");
  require_text(given.api_type, "api_type");
  return Exchange(provider, given.prompt, given.model, to_utf8(given.api_type), given.extra,
                  delivery);
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
    drop(engine_);
    exchange_.clear();
  }

 private:
  nb::object engine_;
  Exchange exchange_;
};

}  // namespace

nb::object execute_blocking(nb::handle engine, const ExecuteArguments& arguments) {
  Exchange exchange = exchange_of(arguments);
  return exchange_blocking(*nb::inst_ptr<Engine>(engine), exchange);
}

nb::object execute_coroutine(nb::handle engine, const ExecuteArguments& arguments) {
  return make_coroutine(std::make_unique<ExecuteWork>(engine, arguments));
}

nb::object execute_stream(nb::handle engine, const ExecuteArguments& arguments) {
  const Exchange exchange = exchange_of(arguments, Delivery::kStreamed);
  return call(Helper::kExecuteStream, engine, from_utf8(exchange.endpoint.name), exchange.url,
              exchange.body, exchange.headers, exchange.timeout);
}

}  // namespace tarvomeldric::host
