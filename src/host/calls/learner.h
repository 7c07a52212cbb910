#pragma once

#include <optional>
#include <string>
#include <tuple>

#include "flywheel/learner.h"
#include "host/interpreter/python.h"
#include "host/records/convert.h"

namespace tarvomeldric::host {

// The learner as Python holds it: the core's, with its place in the home directory and, when a
// Redis URL is given, its connection to a fleet. Nothing that happens to either fails a caller;
// none of its operations throws anything but an interrupt. Any thread that holds the interpreter
// lock.
class PythonLearner final : public FlywheelLearner, private RulePublisher {
 public:
  // An empty path stands for the default one, an empty URL for the environment's.
  PythonLearner(const std::optional<std::string>& persist_path, std::string redis_url,
                std::string redis_channel);
  // Takes in what is known already: the file, then the fleet.
  void start();

  void load();
  void init_redis();
  void load_shared_rules();
  void publish_rule(const std::string& key, const LearnedRule& rule);

  // What the thread that follows the fleet's channel runs.
  void subscribe();
  // In the child of a fork: a connection and a subscriber of its own.
  void after_fork();

  // The path of the rules file, as Python writes paths.
  nb::object persist_path();
  void set_persist_path(nb::handle path);

  auto held() {
    return std::tie(redis_client, redis_sub_thread, link, interpreter_locked_fields().rules);
  }

  std::string redis_url;
  std::string redis_channel;
  nb::object redis_client = nb::none();
  nb::object redis_sub_thread = nb::none();
  nb::object link = nb::none();

 private:
  nb::object self() const { return nb::find(this); }
  nb::object new_link() const;
  void publish(const std::string& key, const LearnedRule& rule) override;
};

constexpr auto python_name(Named<PythonLearner>) { return const_name("FlywheelLearner"); }

}  // namespace tarvomeldric::host
