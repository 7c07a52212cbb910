#pragma once

#include <string>

#include "flywheel/learner.h"
#include "host/python.h"

namespace tarvomeldric::host {

// The learner as the host holds it: the core's, with its place in the home directory and, when a
// Redis URL is given, its connection to a fleet. Nothing that happens to either fails a caller.
class HostLearner final : public FlywheelLearner, private RulePublisher {
 public:
  // An empty path stands for the default one, an empty URL for the environment's.
  HostLearner(nb::handle persist_path, std::string redis_url, std::string redis_channel);

  // What the host may call by hand; none of them throws anything but an interrupt.
  void load(nb::handle self);
  void init_redis(nb::handle self);
  void load_shared_rules(nb::handle self);
  void publish_rule(const std::string& key, const LearnedRule& rule);

  // In the child of a fork: a new lock, and a connection and a subscriber of its own.
  void after_fork(nb::handle self);

  // The path of the rules file, as the host writes paths.
  nb::object persist_path();
  void set_persist_path(nb::handle path);

  int traverse(visitproc visit, void* arg);
  void clear();

  std::string redis_url;
  std::string redis_channel;
  nb::object redis_client = nb::none();
  nb::object redis_sub_thread = nb::none();
  nb::object link = nb::none();

 private:
  nb::object new_link() const;
  void publish(const std::string& key, const LearnedRule& rule) override;
};

}  // namespace tarvomeldric::host
