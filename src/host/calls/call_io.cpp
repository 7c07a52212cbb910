#include "host/calls/call_io.h"

#include "host/calls/observation.h"
#include "host/calls/race.h"
#include "host/calls/reply.h"
#include "host/calls/stream_lease.h"
#include "host/interpreter/errors.h"
#include "host/interpreter/helpers.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {
namespace {

// An error of ours always has the attribute; one that a replacement raised may carry anything
// there.
std::optional<std::int64_t> status_of(nb::handle error) {
  const auto given =
      host_call([&] { return nb::steal(PyObject_GetAttrString(error.ptr(), "status_code")); });
  if (!given.is_valid()) {
    clear_failure();
    return std::nullopt;
  }
  return PyLong_Check(given.ptr()) ? Status{given}.code() : std::nullopt;
}

double end_of(double limit_s) {
  return limit_s == kUnlimited ? kUnlimited : system_clock().monotonic() + limit_s;
}

}  // namespace

Surroundings CallState::surroundings() {
  parts = static_cast<const Parts&>(native());
  registry.emplace(parts.providers);
  return parts.surroundings(*registry, native().counters, native().hedging);
}

const CallPolicy& CallState::asked_policy() const {
  return policy.is_valid() ? *nb::inst_ptr<CallPolicy>(policy) : default_policy();
}

void tell_of(CallState& state, const CallEvent& event) {
  state.untold_end.reset();
  if (!std::holds_alternative<EndEvent>(event)) {
    state.untold_end = std::visit([](const auto& one) { return one.call_id; }, event);
  }
  if (!is_observed(state.native())) return;
  tell_observers(state.native(), event);
}

Task<Attempt> CallIo::execute(ProviderPtr provider, std::string model, AttemptTerms terms) {
  drop(state_.raw_response);
  drop(state_.report);
  drop(state_.response);
  drop(state_.verdict);
  drop(state_.exchange.reply);
  Attempt attempt;
  try {
    co_await perform(provider, model, terms);
    if (!state_.report.is_valid()) state_.raw_response = state_.exchange.decoded;
    attempt.answer_length = state_.answer.is_none() ? 0 : text_length(state_.answer);
    attempt.status = Status{received("status"_key)}.code();
    state_.response = received("body"_key);
    if (state_.asked_policy().validate == Validation::kAll) {
      attempt.empty = is_empty_answer(state_.answer, state_.response);
    }
  } catch (nb::python_error& failure) {
    if (!failure.matches(error_types.api)) throw;
    state_.error = nb::borrow(failure.value());
    state_.own_error = !state_.report.is_valid();
    const double start_s = system_clock().monotonic();
    std::string text = text_form(state_.error);
    const double reading_s = system_clock().monotonic() - start_s;
    attempt.failure = ApiFailure{std::move(text), status_of(state_.error), reading_s, {}};
    if (state_.asked_policy().retry_after) {
      const nb::object told = call(Helper::kRetryAfter, received("headers"_key));
      if (!told.is_none()) attempt.failure->retry_after_s = nb::cast<double>(told);
    }
  }
  co_return attempt;
}

TokenUsage CallIo::tokens() const {
  return state_.response.is_valid() ? tokens_in(usage_of(state_.response)) : TokenUsage{};
}

nb::object CallIo::received(nb::handle what) const {
  if (state_.report.is_valid()) {
    const nb::handle reported = entry(state_.report, what);
    return reported ? nb::borrow(reported) : nb::none();
  }
  const nb::object& reply = state_.exchange.reply;
  return reply.is_valid() && !reply.is_none() ? nb::object(reply.attr(what)) : nb::none();
}

ContextValue CallIo::open_report(double limit_s) {
  nb::dict report;
  put(report, "engine"_key, state_.engine);
  if (limit_s != kUnlimited) {
    put(report, "end"_key, number(end_of(limit_s)));
  }
  state_.report = std::move(report);
  return {report_variable(), state_.report};
}

// The newest APIError is the cause; a broken contract before this one has it as its own.
void CallIo::put_newest(nb::object error) {
  nb::object cause = state_.error;
  if (cause.is_valid() && !PyErr_GivenExceptionMatches(cause.ptr(), error_types.api)) {
    cause = nb::steal(PyException_GetCause(cause.ptr()));
  }
  if (cause.is_valid()) PyException_SetCause(error.ptr(), cause.release().ptr());
  state_.error = std::move(error);
  state_.own_error = true;
}

void CallIo::refuse_empty(const std::string& provider) {
  put_newest(call(error_types.api, from_utf8("Empty answer from " + provider)));
}

void CallIo::refuse_broken(const std::string& message) {
  const std::string verdict = text_form(call(state_.verdict.attr("to_dict")));
  put_newest(call(error_types.contract_violation, from_utf8(message + verdict),
                  "contract_result"_a = state_.verdict));
}

bool CallIo::contract_has_schema() const {
  return has_contract() && is_true(state_.contract.attr("output_schema"));
}

// Once for each answer. A null one is held against the contract as an empty one.
bool CallIo::validate() {
  if (state_.verdict.is_valid()) return is_true(state_.verdict.attr("passed"));
  const nb::object output = state_.answer.is_none() ? from_utf8("") : state_.answer;
  state_.verdict = call(state_.contract.attr("validate"), output);
  return is_true(state_.verdict.attr("passed"));
}

// Whatever goes wrong with the collector changes nothing for the caller; an interrupt still passes.
void CallIo::report(const Recovery& recovery) {
  quietly([&] {
    const nb::object record = state_.native().telemetry_collector().attr("record_fault");
    call(record, "fault_type"_a = from_utf8(recovery.fault_type),
         "provider"_a = from_utf8(recovery.provider), "model"_a = from_utf8(recovery.model),
         "recovery_action"_a = recovery.action.c_str(), "recovery_ok"_a = true,
         "latency_ms"_a = recovery.latency_ms, "sub_category"_a = from_utf8(recovery.sub_category));
  });
}

void CallIo::hold(const ProviderPtr& provider, AdmittedSlot slot) {
  state_.lease = nb::cast(new StreamLease(state_.parts.diagnoser, provider, std::move(slot)),
                          nb::rv_policy::take_ownership);
}

// That a stream was answered is told when it has been read.
void CallIo::tell(const CallEvent& event) {
  const auto* end = state_.settings.is_valid() ? std::get_if<EndEvent>(&event) : nullptr;
  if (!end || end->outcome != "answered") return tell_of(state_, event);
  state_.owed_end = *end;
  state_.owed_end->first_output_s = end->duration_s;
  state_.untold_end.reset();
}

// The type's attribute counts as well as the instance's: either may have been replaced.
nb::object CallIo::replacement() const {
  if (state_.relayed.is_valid()) return {};  // it would have no bytes to give
  const nb::handle engine = state_.engine;
  const Seam& seam = suspension_ ? execute_seam : execute_sync_seam;
  const nb::object members = made(PyObject_GenericGetDict(engine.ptr(), nullptr));
  const bool on_instance = entry(members, seam.name).is_valid();
  if (!on_instance && nb::getattr(engine.type(), seam.name).is(seam.native)) return {};
  return nb::getattr(engine, seam.name);
}

void CallIo::prepare_exchange(ProviderConfig& provider, const std::string& model,
                              AttemptTerms terms) {
  const nb::handle given = entry(state_.options, "api_type"_key);
  const std::string api_type = given ? to_utf8(given) : "chat";
  const nb::str name = from_utf8(model);
  if (state_.relayed.is_valid()) {
    state_.exchange =
        Exchange(provider, call(state_.relayed, name), api_type, state_.headers, state_.options);
  } else {
    const Delivery delivery = state_.settings.is_valid() ? Delivery::kStreamed : Delivery::kWhole;
    state_.exchange = Exchange(provider, state_.prompt, name, api_type, state_.options, delivery);
  }
  // A policy's own time-out takes the place of the usual one.
  const auto& attempt_timeout_s = state_.asked_policy().attempt_timeout_s;
  if (attempt_timeout_s && !entry(state_.options, "timeout"_key)) {
    state_.exchange.timeout = number(*attempt_timeout_s);
  }
  if (state_.settings.is_valid()) {
    state_.exchange.settings = state_.settings;
    state_.exchange.timeout = state_.settings.attr("first_token_timeout");
    state_.exchange.whole = terms.whole;
  }
  state_.exchange.bound(terms.limit_s);
  if (state_.abort.is_valid()) state_.exchange.abort = state_.abort;
}

void CallIo::learn_later(Outcome outcome) {
  if (!learner().keep(std::move(outcome))) return;
  try {
    call(Helper::kHandOver, state_.parts.learner, "_record_kept");
  } catch (...) {
    learner().forget_kept();
    throw;
  }
}

nb::object CallIo::call_replacement(nb::handle replacement, const ProviderPtr& provider,
                                    const std::string& model) const {
  return host_call([&]() -> nb::object {
    return replacement(nb::cast(provider), state_.prompt, from_utf8(model), **state_.options);
  });
}

Task<void> CallIo::sleep(double seconds) {
  if (suspension_) return sleep_awaited(seconds);
  call(import("time").attr("sleep"), seconds);
  return {};
}

Task<void> CallIo::sleep_awaited(double seconds) {
  PythonAwait sleeping(*suspension_, call(import("asyncio").attr("sleep"), seconds));
  co_await sleeping;
}

Task<bool> CallIo::wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout_s) {
  if (!suspension_) co_return semaphore->acquire(timeout_s);
  if (!(timeout_s > 0)) co_return semaphore->take_any();
  PythonAwait waiting(*suspension_, call(Helper::kWaitForPermit, semaphore, timeout_s));
  const nb::object granted = co_await waiting;
  co_return granted.is(nb::handle(Py_True));
}

// What would hold up the event loop is done by the learner's worker thread, in order.
Task<void> CallIo::learn(Outcome outcome) {
  if (hurried() && (learner().would_wait() || learner().would_write())) {
    learn_later(std::move(outcome));
    return {};
  }
  if (suspension_ && learner().would_wait()) return learn_in_worker(std::move(outcome));
  learner().record(outcome);
  return {};
}

Task<void> CallIo::learn_in_worker(Outcome outcome) {
  PythonAwait recording(
      *suspension_,
      call(Helper::kInWorker, state_.parts.learner, "record", from_utf8(outcome.error_pattern),
           from_utf8(outcome.action), outcome.success, outcome.heal_time_ms));
  co_await recording;
}

Task<void> CallIo::advise(std::string error_pattern, std::optional<Advice>& advice) {
  if (learner().try_advise(error_pattern, advice) || hurried()) return {};
  if (suspension_) return advise_in_worker(std::move(error_pattern), advice);
  advice = learner().advise(error_pattern);
  return {};
}

Task<void> CallIo::advise_in_worker(std::string error_pattern, std::optional<Advice>& advice) {
  PythonAwait advising(*suspension_, call(Helper::kInWorker, state_.parts.learner, "_advise",
                                          from_utf8(error_pattern)));
  const nb::object advised = co_await advising;
  if (advised.is_none()) co_return;
  advice =
      Advice{to_utf8(item(advised, nb::int_(0))), nb::cast<double>(item(advised, nb::int_(1)))};
}

Task<void> CallIo::perform(const ProviderPtr& provider, const std::string& model,
                           AttemptTerms terms) {
  nb::object replaced;
  if (!state_.settings.is_valid()) replaced = replacement();  // it gives no events
  if (!replaced.is_valid()) {
    drop(state_.lease);
    prepare_exchange(*provider, model, terms);
    return send(state_.native(), state_.exchange, suspension_, state_.answer);
  }
  const double end_s = end_of(terms.limit_s);
  const ContextValue context = open_report(terms.limit_s);
  const ContextScope scope(context);
  nb::object given = call_replacement(replaced, provider, model);
  if (suspension_) {
    return await_replacement(std::move(given), context, terms.limit_s, end_s, provider->name());
  }
  state_.answer = as_answer(given);
  return {};
}

Task<void> CallIo::await_replacement(nb::object answering, ContextValue context, double limit_s,
                                     double end_s, std::string provider) {
  PythonAwait replying(*suspension_, answering, context, end_s);
  drop(answering);
  const nb::object answer = co_await replying;
  if (answer.is(nb::handle(Py_NotImplemented))) raise_timeout(nb::none(), limit_s, provider);
  state_.answer = as_answer(answer);
}

}  // namespace tarvomeldric::host
