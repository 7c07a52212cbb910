#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/events.h"
#include "host/calls/observation.h"
#include "host/interpreter/collected.h"
#include "host/records/records.h"

// What observers of an engine are told.
namespace tarvomeldric::host {
namespace {

template <class Event>
Field call_id() {
  return required<&Event::call_id>("call_id", "the call's name, as its trace has it");
}
template <class Event>
Field provider() {
  return required<&Event::provider>("provider", "its name in the registry");
}

// The fields of a request, in a record of its own or as a part of one.
template <auto... Way>
std::vector<Field> attempt_fields() {
  return {required<Way..., &AttemptRecord::provider>("provider", "who was asked"),
          required<Way..., &AttemptRecord::model>("model", "the model that was asked for"),
          field<Way..., &AttemptRecord::start_s>("start", "seconds after the call's own start"),
          field<Way..., &AttemptRecord::duration_s>("duration", "seconds"),
          field<Way..., &AttemptRecord::status>("status",
                                                "the HTTP status of a refusal, 408 for a "
                                                "time-out, else None"),
          field<Way..., &AttemptRecord::fault>("fault",
                                               "the label of what went wrong; None of "
                                               "an attempt that answered")};
}

void bind_attempt_event(nb::module_& module) {
  std::vector<Field> fields = attempt_fields<&AttemptEvent::attempt>();
  fields.insert(fields.begin(), call_id<AttemptEvent>());
  bind_frozen<AttemptEvent>(module, "A request is over.", std::move(fields));
}

void bind_observation(nb::module_& module) {
  nb::class_<Observation> cls(module, "Observation",
                              "A listener of an engine, until it is closed, or left as a context.",
                              nb::type_slots(collected<Observation>));
  def(cls, "close", &Observation::close, "Tells the listener no more. May be called twice.");
  cls.def(
      "__enter__", [](nb::handle_t<Observation> self) { return self; },
      nb::sig("def __enter__(self) -> Observation"));
  cls.def(
      "__exit__", [](Observation& self, const nb::args&) { self.close(); },
      nb::sig("def __exit__(self, *args: object) -> None"));
}

}  // namespace

void bind_events(nb::module_& module) {
  bind_frozen<AttemptRecord>(module, "One request that a call sent, and what became of it.",
                             attempt_fields<>());
  bind_attempt_event(module);
  bind_frozen<FaultEvent>(
      module, "A failure was diagnosed.",
      {call_id<FaultEvent>(), provider<FaultEvent>(),
       required<&FaultEvent::category>("category", "the value of its FaultCategory"),
       required<&FaultEvent::label>("label", "the finer label")});
  bind_frozen<SleepEvent>(
      module, "A call is about to wait.",
      {call_id<SleepEvent>(), required<&SleepEvent::seconds>("seconds", "for how long"),
       required<&SleepEvent::reason>("reason", "\"back_pressure\", \"retry\" or \"retry_after\"")});
  bind_frozen<RefusalEvent>(
      module, "A provider's guards did not let a call in.",
      {call_id<RefusalEvent>(), provider<RefusalEvent>(),
       required<&RefusalEvent::reason>("reason", "\"admission\" or \"category_breaker\"")});
  bind_frozen<BreakerEvent>(
      module, "A breaker changed with what a call recorded.",
      {call_id<BreakerEvent>(), provider<BreakerEvent>(),
       required<&BreakerEvent::before>("before", "the value of its CircuitState"),
       required<&BreakerEvent::after>("after", "the same, now")});
  bind_frozen<HealEvent>(module, "A call was healed.",
                         {call_id<HealEvent>(), provider<HealEvent>(),
                          required<&HealEvent::model>("model", "the model that answered"),
                          required<&HealEvent::level>("level", "as in `CallResult.heal_level`"),
                          required<&HealEvent::fault>("fault", "the label of what was healed")});
  bind_frozen<EndEvent>(
      module, "A call is over.",
      {call_id<EndEvent>(),
       required<&EndEvent::outcome>("outcome",
                                    "\"answered\", \"failed\", or \"abandoned\" when it was "
                                    "cancelled, interrupted, dropped, or left by an error of "
                                    "other code"),
       field<&EndEvent::duration_s>("duration",
                                    "seconds since it began; 0.0 of a call that was dropped"),
       field<&EndEvent::model>("model", "the model that was asked for; empty where none was"),
       field<&EndEvent::api_type>("api_type", "as in the call; empty of one that was dropped"),
       field<&EndEvent::tokens, &TokenUsage::input>(
           "input_tokens", "what the provider counted for the answer; None where it did not"),
       field<&EndEvent::tokens, &TokenUsage::output>("output_tokens", "the same, of the answer"),
       field<&EndEvent::first_output_s>("first_output",
                                        "seconds until the first output of a streamed answer; "
                                        "None of others")});
  bind_observation(module);
}

}  // namespace tarvomeldric::host
