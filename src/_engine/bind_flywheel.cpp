#include "_engine/bindings.h"
#include "flywheel/learned_rule.h"
#include "host/argument.h"
#include "host/collected.h"
#include "host/learner.h"
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
      module, "How often one recovery action worked for one fault pattern.",
      {required<&LearnedRule::pattern>(
           "pattern", "the fault's label or category, or \"model_request:FAMILY\""),
       required<&LearnedRule::action>("action", "what was tried, such as \"failover:openai\""),
       field<&LearnedRule::success_count>("success_count", "how often it worked"),
       field<&LearnedRule::fail_count>("fail_count", "how often it did not"),
       field<&LearnedRule::confidence>("confidence", "the share of successes, 0 to 1"),
       field<&LearnedRule::last_seen>("last_seen",
                                      "when it was counted last, in wall-clock seconds"),
       field<&LearnedRule::avg_heal_time_ms>(
           "avg_heal_time_ms", "the mean of the retained heal times, in milliseconds"),
       field<&LearnedRule::source>("source", "\"bootstrap\" or \"learned\""),
       field<&LearnedRule::heal_times>("_heal_times",
                                       "milliseconds of the newest 50 heals, oldest first")});
  cls.def(
         "update",
         [](LearnedRule& self, Arg<bool, "success"> success,
            Arg<double, "heal_time_ms"> heal_time) {
           self.update(success.get(), heal_time.get(), system_clock().wall());
         },
         arg("success"), arg("heal_time_ms") = 0.0,
         nb::sig("def update(self, success: bool, heal_time_ms: float = 0.0) -> None"),
         "Counts one outcome; `heal_time_ms` of a success counts when it is above 0.")
      .def(
          "to_dict", [](const LearnedRule& self) { return to_dict(self); },
          nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
          "The rule without its retained heal times.");
  // A class method: the host's own wrapper hands it the class, of a subclass as well.
  const nb::object from_dict =
      nb::cpp_function(rule_from_dict, nb::name("from_dict"), nb::arg("cls"), arg("d"),
                       nb::sig("def from_dict(cls, d: dict[str, typing.Any]) -> LearnedRule"),
                       "Makes a rule from a dictionary; keys that are no fields are ignored.\n\n"
                       "TypeError without \"pattern\" or \"action\".");
  cls.attr("from_dict") = nb::steal(PyClassMethod_New(from_dict.ptr()));
}

using LearnerClass = nb::class_<HostLearner>;
using OptionalText = std::optional<std::string>;

// A rule from a dictionary of the host's; a type error for one of the wrong shape.
RulePtr rule_of(nb::handle d) {
  return nb::cast<RulePtr>(rule_from_dict(nb::type<LearnedRule>(), d));
}

void bind_use(LearnerClass& cls) {
  cls.def(
         "record",
         [](HostLearner& self, Arg<std::string, "error_pattern"> pattern,
            Arg<std::string, "recovery_action"> action, Arg<bool, "success"> success,
            Arg<double, "heal_time_ms"> heal_time) {
           self.record({pattern.get(), action.get(), success.get(), heal_time.get()});
         },
         arg("error_pattern"), arg("recovery_action"), arg("success"), arg("heal_time_ms") = 0.0,
         nb::sig("def record(self, error_pattern: str, recovery_action: str, success: bool, "
                 "heal_time_ms: float = 0.0) -> None"),
         "Counts one outcome of a recovery action; `heal_time_ms` in milliseconds.\n\n"
         "Writes the rules file at every 20th record; has published when it returns.")
      .def(
          "match",
          [](HostLearner& self, Arg<std::string, "error_pattern"> pattern) {
            return rule_or_none(self.match(pattern.get()));
          },
          arg("error_pattern"),
          nb::sig("def match(self, error_pattern: str) -> LearnedRule | None"),
          "The most confident rule above 0.6 for the pattern, else for its category, else None.")
      .def(
          "match_best_action",
          [](HostLearner& self, Arg<std::string, "error_pattern"> pattern) -> nb::object {
            const RulePtr rule = self.match(pattern.get());
            return rule ? nb::object(from_utf8(rule->action)) : nb::none();
          },
          arg("error_pattern"),
          nb::sig("def match_best_action(self, error_pattern: str) -> str | None"),
          "The action of `match`, or None.")
      .def(
          "get_rules",
          [](const HostLearner& self) {
            nb::list rules;
            for (const RulePtr& rule : self.rules()) rules.append(nb::cast(rule));
            return rules;
          },
          nb::sig("def get_rules(self) -> list[LearnedRule]"),
          "All rules in table order: a new list of the live rules.")
      .def(
          "get_stats", [](const HostLearner& self) { return stats_of(self); },
          nb::sig("def get_stats(self) -> dict[str, typing.Any]"),
          "total_rules, total_records, high_confidence_rules (above 0.8),\n"
          "bootstrap_rules_loaded and sync_mode.");
}

void bind_keeping(LearnerClass& cls) {
  cls.def("_persist", &HostLearner::persist, "Writes the rules file.")
      .def(
          "_load", [](nb::pointer_and_handle<HostLearner> self) { self.p->load(self.h); },
          "Reads the rules file; starts from the bootstrap rules when it yields none.")
      .def(
          "_store",
          [](HostLearner& self, Arg<std::string, "key"> key, nb::handle rule) {
            const std::string name = key.get();
            self.store(name, rule_of(rule));
          },
          arg("key"), arg("rule"),
          nb::sig("def _store(self, key: str, rule: dict[str, typing.Any]) -> None"),
          "Puts a rule, given as a dictionary, into the table.")
      .def(
          "_keep_unreadable", [](HostLearner& self) { self.file().set_unreadable(true); },
          "Has the next write keep the file that could not be read.")
      .def_prop_rw(
          "_persist_path", [](HostLearner& self) { return self.persist_path(); },
          [](HostLearner& self, nb::handle path) {
            self.set_persist_path(require_text(path, "_persist_path"));
          },
          nb::for_setter(nb::arg("path").none()));
}

void bind_fleet(LearnerClass& cls) {
  cls.def(
         "_init_redis",
         [](nb::pointer_and_handle<HostLearner> self) { self.p->init_redis(self.h); },
         "Connects to the fleet; goes on alone when that fails.")
      .def(
          "_redis_subscribe",
          [](nb::handle_t<HostLearner> self) {
            const nb::object reference = call(import("weakref").attr("ref"), self);
            call(import("tarvomeldric._fleet").attr("subscribe_for"), reference);
          },
          "What the subscriber thread runs.")
      .def(
          "_redis_load_rules",
          [](nb::pointer_and_handle<HostLearner> self) { self.p->load_shared_rules(self.h); },
          "Takes over the rules of the shared hash.")
      .def(
          "_redis_publish",
          [](HostLearner& self, Arg<std::string, "key"> key, nb::handle rule) {
            const std::string name = key.get();
            require<LearnedRule>(rule, "rule");
            self.publish_rule(name, *nb::inst_ptr<LearnedRule>(rule));
          },
          arg("key"), arg("rule"),
          nb::sig("def _redis_publish(self, key: str, rule: LearnedRule) -> None"),
          "Shares a rule with the fleet.")
      .def(
          "_merge",
          [](HostLearner& self, Arg<std::string, "key"> key, nb::handle rule) {
            const std::string name = key.get();
            self.merge(name, rule_of(rule));
          },
          arg("key"), arg("rule"),
          nb::sig("def _merge(self, key: str, rule: dict[str, typing.Any]) -> None"),
          "Takes in a published rule that is new or more confident.")
      .def(
          "_after_fork",
          [](nb::pointer_and_handle<HostLearner> self) { self.p->after_fork(self.h); },
          "Starts afresh in the child of a fork.")
      .def_prop_rw(
          "_redis_url", [](const HostLearner& self) { return from_utf8(self.redis_url); },
          [](HostLearner& self, Arg<std::string, "_redis_url"> url) { self.redis_url = url.get(); })
      .def_prop_rw(
          "_redis_channel", [](const HostLearner& self) { return from_utf8(self.redis_channel); },
          [](HostLearner& self, Arg<std::string, "_redis_channel"> channel) {
            self.redis_channel = channel.get();
          })
      .def_prop_rw(
          "_redis_client", [](const HostLearner& self) { return self.redis_client; },
          [](HostLearner& self, nb::handle client) { self.redis_client = nb::borrow(client); },
          nb::for_getter(nb::sig("def _redis_client(self) -> typing.Any")),
          nb::for_setter(nb::sig("def _redis_client(self, client: typing.Any, /) -> None")),
          nb::for_setter(nb::arg("client").none()))
      .def_prop_rw(
          "_redis_sub_thread", [](const HostLearner& self) { return self.redis_sub_thread; },
          [](HostLearner& self, nb::handle thread) { self.redis_sub_thread = nb::borrow(thread); },
          nb::for_getter(nb::sig("def _redis_sub_thread(self) -> typing.Any")),
          nb::for_setter(nb::sig("def _redis_sub_thread(self, thread: typing.Any, /) -> None")),
          nb::for_setter(nb::arg("thread").none()))
      .def_prop_ro(
          "_link", [](const HostLearner& self) { return self.link; },
          nb::sig("def _link(self) -> typing.Any"));
}

}  // namespace

void bind_flywheel(nb::module_& module) {
  bind_rule(module);
  PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_object<HostLearner>)},
                         {Py_tp_clear, reinterpret_cast<void*>(clear_object<HostLearner>)},
                         {0, nullptr}};
  LearnerClass cls(
      module, "FlywheelLearner",
      "Remembers which recovery worked for which fault, and advises.\n\n"
      "Its table of rules is kept in a file and, with a Redis, shared with a fleet. No failure of\n"
      "either is raised: it goes on with what it has. Any thread.",
      nb::type_slots(slots), nb::dynamic_attr(), nb::is_weak_referenceable());
  cls.def(
      "__init__",
      [](nb::pointer_and_handle<HostLearner> self, Arg<OptionalText, "persist_path"> path,
         Arg<OptionalText, "redis_url"> url, Arg<std::string, "redis_channel"> channel) {
        path.get();
        new (self.p) HostLearner(path.given, url.get().value_or(""), channel.get());
        nb::inst_set_state(self.h, true, true);
        self.p->load(self.h);
        if (self.p->host_fields().sync_mode == "redis") self.p->init_redis(self.h);
        call(import("tarvomeldric._fork").attr("watch"), self.h);
      },
      arg("persist_path") = nb::none(), arg("redis_url") = nb::none(),
      arg("redis_channel") = "tarvomeldric:flywheel",
      nb::sig("def __init__(self, persist_path: str | None = None, redis_url: str | None = None, "
              "redis_channel: str = 'tarvomeldric:flywheel') -> None"),
      "Reads the rules file, and those of the fleet.\n\n"
      "Args:\n"
      "    persist_path: the file; None is .tarvomeldric/flywheel_rules.json in the home "
      "directory.\n"
      "    redis_url: the fleet's Redis; None asks the environment's TARVOMELDRIC_REDIS_URL.\n"
      "    redis_channel: the fleet's channel; its rules are in the hash of this name + "
      "\":rules\".\n\n"
      "Raises:\n"
      "    TypeError: an argument of the wrong type.");
  bind_use(cls);
  bind_keeping(cls);
  bind_fleet(cls);
  bind_field(cls, field<&LearnerFields::rules>("_rules", "the rules by \"PATTERN:ACTION\""));
  bind_field(cls, field<&LearnerFields::records>("_records", "outcomes counted by this learner"));
  bind_field(cls, field<&LearnerFields::bootstrap_loaded>(
                      "_bootstrap_loaded", "whether it started from the bootstrap rules"));
  bind_field(cls, field<&LearnerFields::sync_mode>("_sync_mode", "\"redis\" or \"local\""));
  bind_field(cls, lock_field<HostLearner>());
}

}  // namespace tarvomeldric::host
