#include "host/calls/exchange.h"

#include <algorithm>
#include <cmath>

#include "host/calls/engine.h"
#include "host/calls/reply.h"
#include "host/interpreter/errors.h"
#include "host/interpreter/helpers.h"
#include "host/records/views.h"
#include "providers/limits.h"
#include "providers/request_shape.h"
#include "support/clock.h"
#include "support/text.h"

namespace tarvomeldric::host {
namespace {

constexpr long kOk = 200;
constexpr long kRequestTimeout = 408;

// The provider's own take the place of others with their names.
nb::dict header_dict(const Endpoint& endpoint, const nb::dict& more = {}) {
  nb::dict headers;
  const Headers own = request_headers(endpoint);
  for (auto [name, value] : more) {
    const std::string lowered = text::lower(to_utf8(name));
    const bool taken = std::ranges::any_of(
        own, [&](const auto& header) { return text::lower(header.first) == lowered; });
    if (!taken) headers[name] = value;
  }
  for (const auto& [name, value] : own) headers[from_utf8(name)] = from_utf8(value);
  return headers;
}

nb::object url_of(const Endpoint& endpoint, std::string_view api_type) {
  std::string url = endpoint.base_url + std::string(endpoint_path(api_type));
  if (!endpoint.extra_query.empty()) {
    const nb::object encode = import("urllib.parse").attr("urlencode");
    url += "?" + to_utf8(call(encode, dict_of(endpoint.extra_query)));
  }
  return from_utf8(url);
}

nb::dict body_dict(RequestKind kind, nb::handle prompt, nb::handle model, nb::handle extra,
                   Delivery delivery) {
  const bool streamed = delivery == Delivery::kStreamed;
  if (streamed) kind = RequestKind::kChat;
  nb::dict body;
  put(body, "model"_key, model);
  if (kind == RequestKind::kEmbeddings) put(body, "input"_key, prompt);
  if (kind == RequestKind::kImages) put(body, "prompt"_key, prompt);
  if (kind == RequestKind::kChat) {
    nb::dict message;
    put(message, "role"_key, "user"_key);
    put(message, "content"_key, prompt);
    nb::list messages;
    messages.append(message);
    put(body, "messages"_key, messages);
  }
  if (streamed) put(body, "stream"_key, truth(true));
  for (auto [name, value] : nb::borrow<nb::dict>(extra)) {
    if (PyUnicode_Compare(name.ptr(), "api_type"_key.ptr()) != 0) body[name] = value;
  }
  return body;
}

nb::object timeout_in(nb::handle options) {
  const nb::handle given = entry(options, "timeout"_key);
  return given ? nb::borrow(given) : number(kProviderTimeoutSeconds);
}

nb::object first(nb::handle container) { return item(container, nb::int_(0)); }

nb::object image_answer(nb::handle image) {
  nb::object url = call(image.attr("get"), "url");
  if (is_true(url)) return url;
  return call(image.attr("get"), "b64_json", "");
}

nb::object answer_in(RequestKind kind, nb::handle reply) {
  switch (kind) {
    case RequestKind::kEmbeddings:
      return item(first(item(reply, "data")), "embedding");
    case RequestKind::kImages:
      return image_answer(first(item(reply, "data")));
    case RequestKind::kAudio:
      return call(reply.attr("get"), "text", "");
    case RequestKind::kChat:
      break;
  }
  return item(item(first(item(reply, "choices")), "message"), "content");
}

void check_status(const Exchange& exchange) {
  const long status = nb::cast<long>(exchange.reply.attr("status"));
  if (status == kOk) return;
  raise_api_error(status_message(status, to_utf8(exchange.reply.attr("body"))), status);
}

nb::object read_reply(Engine& engine, Exchange& exchange) {
  check_status(exchange);
  if (exchange.settings.is_valid()) return exchange.reply.attr("stream").attr("text");
  exchange.decoded = exchange.reply.attr("body");
  engine.last_raw_response = exchange.decoded;
  const RequestKind kind = request_kind(exchange.api_type);
  const bool relayed = PyBytes_Check(exchange.body.ptr()) != 0;
  return as_answer(relayed && kind == RequestKind::kChat ? words_in(exchange.decoded)
                                                         : answer_in(kind, exchange.decoded));
}

// What a failed exchange is reported as. Nothing of the failure but its type and the part of its
// text that may be shown goes into the new error.
[[noreturn]] void raise_failure(nb::python_error& failure, const Exchange& exchange,
                                bool asynchronous) {
  if (!failure.matches(PyExc_Exception) || failure.matches(error_types.api)) throw;
  if (nb::cast<bool>(call(Helper::kIsTimeout, failure.value(), asynchronous))) {
    raise_timeout(exchange.timeout, exchange.limit_s, exchange.endpoint.name);
  }
  raise_api_error(failure_message(failure.value(), exchange.endpoint), std::nullopt);
}

// The package's own answer, or what it is awaited by.
nb::object post(const Exchange& exchange, nb::handle client, bool awaited) {
  const auto by = [&](Helper helper, const auto&... more) {
    return call(helper, client, exchange.url, exchange.body, exchange.headers, more...);
  };
  const nb::object left = exchange.left();
  if (exchange.settings.is_valid()) {
    const nb::object whole = truth(exchange.whole);
    return awaited ? by(Helper::kOpenStreamAwaited, exchange.settings, left, whole)
                   : by(Helper::kOpenStream, exchange.settings, left, whole, exchange.abort);
  }
  return awaited ? by(Helper::kPostAwaited, exchange.timeout, left, exchange.report)
                 : by(Helper::kPost, exchange.timeout, left, exchange.report, exchange.abort);
}

// The client is the pooled one of the running loop.
Task<void> send_awaited(Engine& engine, Exchange& exchange, Suspension& suspension,
                        nb::object& answer) {
  try {
    exchange.client = engine.find_session(exchange.endpoint.name);
    if (exchange.client.is_none()) {
      PythonAwait session(suspension, engine.session(exchange.endpoint.name));
      exchange.client = co_await session;
    }
    PythonAwait posting(suspension, post(exchange, exchange.client, true));
    exchange.reply = co_await posting;
    answer = read_reply(engine, exchange);
  } catch (nb::python_error& failure) {
    raise_failure(failure, exchange, true);
  }
}

}  // namespace

Exchange::Exchange(ProviderConfig& provider, nb::handle prompt, nb::handle model,
                   const std::string& kind, nb::handle extra, Delivery delivery)
    : api_type(kind) {
  endpoint = provider.endpoint();
  url = url_of(endpoint, api_type);
  headers = header_dict(endpoint);
  body = body_dict(request_kind(api_type), prompt, model, extra, delivery);
  timeout = timeout_in(extra);
}

Exchange::Exchange(ProviderConfig& provider, nb::object content, const std::string& kind,
                   nb::handle more, nb::handle extra)
    : endpoint(provider.endpoint()), api_type(kind), body(std::move(content)) {
  url = url_of(endpoint, api_type);
  headers = header_dict(endpoint, nb::borrow<nb::dict>(more));
  timeout = timeout_in(extra);
}

// Not a static that is initialised: others may run while the module is imported.
nb::handle report_variable() {
  static PyObject* variable = nullptr;
  if (!variable) {
    PyObject* found = helper(Helper::kSeamReport).release().ptr();
    if (!variable) variable = found;
  }
  return variable;
}

void Exchange::report_to_replacement(nb::handle engine) {
  PyObject* found = nullptr;
  if (PyContextVar_Get(report_variable().ptr(), Py_None, &found) < 0) throw nb::python_error();
  nb::object current = nb::steal(found);
  if (!PyDict_Check(current.ptr()) || !entry(current, "engine"_key).is(engine)) return;
  report = std::move(current);
  const nb::handle end = entry(report, "end"_key);
  if (end) bound(nb::cast<double>(end) - system_clock().monotonic());
}

void Exchange::bound(double seconds) {
  limit_s = seconds;
  end_s_ = system_clock().monotonic() + seconds;
}

nb::object Exchange::left() const {
  return limit_s == kUnlimited ? nb::none() : number(end_s_ - system_clock().monotonic());
}

Task<void> send(Engine& engine, Exchange& exchange, Suspension* suspension, nb::object& answer) {
  if (suspension) return send_awaited(engine, exchange, *suspension, answer);
  try {
    exchange.reply = post(exchange, engine.sync_client(exchange.endpoint.name), false);
    answer = read_reply(engine, exchange);
  } catch (nb::python_error& failure) {
    raise_failure(failure, exchange, false);
  }
  return {};
}

std::string failure_message(nb::handle failure, const Endpoint& endpoint) {
  const std::string type = to_utf8(failure.type().attr("__name__"));
  return type + ": " + shown_failure(text_form(failure), endpoint);
}

void raise_timeout(nb::handle timeout, double limit_s, const std::string& provider) {
  double seconds = 0.0;
  const bool own =
      limit_s == kUnlimited || (Convert<double>::from(timeout, seconds) && seconds <= limit_s);
  const nb::object over = own ? nb::borrow(timeout) : number(std::round(limit_s * 1e3) / 1e3);
  raise_api_error(timeout_message(text_form(over), provider), kRequestTimeout);
}

nb::object as_answer(nb::handle answer) {
  if (answer.is_none() || PyUnicode_Check(answer.ptr())) return nb::borrow(answer);
  return call(import("json").attr("dumps"), answer);
}

}  // namespace tarvomeldric::host
