#include "_engine/bindings.h"
#include "flywheel/learner.h"
#include "host/argument.h"
#include "host/read_outs.h"
#include "host/record.h"
#include "host/records.h"

namespace tarvomeldric::host {
namespace {

nb::object rule_or_none(const RulePtr& rule) { return rule ? nb::cast(rule) : nb::none(); }

// Unknown keys are left out; missing ones are the constructor's business.
nb::object rule_from_dict(nb::handle cls, nb::handle d) {
  if (!PyDict_Check(d.ptr())) refuse_argument("d", "dict", d);
  nb::dict known;
  for (const Field& field : record_table<LearnedRule>->fields) {
    if (PyObject* value = PyDict_GetItemString(d.ptr(), field.name)) {
      known[nb::str(field.name)] = nb::handle(value);
    }
  }
  return host_call([&]() -> nb::object { return cls(**known); });
}

void bind_rule(nb::module_& module) {
  auto cls = bind_record<LearnedRule>(
      module,
      "How often one recovery action worked for one fault pattern.\n\n"
      "`confidence` is the share of successes, `last_seen` wall-clock\n"
      "seconds, `avg_heal_time_ms` milliseconds.",
      {required<&LearnedRule::pattern>("pattern"), required<&LearnedRule::action>("action"),
       field<&LearnedRule::success_count>("success_count"),
       field<&LearnedRule::fail_count>("fail_count"), field<&LearnedRule::confidence>("confidence"),
       field<&LearnedRule::last_seen>("last_seen"),
       field<&LearnedRule::avg_heal_time_ms>("avg_heal_time_ms"),
       field<&LearnedRule::source>("source"), field<&LearnedRule::heal_times>("_heal_times")});
  cls.def(
         "update",
         [](LearnedRule& self, Arg<bool, "success"> success,
            Arg<double, "heal_time_ms"> heal_time) {
           self.update(success.get(), heal_time.get(), system_clock().wall());
         },
         arg("success"), arg("heal_time_ms") = 0.0,
         "Counts one outcome; `heal_time_ms` of a success counts when it is above 0.")
      .def(
          "to_dict", [](const LearnedRule& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "The rule without its retained heal times.");
  // A class method: the host's own wrapper hands it the class, of a subclass as well.
  const nb::object from_dict =
      nb::cpp_function(rule_from_dict, nb::name("from_dict"), nb::arg("cls"), arg("d"),
                       "Makes a rule from a dictionary; keys that are no fields are ignored.\n\n"
                       "TypeError without \"pattern\" or \"action\".");
  cls.attr("from_dict") = nb::steal(PyClassMethod_New(from_dict.ptr()));
}

}  // namespace

void bind_flywheel(nb::module_& module) {
  bind_rule(module);
  nb::class_<FlywheelLearner> cls(module, "FlywheelLearner",
                                  "Remembers which recovery worked for which fault, and advises.",
                                  nb::dynamic_attr());
  cls.def(nb::init<>())
      .def(
          "record",
          [](FlywheelLearner& self, Arg<std::string, "error_pattern"> pattern,
             Arg<std::string, "recovery_action"> action, Arg<bool, "success"> success,
             Arg<double, "heal_time_ms"> heal_time) {
            self.record({pattern.get(), action.get(), success.get(), heal_time.get()});
          },
          arg("error_pattern"), arg("recovery_action"), arg("success"), arg("heal_time_ms") = 0.0,
          "Counts one outcome of a recovery action; `heal_time_ms` in milliseconds.")
      .def(
          "match",
          [](FlywheelLearner& self, Arg<std::string, "error_pattern"> pattern) {
            return rule_or_none(self.match(pattern.get()));
          },
          arg("error_pattern"),
          nb::sig("def match(self, error_pattern: str) -> LearnedRule | None"),
          "The most confident rule above 0.6 for the pattern, else for its category, else None.")
      .def(
          "match_best_action",
          [](FlywheelLearner& self, Arg<std::string, "error_pattern"> pattern) -> nb::object {
            const RulePtr rule = self.match(pattern.get());
            return rule ? nb::object(from_utf8(rule->action)) : nb::none();
          },
          arg("error_pattern"),
          nb::sig("def match_best_action(self, error_pattern: str) -> str | None"),
          "The action of `match`, or None.")
      .def(
          "get_rules",
          [](const FlywheelLearner& self) {
            nb::list rules;
            for (const RulePtr& rule : self.rules()) rules.append(nb::cast(rule));
            return rules;
          },
          nb::sig("def get_rules(self) -> list[LearnedRule]"),
          "All rules in table order: a new list of the live rules.")
      .def(
          "get_stats", [](const FlywheelLearner& self) { return stats_of(self); },
          nb::sig("def get_stats(self) -> dict[str, typing.Any]"),
          "total_rules, total_records, high_confidence_rules (above 0.8),\n"
          "bootstrap_rules_loaded and sync_mode.");
  bind_field(cls, field<&LearnerFields::rules>("_rules"));
  bind_field(cls, field<&LearnerFields::records>("_records"));
  bind_field(cls, field<&LearnerFields::bootstrap_loaded>("_bootstrap_loaded"));
  bind_field(cls, field<&LearnerFields::sync_mode>("_sync_mode"));
  bind_field(cls, lock_field<FlywheelLearner>());
}

}  // namespace tarvomeldric::host
