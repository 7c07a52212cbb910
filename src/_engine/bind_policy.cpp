#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/policy.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

void bind_retry_budget(nb::module_& module) {
  nb::class_<RetryBudget> cls(
      module, "RetryBudget",
      "What retries may cost, counted over many calls and engines.\n\n"
      "Each call adds `ratio`, each second `min_retries_per_second`; each request after a call's\n"
      "first takes 1. It holds `burst` at most, and at first. Safe to share between threads.");
  def(
      cls, "__init__",
      [](RetryBudget* self, double ratio, double per_second, double burst) {
        new (self) RetryBudget({ratio, per_second, burst});
      },
      "ValueError for a figure that is negative or not finite.", arg("ratio") = 0.2,
      arg("min_retries_per_second") = 1.0, arg("burst") = 10.0);
  const auto figure = [&](const char* name, double RetryBudgetFields::*member, const char* doc) {
    cls.def_prop_ro(
        name, [member](const RetryBudget& self) { return self.snapshot().*member; }, doc);
  };
  figure("ratio", &RetryBudgetFields::ratio, "Retries that each call earns.");
  figure("min_retries_per_second", &RetryBudgetFields::min_retries_per_second,
         "Retries that time earns.");
  figure("burst", &RetryBudgetFields::burst, "The most that can be saved up.");
  cls.def_prop_ro("level", &RetryBudget::level, "The retries that could be made now.");
  cls.def(
      "__reduce__",
      [](const nb::pointer_and_handle<RetryBudget> self) {
        const RetryBudgetFields figures = self.p->snapshot();
        return nb::make_tuple(
            self.h.type(),
            nb::make_tuple(figures.ratio, figures.min_retries_per_second, figures.burst));
      },
      nb::sig("def __reduce__(self) -> tuple[typing.Any, ...]"),
      "A copy has the same figures, and is as full as a new one.");
}

// A policy does not change, so its list is a tuple.
nb::object names_of(const CallPolicy& policy) {
  return policy.providers ? nb::object(nb::tuple(list_of(*policy.providers))) : nb::none();
}

Field providers_field() {
  Field listed = field<&CallPolicy::providers>("providers", "only these, in this order",
                                               "collections.abc.Sequence[str] | None");
  listed.plain = [](void* fields) { return names_of(*static_cast<CallPolicy*>(fields)); };
  listed.live = [](nb::handle, void* fields) {
    return names_of(*static_cast<CallPolicy*>(fields));
  };
  return listed;
}

// The type's own constructor checks what comes out.
Annotated<"CallPolicy"> replaced(nb::handle_t<CallPolicy> self, const nb::kwargs& changes) {
  nb::dict fields = record_table<CallPolicy>->dict(nb::inst_ptr<CallPolicy>(self));
  for (auto [name, value] : changes) fields[name] = value;
  return call(self.type(), **fields);
}

}  // namespace

void bind_policy(nb::module_& module) {
  bind_retry_budget(module);
  using P = CallPolicy;
  auto cls = bind_frozen<P>(
      module,
      "What a call may cost, and how it is healed.\n\n"
      "The defaults are what the engine does without a policy. Never changed once made, compared\n"
      "by value. ValueError names a field that is not positive, not finite or not one of the\n"
      "words; TypeError one of the wrong type.",
      {field<&P::deadline_s>("deadline", "seconds for the whole call"),
       field<&P::attempt_timeout_s>("attempt_timeout", "seconds for one request; never sent"),
       field<&P::max_attempts>("max_attempts", "requests, over all providers"),
       field<&P::max_retries>("max_retries", "retries on the same provider"),
       field<&P::initial_backoff_s>("initial_backoff",
                                    "seconds before the first retry, doubled for each that\n"
                                    "        follows; as long as it is 1.0, rate limits are "
                                    "waited for 1.0 s each"),
       field<&P::max_backoff_s>("max_backoff", "seconds, the longest such pause"),
       field<&P::jitter>("jitter", "pause anything from nothing up to the delay"),
       field<&P::retry_after>("retry_after",
                              "wait as long as a provider's `retry-after-ms` or `Retry-After`\n"
                              "        says, and leave it alone until then"),
       field<&P::retry_after_cap_s>("retry_after_cap",
                                    "seconds; for longer the call goes on to the next provider"),
       field<&P::order>("order",
                        "after a transient fault: \"retry_first\", or \"failover_first\" to ask "
                        "the\n        other providers that have room before the same one again",
                        "typing.Literal['retry_first', 'failover_first']"),
       field<&P::respect_breakers>("respect_breakers",
                                   "no retries beside an open breaker, and half-open ones are "
                                   "tested\n        by `half_open_max` requests at a time"),
       field<&P::validate>("validate",
                           "\"healed\", or \"all\" to hold every answer against the contract and "
                           "take\n        none without content",
                           "typing.Literal['healed', 'all']"),
       providers_field(),
       field<&P::exact_model>("exact_model",
                              "only providers that serve the model that is asked for, and no "
                              "cheaper one"),
       field<&P::retry_budget>("retry_budget", "what all requests after a call's first draw on"),
       field<&P::hedge_after>("hedge_after",
                              "seconds after which a second provider is asked beside a first one\n"
                              "        that has not answered, or \"p95\": what 95 % of its newest "
                              "answers took;\n        the first good answer counts, the other "
                              "request is ended and may still be billed",
                              "float | typing.Literal['p95'] | None"),
       field<&P::hedge_ratio>("hedge_ratio", "such requests that each call earns"),
       field<&P::hedge_burst>("hedge_burst", "the most that can be saved up, and the first ones")});
  cls.def_static("interactive", &P::interactive, "For calls that somebody waits for.");
  cls.def_static("batch", &P::batch, "For work that has time.");
  def(cls, "replace", replaced, "The same policy with some fields changed.", arg("changes"));
}

}  // namespace tarvomeldric::host
