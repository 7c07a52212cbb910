#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "engine/call.h"
#include "host/calls/learner.h"
#include "host/interpreter/python.h"
#include "host/records/records.h"
#include "providers/engine_counters.h"
#include "providers/registry.h"
#include "support/figures.h"

namespace tarvomeldric::host {

using NameList = Annotated<"list[str]">;

// The registry of an engine: a Python dictionary, whose entries any code may set. With the
// interpreter lock held; borrows the dictionary.
class PythonRegistry final : public Registry {
 public:
  explicit PythonRegistry(nb::handle providers) : providers_(providers) {}
  std::vector<NamedProvider> entries() const override;

 private:
  nb::handle providers_;
};

// The members of an engine that a call works with. They are Python objects, so that Python code can
// read and replace them; a call keeps hold of those it finds when it starts.
struct Parts {
  DictOf<"dict[str, ProviderConfig]"> providers;
  Instance<Diagnoser> diagnoser;
  Instance<PythonLearner> learner;
  Instance<MetricsCollector> metrics;
  Instance<SemanticTopology> topology;

  // The core's view of them.
  Surroundings surroundings(const Registry& registry, EngineCounters& counters,
                            HedgeBook& hedging) const;
  auto held() { return std::tie(providers, diagnoser, learner, metrics, topology); }
};

// The engine that an application holds. Any thread that holds the interpreter lock. What it decides
// is decided by the core; this class finds the core's parts behind its members.
class Engine : public Parts {
 public:
  // `providers`: None, a list of preset names, or a dictionary of records; a type or value error
  // for anything else.
  Engine(nb::handle providers, const Keys& api_keys);
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void auto_discover(const Keys& api_keys);
  void init_from_list(const TextList& names, const Keys& api_keys);
  void add_provider(const Annotated<"ProviderConfig | str">& config_or_name,
                    const Annotated<"ProviderConfig | None">& config);

  // The decisions of a call, by the names of registered providers; KeyError for one that is not.
  std::string pick_provider(const std::optional<std::string>& model, const NameList& names) const;
  std::string pick_fallback(const NameList& names) const;
  double provider_priority(const std::string& provider, const std::string& fault_pattern,
                           const std::string& sub_category) const;
  // Counted as a refusal out of bounds.
  std::optional<std::string> downgraded_model(const std::string& provider,
                                              const std::string& current_model,
                                              SemanticDomain domain) const;

  // The pooled blocking client for a provider, made on first use.
  Any sync_client(const std::string& provider_name);
  // The pooled client for the running loop: at once if there is one (else None), or awaited.
  nb::object find_session(const std::string& provider_name);
  Awaitable<Any> session(const std::string& provider_name);
  // The awaitable that closes every pooled client, and the blocking form. The engine stays usable:
  // the next request makes fresh clients.
  Awaitable<void> close();
  void close_sync();
  void close_sync_clients();
  // In the child of a fork: clients of its own. The parent's stay as they are.
  void after_fork();

  Any telemetry_collector();

  // Tells the listener of what happens in calls, until the handle is closed.
  Annotated<"Observation"> observe(const Any& listener);

  // Adds to a counter of the engine, or to an attribute of the caller's own.
  void inc_counter(const std::string& name, std::int64_t value);
  Figures stats();
  Figures mapek_stats();
  NameList available_names() const;

  auto held() {
    return std::tuple_cat(
        std::tie(http_pool, sync_client_pool, last_raw_response, telemetry, observations, clients_),
        Parts::held());
  }

  DictOf<"dict[str, typing.Any]"> http_pool;
  DictOf<"dict[str, typing.Any]"> sync_client_pool;
  Any last_raw_response = nb::none();
  Any telemetry = nb::none();
  nb::object observations = nb::tuple();  // replaced, never changed
  EngineCounters counters;
  HedgeBook hedging;
  Mutex pool_lock;
  Mutex sync_client_lock;

 private:
  nb::handle clients();
  nb::object lock_object(Mutex& lock);
  nb::object clients_;  // the package's HttpClients, made on first use
};

// A preset provider's record with its models, and with its key from `api_keys`, else from the
// environment, else an empty one.
ProviderPtr preset_record(std::string_view name, std::string_view base_url, const Keys& api_keys);

}  // namespace tarvomeldric::host
