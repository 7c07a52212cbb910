#pragma once

#include <string>

#include "host/interpreter/coroutine.h"
#include "host/interpreter/python.h"
#include "providers/provider_config.h"

namespace tarvomeldric::host {

class Engine;

// Whether an answer comes as one body, or as events while it is being made.
enum class Delivery { kWhole, kStreamed };

// One request to one provider, built and ready to be sent. Its host objects are members, visible to
// the garbage collector while an exchange is suspended.
struct Exchange {
  Endpoint endpoint;
  std::string api_type;
  nb::object client = nb::none();
  nb::object url = nb::none();
  nb::object headers = nb::none();
  nb::object body = nb::none();
  nb::object timeout = nb::none();
  nb::object decoded = nb::none();  // the reply's body, once it is there

  // `extra` are the keyword options of the call; all of them but `api_type` go into the body. A
  // streamed request is one of a chat, whatever its kind.
  Exchange(ProviderConfig& provider, nb::handle prompt, nb::handle model, const std::string& kind,
           nb::handle extra, Delivery delivery = Delivery::kWhole);
  Exchange() = default;

  int traverse(visitproc visit, void* arg);
  void clear();
};

// Sends the request and waits; the provider's answer, text or None. Every failure of the exchange
// is an APIError; what is no failure (an interrupt, a cancellation) passes through.
nb::object exchange_blocking(Engine& engine, Exchange& exchange);
// The same, awaited. `engine` and `exchange` outlive the task.
Task<nb::object> exchange_awaited(Engine& engine, Exchange& exchange, Suspension& suspension);

// A provider's answer as the text it is handed on as: an answer that is neither text nor None
// becomes its JSON text.
nb::object as_answer(nb::handle answer);

}  // namespace tarvomeldric::host
