#include "_engine/bind_record.h"
#include "_engine/rooms.h"
#include "engine/read_outs.h"
#include "host/calls/learner.h"
#include "host/interpreter/collected.h"
#include "host/interpreter/helpers.h"
#include "host/records/read_outs.h"
#include "host/records/records.h"

namespace tarvomeldric::host {
namespace {

using LearnerClass = nb::class_<PythonLearner>;
using OptionalText = std::optional<std::string>;
using RuleDict = Annotated<"dict[str, typing.Any]">;

nb::object rule_from_dict(nb::handle cls, nb::handle d) {
  return record_table<LearnedRule>->from_dict(cls, d);
}

// A type error for a dictionary of the wrong shape.
RulePtr rule_of(nb::handle d) {
  return nb::cast<RulePtr>(rule_from_dict(nb::type<LearnedRule>(), d));
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
       field<&LearnedRule::last_seen_s>("last_seen",
                                        "when it was counted last, in wall-clock seconds"),
       field<&LearnedRule::avg_heal_time_ms>(
           "avg_heal_time_ms", "the mean of the retained heal times, in milliseconds"),
       field<&LearnedRule::source>("source", "\"bootstrap\" or \"learned\""),
       field<&LearnedRule::heal_times_ms>("_heal_times",
                                          "milliseconds of the newest 50 heals, oldest first")});
  def(
      cls, "update",
      [](LearnedRule& self, bool success, double heal_time_ms) {
        self.update(success, heal_time_ms, system_clock().wall());
      },
      "Counts one outcome; `heal_time_ms` of a success counts when it is above 0.", arg("success"),
      arg("heal_time_ms") = 0.0);
  def(
      cls, "to_dict",
      [](LearnedRule& self) { return Dict(record_table<LearnedRule>->dict(&self)); },
      "The rule without its retained heal times.");
  // A class method: Python's own wrapper hands it the class, of a subclass as well.
  const nb::object from_dict =
      nb::cpp_function(rule_from_dict, nb::name("from_dict"), nb::arg("cls"), arg("d"),
                       nb::sig("def from_dict(cls, d: dict[str, typing.Any]) -> LearnedRule"),
                       "Makes a rule from a dictionary; keys that are no fields are ignored.\n\n"
                       "TypeError without \"pattern\" or \"action\".");
  cls.attr("from_dict") = made(PyClassMethod_New(from_dict.ptr()));
}

// Who has the live table may change it.
Field table_field() {
  static constexpr auto hand_out = [](void* fields) -> OrderedMap<RulePtr>& {
    auto& learner = *static_cast<LearnerFields*>(fields);
    learner.handed_out = true;
    return learner.rules;
  };
  Field table = field<&LearnerFields::rules>("_rules", "the rules by \"PATTERN:ACTION\"");
  table.live = [](nb::handle owner, void* fields) { return live(owner, hand_out(fields)); };
  table.set = [](void* fields, nb::handle rules) { return assign(hand_out(fields), rules); };
  return table;
}

void bind_use(LearnerClass& cls) {
  def(
      cls, "record",
      [](PythonLearner& self, const std::string& error_pattern, const std::string& recovery_action,
         bool success, double heal_time_ms) {
        self.record({error_pattern, recovery_action, success, heal_time_ms});
      },
      "Counts one outcome of a recovery action; `heal_time_ms` in milliseconds.\n\n"
      "Writes the rules file at every 20th record; has published when it returns.",
      arg("error_pattern"), arg("recovery_action"), arg("success"), arg("heal_time_ms") = 0.0);
  def(
      cls, "match",
      [](PythonLearner& self, std::string_view error_pattern) {
        RulePtr rule = self.match(error_pattern);
        return rule ? std::optional(std::move(rule)) : std::nullopt;
      },
      "The most confident rule above 0.6 for the pattern, else for its category, else None.",
      arg("error_pattern"));
  def(
      cls, "match_best_action",
      [](PythonLearner& self, std::string_view error_pattern) {
        const std::optional<Advice> advice = self.advise(error_pattern);
        return advice ? OptionalText(advice->action) : std::nullopt;
      },
      "The action of `match`, or None.", arg("error_pattern"));
  def(
      cls, "_advise",
      [](PythonLearner& self, std::string_view error_pattern) {
        const std::optional<Advice> advice = self.advise(error_pattern);
        return Annotated<"tuple[str, float] | None">(
            advice ? nb::object(nb::make_tuple(from_utf8(advice->action), advice->confidence))
                   : nb::none());
      },
      "The action and the confidence of `match`, or None.", arg("error_pattern"));
  def(
      cls, "get_rules",
      [](PythonLearner& self) {
        nb::list rules;
        for (const RulePtr& rule : self.rules()) rules.append(nb::cast(rule));
        return Annotated<"list[LearnedRule]">(rules);
      },
      "All rules in table order: a new list of the live rules.");
  def(
      cls, "get_stats", [](const PythonLearner& self) { return figures_of(self); },
      "total_rules, total_records, high_confidence_rules (above 0.8),\n"
      "bootstrap_rules_loaded and sync_mode.");
  cls.def_prop_ro(
      "rules_passed_over", &PythonLearner::rules_passed_over,
      "How many rules of the fleet were not taken in: new ones, while the table held 10,000.");
}

void bind_keeping(LearnerClass& cls) {
  def(cls, "_persist", &PythonLearner::persist, "Writes the rules file.");
  def(cls, "_load", &PythonLearner::load,
      "Reads the rules file; starts from the bootstrap rules when it yields none.");
  def(
      cls, "_store",
      [](PythonLearner& self, const std::string& key, const RuleDict& rule) {
        self.store(key, rule_of(rule));
      },
      "Puts a rule, given as a dictionary, into the table.", arg("key"), arg("rule"));
  def(
      cls, "_keep_unreadable", [](PythonLearner& self) { self.file().set_unreadable(true); },
      "Has the next write keep the file that could not be read.");
  cls.def_prop_rw(
      "_persist_path", [](PythonLearner& self) { return self.persist_path(); },
      [](PythonLearner& self, nb::handle path) {
        self.set_persist_path(convert_argument<Text>(path, "_persist_path"));
      },
      nb::for_setter(nb::arg("path").none()));
}

void bind_fleet(LearnerClass& cls) {
  def(cls, "_init_redis", &PythonLearner::init_redis,
      "Connects to the fleet; goes on alone when that fails.");
  def(cls, "_redis_subscribe", &PythonLearner::subscribe, "What the subscriber thread runs.");
  def(cls, "_redis_load_rules", &PythonLearner::load_shared_rules,
      "Takes over the rules of the shared hash.");
  def(
      cls, "_redis_publish",
      [](PythonLearner& self, const std::string& key, const RulePtr& rule) {
        self.publish_rule(key, *rule);
      },
      "Shares a rule with the fleet.", arg("key"), arg("rule"));
  def(
      cls, "_merge",
      [](PythonLearner& self, const std::string& key, const RuleDict& rule) {
        self.merge(key, rule_of(rule));
      },
      "Takes in a published rule that is new or more confident, while there is room.", arg("key"),
      arg("rule"));
  def(
      cls, "_take_over",
      [](PythonLearner& self, const std::string& key, const RuleDict& rule) {
        self.take_over(key, rule_of(rule));
      },
      "Puts a rule of the shared hash into the table, while there is room.", arg("key"),
      arg("rule"));
  def(
      cls, "_record_kept", [](PythonLearner& self) { self.record_kept(); },
      "Records what calls that could not wait have kept for this.");
  def(cls, "_after_fork", &PythonLearner::after_fork, "Starts afresh in the child of a fork.");
  bind_member<&PythonLearner::redis_url>(cls, "_redis_url");
  bind_member<&PythonLearner::redis_channel>(cls, "_redis_channel");
  bind_member<&PythonLearner::redis_client>(cls, "_redis_client");
  bind_member<&PythonLearner::redis_sub_thread>(cls, "_redis_sub_thread");
  cls.def_prop_ro(
      "_link", [](const PythonLearner& self) { return self.link; },
      nb::sig("def _link(self) -> typing.Any"));
}

}  // namespace

void bind_flywheel(nb::module_& module) {
  bind_rule(module);
  LearnerClass cls(
      module, "FlywheelLearner",
      "Remembers which recovery worked for which fault, and advises.\n\n"
      "Its table of rules is kept in a file and, with a Redis, shared with a fleet. No failure of\n"
      "either is raised: it goes on with what it has. Any thread.",
      nb::type_slots(collected<PythonLearner>), nb::dynamic_attr(), nb::is_weak_referenceable());
  def(
      cls, "__init__",
      [](nb::pointer_and_handle<PythonLearner> self, const OptionalText& persist_path,
         const OptionalText& redis_url, const std::string& redis_channel) {
        new (self.p) PythonLearner(persist_path, redis_url.value_or(""), redis_channel);
        nb::inst_set_state(self.h, true, true);
        self.p->start();
        call(Helper::kWatchForks, self.h);
      },
      "Reads the rules file, and those of the fleet.\n\n"
      "Args:\n"
      "    persist_path: the file; None is .tarvomeldric/flywheel_rules.json in the home "
      "directory.\n"
      "    redis_url: the fleet's Redis; None asks the environment's TARVOMELDRIC_REDIS_URL.\n"
      "    redis_channel: the fleet's channel; its rules are in the hash of this name + "
      "\":rules\".\n\n"
      "Raises:\n"
      "    TypeError: an argument of the wrong type.",
      arg("persist_path") = nb::none(), arg("redis_url") = nb::none(),
      arg("redis_channel") = "tarvomeldric:flywheel");
  bind_use(cls);
  bind_keeping(cls);
  bind_fleet(cls);
  bind_field(cls, table_field());
  bind_field(cls, field<&LearnerFields::records>("_records", "outcomes counted by this learner"));
  bind_field(cls, field<&LearnerFields::bootstrap_loaded>(
                      "_bootstrap_loaded", "whether it started from the bootstrap rules"));
  bind_field(cls, field<&LearnerFields::sync_mode>("_sync_mode", "\"redis\" or \"local\""));
  bind_field(cls, lock_field<PythonLearner>());
}

}  // namespace tarvomeldric::host
