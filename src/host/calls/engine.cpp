#include "host/calls/engine.h"

#include "host/interpreter/helpers.h"
#include "host/records/argument.h"
#include "host/records/records.h"
#include "providers/presets.h"

namespace tarvomeldric::host {
namespace {

template <class T>
Instance<T> fresh_part() {
  return Instance<T>(call(nb::type<T>()));
}

// The given key, else the one in the environment, else empty.
std::string key_for(std::string_view provider, const Keys& api_keys) {
  if (const nb::handle given = api_keys ? entry(*api_keys, from_utf8(provider)) : nb::handle()) {
    const std::string name = "api_keys['" + std::string(provider) + "']";
    const auto key = convert_argument<std::optional<std::string>>(given, name.c_str());
    if (key && !key->empty()) return *key;
  }
  const std::string_view variable = preset(provider).key_variable;
  if (variable.empty()) return {};
  // Python's own view of the environment, which the program may have changed.
  return to_utf8(call(import("os").attr("environ").attr("get"), from_utf8(variable), ""));
}

std::string unknown_provider(const std::string& name) {
  std::string message =
      "Unknown provider '" + name + "'. Use ProviderConfig for custom providers, or choose from: ";
  const char* separator = "";
  for (const Preset& row : kPresets) {
    message += separator + std::string(row.name);
    separator = ", ";
  }
  return message;
}

}  // namespace

ProviderPtr preset_record(std::string_view name, std::string_view base_url, const Keys& api_keys) {
  ProviderFields fields;
  fields.name = name;
  fields.base_url = base_url;
  fields.api_key = key_for(name, api_keys);
  const Names models = preset(name).models;
  fields.models = {models.begin(), models.end()};
  return std::make_shared<ProviderConfig>(std::move(fields));
}

Engine::Engine(nb::handle given_providers, const Keys& api_keys)
    : Parts{nb::dict(), fresh_part<Diagnoser>(), fresh_part<PythonLearner>(),
            fresh_part<MetricsCollector>(), fresh_part<SemanticTopology>()},
      http_pool(nb::dict()),
      sync_client_pool(nb::dict()) {
  if (given_providers.is_none()) {
    auto_discover(api_keys);
  } else if (PyList_Check(given_providers.ptr())) {
    init_from_list(nb::borrow(given_providers), api_keys);
  } else if (PyDict_Check(given_providers.ptr())) {
    providers = nb::borrow(given_providers);
  } else {
    throw nb::type_error(
        ("providers must be list, dict, or None, got " + class_name(given_providers)).c_str());
  }
}

void Engine::auto_discover(const Keys& api_keys) {
  for (const Preset& row : kPresets) {
    if (row.base_url.empty()) continue;
    const ProviderPtr record = preset_record(row.name, row.base_url, api_keys);
    if (!record->endpoint().api_key.empty()) providers[from_utf8(row.name)] = record;
  }
}

void Engine::init_from_list(const TextList& names, const Keys& api_keys) {
  for (nb::handle item : names) {
    const auto name = convert_argument<std::string>(item, "providers: a name");
    const std::string_view url = preset(name).base_url;
    if (url.empty()) throw nb::value_error(unknown_provider(name).c_str());
    providers[item] = preset_record(name, url, api_keys);
  }
}

void Engine::add_provider(const Annotated<"ProviderConfig | str">& config_or_name,
                          const Annotated<"ProviderConfig | None">& config) {
  if (PyUnicode_Check(config_or_name.ptr()) && !config.is_none()) {
    providers[config_or_name] = config;
  } else if (is_made<ProviderConfig>(config_or_name)) {
    const std::string name = nb::inst_ptr<ProviderConfig>(config_or_name)->name();
    providers[from_utf8(name)] = config_or_name;
  } else {
    throw nb::type_error("add_provider expects ProviderConfig or (name, ProviderConfig)");
  }
}

Any Engine::telemetry_collector() {
  if (telemetry.is_none()) telemetry = call(Helper::kTelemetryCollector);
  return telemetry;
}

Surroundings Parts::surroundings(const Registry& registry, EngineCounters& counters,
                                 HedgeBook& hedging) const {
  return {registry, *topology, *diagnoser, *learner, *metrics, counters, hedging};
}

std::vector<NamedProvider> PythonRegistry::entries() const {
  std::vector<NamedProvider> entries;
  entries.reserve(static_cast<std::size_t>(PyDict_GET_SIZE(providers_.ptr())));
  PyObject* name = nullptr;
  PyObject* record = nullptr;
  Py_ssize_t at = 0;
  while (PyDict_Next(providers_.ptr(), &at, &name, &record)) {
    auto converted = convert_argument<std::string>(name, "_providers: a name");
    if (!is_made<ProviderConfig>(record)) {
      refuse_argument("provider '" + converted + "'", "a ProviderConfig", record);
    }
    entries.push_back({std::move(converted), nb::cast<ProviderPtr>(nb::handle(record))});
  }
  return entries;
}

}  // namespace tarvomeldric::host
