#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/read_outs.h"
#include "host/calls/recovery.h"
#include "host/records/read_outs.h"

namespace tarvomeldric::host {
namespace {

void bind_records(nb::module_& module) {
  bind_record<Diagnosis>(
      module, "The label of one failure and what follows from it.",
      {required<&Diagnosis::category>("category", "a FaultCategory, or a text of the caller's own"),
       required<&Diagnosis::confidence>("confidence", "how sure the diagnoser is, 0 to 1"),
       required<&Diagnosis::should_retry>("should_retry",
                                          "whether the same provider is worth another try"),
       required<&Diagnosis::skip_to_failover>("skip_to_failover",
                                              "whether another provider is asked at once"),
       field<&Diagnosis::retry_after_s>("retry_after", "seconds to wait before a retry"),
       field<&Diagnosis::raw_error>("raw_error",
                                    "the lower-cased error text, at most 500 characters of it"),
       field<&Diagnosis::sub_category>("sub_category",
                                       "the finer label, such as \"rate_limit:openai\"")});
  bind_record<RecoveryAction>(
      module, "A suggested step of recovery.",
      {required<&RecoveryAction::level>("level", "the RecoveryLevel that it belongs to"),
       required<&RecoveryAction::action>("action", "what to do"),
       required<&RecoveryAction::target>("target", "the provider, or \"default\""),
       required<&RecoveryAction::delay_s>("delay", "seconds to wait before it"),
       required<&RecoveryAction::metadata>("metadata", "category and sub_category of the fault",
                                           "dict[str, typing.Any]")});
}

}  // namespace

void bind_diagnosis(nb::module_& module) {
  bind_records(module);
  nb::class_<Diagnoser> cls(module, "Diagnoser",
                            "Labels failed provider requests by HTTP status and error text.");
  cls.def(nb::init<>(), "Starts without any diagnosis counted.");
  def(
      cls, "diagnose",
      [](Diagnoser& self, const Annotated<"object">& error, const Status& status) {
        const double start_s = system_clock().monotonic();
        const std::string text = text_form(error);
        return self.diagnose(text, status.code(), system_clock().monotonic() - start_s);
      },
      "Labels a failure by its text form and, when known, its HTTP status.\n\n"
      "Returns a new Diagnosis; an unknown text is labelled UNKNOWN. TypeError when\n"
      "`status_code` is no number.",
      arg("error"), arg("status_code") = nb::none());
  def(
      cls, "suggest_recovery",
      [](Diagnoser&, nb::handle diagnosis, const std::optional<std::string>& provider,
         const std::optional<std::string>&) { return suggest_recovery(diagnosis, provider); },
      "The step of recovery that suits a diagnosis, or any object with a `category`.\n\n"
      "Returns a new RecoveryAction. AttributeError without a `category`.",
      arg("diagnosis"), arg("provider") = nb::none(), arg("model") = nb::none());
  def(
      cls, "get_stats", [](Diagnoser& self) { return CountDict(dict_of(diagnosis_counts(self))); },
      "How often each category and label was diagnosed; a fresh dictionary.");
  def(
      cls, "get_latency_stats",
      [](const Diagnoser& self) {
        return Annotated<"dict[str, float]">(dict_of(diagnosis_latency(self)));
      },
      "count, p50, p95 and avg of the newest diagnoses in microseconds; empty before the first.");
  bind_field(cls, field<&DiagnoserFields::stats>(
                      "_stats", "how often each category and label was diagnosed"));
  bind_field(cls, field<&DiagnoserFields::latencies_us>(
                      "_latencies", "microseconds of the newest diagnoses, oldest first"));
  bind_field(cls, lock_field<Diagnoser>());
}

}  // namespace tarvomeldric::host
