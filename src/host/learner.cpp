#include "host/learner.h"

#include <utility>

#include "flywheel/rules_json.h"
#include "host/collected.h"

namespace tarvomeldric::host {
namespace {

constexpr const char* kFleet = "tarvomeldric._fleet";
constexpr const char* kRules = "tarvomeldric._rules";

std::string or_environment(std::string given, const char* variable) {
  if (!given.empty()) return given;
  return to_utf8(call(import("os").attr("environ").attr("get"), variable, ""));
}

// As the operating system takes it: a path may hold bytes that are no text.
std::string system_path(nb::handle path) {
  const auto bytes = nb::steal(PyUnicode_EncodeFSDefault(path.ptr()));
  if (!bytes.is_valid()) throw nb::python_error();
  return std::string(PyBytes_AS_STRING(bytes.ptr()),
                     static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())));
}

std::string or_default_path(nb::handle given) {
  if (is_true(given)) return system_path(given);
  return system_path(call(import(kRules).attr("default_path")));
}

// Runs a step whose failure is nobody's business; an interrupt still passes. Whether it succeeded.
template <class F>
bool quietly(F&& step) {
  try {
    std::forward<F>(step)();
    return true;
  } catch (nb::python_error& failure) {
    if (!failure.matches(PyExc_Exception)) throw;
    return false;
  }
}

}  // namespace

HostLearner::HostLearner(nb::handle path, std::string url, std::string channel)
    : FlywheelLearner(or_default_path(path)),
      redis_url(or_environment(std::move(url), "TARVOMELDRIC_REDIS_URL")),
      redis_channel(std::move(channel)) {
  host_fields().sync_mode = redis_url.empty() ? "local" : "redis";
  set_publisher(this);
}

nb::object HostLearner::persist_path() {
  const std::string& path = file().path();
  return nb::steal(
      PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
}

void HostLearner::set_persist_path(nb::handle path) {
  std::string given = system_path(path);
  MutexLock lock(mutex());
  file().set_path(std::move(given));
}

void HostLearner::load(nb::handle self) {
  file().set_unreadable(false);
  quietly([&] { call(import(kRules).attr("load"), self); });
  if (host_fields().rules.empty()) seed();
}

void HostLearner::init_redis(nb::handle self) {
  const bool started = quietly([&] {
    link = new_link();
    redis_client = call(link.attr("connect"));
    call(redis_client.attr("ping"));
    redis_sub_thread = call(import(kFleet).attr("start_subscriber"), self);
    load_shared_rules(self);
  });
  if (!started) host_fields().sync_mode = "local";
}

nb::object HostLearner::new_link() const {
  return call(import(kFleet).attr("Link"), from_utf8(redis_url), from_utf8(redis_channel));
}

void HostLearner::load_shared_rules(nb::handle self) {
  quietly([&] { call(import(kFleet).attr("load_rules"), self); });
}

void HostLearner::publish(const std::string& key, const LearnedRule& rule) {
  publish_rule(key, rule);
}

void HostLearner::publish_rule(const std::string& key, const LearnedRule& rule) {
  if (redis_client.is_none()) return;
  quietly([&] {
    if (link.is_none()) link = new_link();
    const std::string source = to_utf8(call(link.attr("source")));
    call(link.attr("publish"), redis_client, from_utf8(key), from_utf8(rule_json(rule)),
         from_utf8(rule_message(key, rule, source)));
  });
}

void HostLearner::after_fork(nb::handle self) {
  mutex().reset_after_fork();
  call(import("tarvomeldric._fork").attr("keep"), redis_client, redis_sub_thread, link);
  if (host_fields().sync_mode == "redis") init_redis(self);
}

int HostLearner::traverse(visitproc visit, void* arg) {
  Py_VISIT(redis_client.ptr());
  Py_VISIT(redis_sub_thread.ptr());
  Py_VISIT(link.ptr());
  return visit_host(host_fields().rules, visit, arg);
}

void HostLearner::clear() {
  drop(redis_client);
  drop(redis_sub_thread);
  drop(link);
}

}  // namespace tarvomeldric::host
