#pragma once

#include <array>
#include <string>
#include <vector>

#include "engine/call.h"
#include "host/learner.h"
#include "host/python.h"
#include "providers/engine_counters.h"
#include "providers/registry.h"

namespace tarvomeldric::host {

// The engine that the host application holds. Its members are host objects, so that the host can
// read and replace them; a call works with those it finds when it starts.
class Engine {
 public:
  // `providers`: None, a list of preset names, or a dictionary of records; `api_keys`: None or a
  // dictionary from provider name to key. Throws a type or value error for anything else.
  Engine(nb::handle providers, nb::handle api_keys);
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void auto_discover(nb::handle api_keys);
  void init_from_list(nb::handle names, nb::handle api_keys);
  void add_provider(nb::handle config_or_name, nb::handle config);

  // The pooled blocking client for a provider, made on first use.
  nb::object sync_client(const std::string& provider_name);
  // The pooled client for the running loop: at once if there is one (else None), or awaited.
  nb::object find_session(const std::string& provider_name);
  nb::object session(const std::string& provider_name);
  // The awaitable that closes every pooled client, and the blocking form.
  nb::object close();
  void close_sync();
  void close_sync_clients();

  // In the child of a fork: new locks, free slots, and connections of its own. The parent's stay as
  // they are.
  void after_fork();

  nb::object telemetry_collector();

  nb::dict read_counters() const;
  nb::dict health_check() const;
  nb::dict stats() const;
  nb::dict mapek_stats() const;

  int traverse(visitproc visit, void* arg);
  void clear();

  nb::object providers;
  nb::object diagnoser;
  nb::object learner;
  nb::object metrics;
  nb::object topology;
  nb::object http_pool;
  nb::object sync_client_pool;
  nb::object last_raw_response = nb::none();
  nb::object telemetry = nb::none();
  EngineCounters counters;
  Mutex pool_lock;
  Mutex sync_client_lock;

 private:
  nb::handle clients();
  nb::object pool_lock_object();
  nb::object clients_;  // host.HttpClients, made on first use
};

// `api_keys` as a dictionary; a type error for what is neither that nor None.
nb::object keys_or_empty(nb::handle api_keys);
// A preset provider's record with its models, and with its key from `api_keys`, else from the
// environment, else an empty one.
ProviderFields preset_record(std::string_view name, std::string_view base_url, nb::handle api_keys);

// The registry of an engine: the host's dictionary, whose entries anybody may set.
class HostRegistry final : public Registry {
 public:
  explicit HostRegistry(nb::handle providers) : providers_(providers) {}
  std::vector<NamedProvider> entries() const override;

 private:
  nb::handle providers_;
};

// The core's object behind a bound one; a type error that names the member when it is another type.
template <class T>
T& bound(nb::handle object, const char* member) {
  if (!is_made<T>(object)) {
    throw nb::type_error((std::string(member) + " must be " + nb::type_name(nb::type<T>()).c_str() +
                          ", not " + class_name(object))
                             .c_str());
  }
  return *nb::inst_ptr<T>(object);
}

}  // namespace tarvomeldric::host
