#include "_engine/bindings.h"
#include "diagnosis/diagnoser.h"
#include "diagnosis/recovery_table.h"
#include "host/argument.h"
#include "host/errors.h"
#include "host/read_outs.h"
#include "host/record.h"
#include "host/records.h"

namespace tarvomeldric::host {
namespace {

std::optional<std::int64_t> status_argument(nb::handle status) {
  if (status.is_none()) return std::nullopt;
  const nb::object whole = as_status(status);
  int overflow = 0;
  const std::int64_t number = PyLong_AsLongLongAndOverflow(whole.ptr(), &overflow);
  // A number that no status can be says as little as none.
  return overflow == 0 ? std::optional(number) : std::nullopt;
}

// The category's value when it has one, else its text form.
std::string category_text(nb::handle diagnosis) {
  const nb::object category = nb::getattr(diagnosis, "category");
  return text_form(attribute_or(category, "value", category));
}

double delay_of(const RecoverySuggestion& suggestion, nb::handle diagnosis) {
  if (suggestion.delay) return *suggestion.delay;
  const nb::object retry_after = attribute_or(diagnosis, "retry_after", nb::none());
  const double given =
      retry_after.is_none() ? 0.0 : convert_argument<double>(retry_after, "retry_after");
  return given != 0 ? given : 1.0;
}

nb::object suggest_recovery(nb::handle diagnosis, nb::handle provider) {
  const auto levels = import("tarvomeldric.types").attr("RecoveryLevel");
  const std::string category = category_text(diagnosis);
  const RecoverySuggestion& suggestion = recovery_for(category);
  const bool named = !provider.is_none() && nb::len(provider) > 0;
  nb::dict metadata;
  put(metadata, "category", from_utf8(category));
  put(metadata, "sub_category", attribute_or(diagnosis, "sub_category", nb::str("")));
  RecoveryAction action;
  action.level = levels.attr(suggestion.level);
  action.action = suggestion.action;
  action.target = named ? to_utf8(provider) : "default";
  action.delay = delay_of(suggestion, diagnosis);
  action.metadata = metadata;
  return nb::cast(std::move(action));
}

void bind_records(nb::module_& module) {
  bind_record<Diagnosis>(
      module, "The label of one failure and what follows from it.",
      {required<&Diagnosis::category>("category", "a FaultCategory, or a text of the caller's own"),
       required<&Diagnosis::confidence>("confidence", "how sure the diagnoser is, 0 to 1"),
       required<&Diagnosis::should_retry>("should_retry",
                                          "whether the same provider is worth another try"),
       required<&Diagnosis::skip_to_failover>("skip_to_failover",
                                              "whether another provider is asked at once"),
       field<&Diagnosis::retry_after>("retry_after", "seconds to wait before a retry"),
       field<&Diagnosis::raw_error>("raw_error",
                                    "the lower-cased error text, at most 500 characters of it"),
       field<&Diagnosis::sub_category>("sub_category",
                                       "the finer label, such as \"rate_limit:openai\"")});
  bind_record<RecoveryAction>(
      module, "A suggested step of recovery.",
      {required<&RecoveryAction::level>("level", "the RecoveryLevel that it belongs to"),
       required<&RecoveryAction::action>("action", "what to do"),
       required<&RecoveryAction::target>("target", "the provider, or \"default\""),
       required<&RecoveryAction::delay>("delay", "seconds to wait before it"),
       required<&RecoveryAction::metadata>("metadata", "category and sub_category of the fault",
                                           "dict[str, typing.Any]")});
}

}  // namespace

void bind_diagnosis(nb::module_& module) {
  bind_records(module);
  nb::class_<Diagnoser> cls(module, "Diagnoser",
                            "Labels failed provider requests by HTTP status and error text.");
  cls.def(nb::init<>(), "Starts without any diagnosis counted.")
      .def(
          "diagnose",
          [](Diagnoser& self, nb::handle error, nb::handle status) {
            return self.diagnose(text_form(error), status_argument(status));
          },
          arg("error"), arg("status_code") = nb::none(),
          nb::sig("def diagnose(self, error: object, status_code: float | None = None) "
                  "-> Diagnosis"),
          "Labels a failure by its text form and, when known, its HTTP status.\n\n"
          "Returns a new Diagnosis; an unknown text is labelled UNKNOWN. TypeError when\n"
          "`status_code` is no number.")
      .def(
          "suggest_recovery",
          [](Diagnoser&, nb::handle diagnosis, Arg<std::optional<std::string>, "provider"> provider,
             Arg<std::optional<std::string>, "model"> model) {
            provider.get();
            model.get();
            return suggest_recovery(diagnosis, provider.given);
          },
          arg("diagnosis"), arg("provider") = nb::none(), arg("model") = nb::none(),
          nb::sig("def suggest_recovery(self, diagnosis: typing.Any, provider: str | None = None, "
                  "model: str | None = None) -> RecoveryAction"),
          "The step of recovery that suits a diagnosis, or any object with a `category`.\n\n"
          "Returns a new RecoveryAction. AttributeError without a `category`.")
      .def(
          "get_stats", [](Diagnoser& self) { return stats_of(self); },
          nb::sig("def get_stats(self) -> dict[str, int]"),
          "How often each category and label was diagnosed; a fresh dictionary.")
      .def(
          "get_latency_stats", [](const Diagnoser& self) { return latency_stats_of(self); },
          nb::sig("def get_latency_stats(self) -> dict[str, float]"),
          "count, p50, p95 and avg of the newest diagnoses in microseconds; empty before the "
          "first.");
  bind_field(cls, field<&DiagnoserFields::stats>(
                      "_stats", "how often each category and label was diagnosed"));
  bind_field(cls, field<&DiagnoserFields::latencies>(
                      "_latencies", "microseconds of the newest diagnoses, oldest first"));
  bind_field(cls, lock_field<Diagnoser>());
}

}  // namespace tarvomeldric::host
