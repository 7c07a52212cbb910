#pragma once

#include <string>
#include <tuple>

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
  nb::object report = nb::none();   // where what is received is told, if anywhere
  nb::object reply = nb::none();    // the package's AttemptContext, once it is over
  nb::object abort = nb::none();    // what another thread ends it by, if anything
  nb::object decoded = nb::none();  // the answer's body, once it is there
  // Of the package's own stream, where the answer is streamed; and whether it is read to its end
  // rather than to its first output.
  nb::object settings;
  bool whole = false;
  double limit_s = kUnlimited;  // seconds, beside the request's own time-out

  // `extra` are the keyword options of the call; all of them but `api_type` go into the body. A
  // streamed request is one of a chat, whatever its kind.
  Exchange(ProviderConfig& provider, nb::handle prompt, nb::handle model, const std::string& kind,
           nb::handle extra, Delivery delivery = Delivery::kWhole);
  Exchange() = default;

  // A request whose body is there, as bytes, and whose answer is wanted as it comes. `more` headers
  // go out beside the provider's own.
  Exchange(ProviderConfig& provider, nb::object content, const std::string& kind, nb::handle more,
           nb::handle extra);

  // Tells what it receives to the code that waits for the replacement of this engine's execution
  // below which it is made, and keeps within their limit; does nothing elsewhere.
  void report_to_replacement(nb::handle engine);

  // Who waits for the exchange waits so long from now, and no longer.
  void bound(double seconds);
  // What is left of that; None when there is no bound.
  nb::object left() const;

  auto held() {
    return std::tie(client, url, headers, body, timeout, report, reply, abort, decoded, settings);
  }

 private:
  double end_s_ = kUnlimited;  // monotonic, seconds
};

// Sends the request. The answer is the provider's, text or None; of one that is streamed, the text
// so far: the rest is in the exchange's reply. Every failure of the exchange is an APIError; what
// is no failure (an interrupt, a cancellation) passes through. All that is handed in outlives the
// task, which is over already where there is no suspension.
Task<void> send(Engine& engine, Exchange& exchange, Suspension* suspension, nb::object& answer);

// What may be shown of a failure: its type, and its text where that holds no secret.
std::string failure_message(nb::handle failure, const Endpoint& endpoint);

// An attempt took longer than its time-out, or than the limit in seconds where that is shorter.
[[noreturn]] void raise_timeout(nb::handle timeout, double limit_s, const std::string& provider);

// The context variable that stands on the report while a replacement runs.
nb::handle report_variable();

// A provider's answer as the text it is handed on as: an answer that is neither text nor None
// becomes its JSON text.
nb::object as_answer(nb::handle answer);

}  // namespace tarvomeldric::host
