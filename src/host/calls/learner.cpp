#include "host/calls/learner.h"

#include <utility>

#include "flywheel/rules_json.h"
#include "host/interpreter/errors.h"
#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

std::string or_environment(std::string given, const char* variable) {
  if (!given.empty()) return given;
  return to_utf8(call(import("os").attr("environ").attr("get"), variable, ""));
}

// As the operating system takes it: a path may hold bytes that are no text.
std::string system_path(nb::handle path) {
  const auto bytes = made(PyUnicode_EncodeFSDefault(path.ptr()));
  return std::string(PyBytes_AS_STRING(bytes.ptr()),
                     static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())));
}

std::string or_default_path(const std::optional<std::string>& given) {
  if (given && !given->empty()) return system_path(from_utf8(*given));
  return system_path(call(Helper::kDefaultRulesPath));
}

}  // namespace

PythonLearner::PythonLearner(const std::optional<std::string>& path, std::string url,
                             std::string channel)
    : FlywheelLearner(or_default_path(path)),
      redis_url(or_environment(std::move(url), "TARVOMELDRIC_REDIS_URL")),
      redis_channel(std::move(channel)) {
  set_sync_mode(redis_url.empty() ? "local" : "redis");
  set_publisher(this);
}

void PythonLearner::start() {
  load();
  if (shares()) init_redis();
}

nb::object PythonLearner::persist_path() {
  const std::string& path = file().path();
  return made(PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
}

void PythonLearner::set_persist_path(nb::handle path) {
  std::string given = system_path(path);
  MutexLock lock(mutex());
  file().set_path(std::move(given));
}

void PythonLearner::load() {
  file().set_unreadable(false);
  quietly([&] { call(Helper::kLoadRules, self()); });
  if (stats().total_rules == 0) seed();
}

void PythonLearner::init_redis() {
  const bool started = quietly([&] {
    link = new_link();
    redis_client = call(link.attr("connect"));
    call(link.attr("ping"), redis_client);
    redis_sub_thread = call(Helper::kStartSubscriber, self());
    load_shared_rules();
  });
  if (!started) set_sync_mode("local");
}

nb::object PythonLearner::new_link() const {
  return call(Helper::kFleetLink, from_utf8(redis_url), from_utf8(redis_channel));
}

void PythonLearner::load_shared_rules() {
  quietly([&] { call(Helper::kLoadSharedRules, self()); });
}

void PythonLearner::publish(const std::string& key, const LearnedRule& rule) {
  publish_rule(key, rule);
}

void PythonLearner::publish_rule(const std::string& key, const LearnedRule& rule) {
  if (redis_client.is_none()) return;
  quietly([&] {
    if (link.is_none()) link = new_link();
    const std::string source = to_utf8(call(link.attr("source")));
    call(link.attr("publish"), redis_client, from_utf8(key), from_utf8(rule_json(rule)),
         from_utf8(rule_message(key, rule, source)));
  });
}

void PythonLearner::subscribe() {
  call(Helper::kSubscribeFor, call(import("weakref").attr("ref"), self()));
}

void PythonLearner::after_fork() {
  forget_kept();
  call(Helper::kKeepAfterFork, redis_client, redis_sub_thread, link);
  if (shares()) init_redis();
}

}  // namespace tarvomeldric::host
