#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/trace.h"
#include "host/calls/reply.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

void bind_trace(nb::module_& module) {
  auto cls = bind_record<MapeKTrace>(
      module, "What one call did, stage by stage.",
      {required<&MapeKTrace::request_id>("request_id", "the call's own name"),
       field<&MapeKTrace::phases>(
           "phases", "(phase, time of entry in microseconds of the monotonic clock), in order"),
       field<&MapeKTrace::monitor_result>(
           "monitor_result",
           "\"provider_selected\", \"no_provider\", or the category of the first fault"),
       field<&MapeKTrace::analyze_result>("analyze_result",
                                          "\"nominal\", or the finer label of the first fault"),
       field<&MapeKTrace::plan_result>(
           "plan_result",
           "\"direct\", \"blocked\", \"blocked_oob\", or the latest level of healing"),
       field<&MapeKTrace::execute_result>("execute_result", "\"ok\", \"healed\" or \"failed\""),
       field<&MapeKTrace::knowledge_recorded>("knowledge_recorded",
                                              "whether the learner has heard of the outcome"),
       field<&MapeKTrace::total_loop_us>("total_loop_us",
                                         "the duration of the whole pass, in microseconds")});
  def(
      cls, "enter", [](MapeKTrace& self, MapeKPhase phase) { self.enter(phase); },
      "Adds a phase with the present time.", arg("phase"));
  def(
      cls, "to_dict", [](MapeKTrace& self) { return Dict(record_table<MapeKTrace>->dict(&self)); },
      "A copy of every field; later entries do not change it.");
}

}  // namespace

void bind_results(nb::module_& module) {
  bind_trace(module);
  auto cls = bind_record<CallResult>(
      module, "What a call hands back: the answer, where it came from and how it was healed.",
      {required<&CallResult::text>("text", "the answer; None when the provider's was null",
                                   "str | typing.Any"),
       required<&CallResult::answer, &Answer::provider>("provider", "who answered"),
       required<&CallResult::answer, &Answer::model>("model", "the model that answered"),
       field<&CallResult::answer, &Answer::success>("success", "always: a call that failed raises"),
       field<&CallResult::fault>("fault", "the Diagnosis of the last fault on the way, or None",
                                 "Diagnosis | None"),
       field<&CallResult::answer, &Answer::original_provider>("original_provider",
                                                              "whom the call was first meant for"),
       field<&CallResult::answer, &Answer::original_model>("original_model",
                                                           "the model that was first meant"),
       field<&CallResult::answer, &Answer::latency_ms>(
           "latency_ms", "the duration of the attempt that answered, in milliseconds"),
       field<&CallResult::answer, &Answer::from_cache>("from_cache", "never: nothing is cached"),
       field<&CallResult::answer, &Answer::downgraded>("downgraded",
                                                       "whether a cheaper model answered"),
       field<&CallResult::answer, &Answer::heal_level>(
           "heal_level", "\"\", \"l1_retry\", \"l2_downgrade\", \"l3_failover\" or \"l4_learned\""),
       field<&CallResult::answer, &Answer::semantic_domain>(
           "semantic_domain", "the value of the SemanticDomain that bounded the healing"),
       field<&CallResult::answer, &Answer::validation_passed>(
           "validation_passed", "whether the contract holds; None when none was applied"),
       field<&CallResult::contract_result>("contract_result",
                                           "the contract's verdict as a dictionary, or None",
                                           "dict[str, typing.Any] | None"),
       field<&CallResult::mapek_trace>("mapek_trace", "the trace as a dictionary"),
       field<&CallResult::raw_response>("raw_response",
                                        "the decoded body of a first-attempt answer")});
  for (Field beside : {
           field<&CallResult::attempts>(
               "attempts",
               "the requests that the call sent, the one that answered "
               "last; like the next six in neither the constructor nor `repr` and `==`",
               "tuple[Attempt, ...]"),
           field<&CallResult::answer, &Answer::hedged>(
               "hedged", "whether a second provider was asked while the first had not answered"),
           field<&CallResult::ttft_ms>("ttft_ms",
                                       "the time to the first output of a streamed answer, in "
                                       "milliseconds from the call's start; None of others"),
           field<&CallResult::response>("response",
                                        "the decoded body of the attempt that answered, None "
                                        "when none was seen"),
       }) {
    record_table<CallResult>->beside.push_back(beside);
    beside.assignable = false;
    bind_field(cls, beside);
  }
  def(
      cls, "_complete",
      [](CallResult& self, nb::handle text, nb::handle response) {
        self.text = nb::borrow(text);
        self.response = nb::borrow(response);
      },
      "Takes what a stream came to at its end.", arg("text"), arg("response"));
  const auto of_response = [&](const char* name, nb::object (*part)(nb::handle), const char* doc) {
    cls.def_prop_ro(
        name, [part](const CallResult& self) { return part(self.response); },
        nb::sig(("def " + std::string(name) + "(self) -> typing.Any").c_str()), doc);
  };
  of_response("usage", usage_of, "What the provider counted, from `response`; None without it.");
  of_response("finish_reason", finish_reason_of,
              "Why the answer ended, from `response`; None without it.");
  of_response("tool_calls", tool_calls_of,
              "The tools that the model wants called, from `response`; None without any.");
}

}  // namespace tarvomeldric::host
