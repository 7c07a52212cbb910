#include "host/calls/engine.h"

#include <array>
#include <cstdlib>

#include "host/interpreter/helpers.h"
#include "host/records/argument.h"
#include "host/records/records.h"
#include "providers/presets.h"

namespace tarvomeldric::host {
namespace {

constexpr std::array kParts{&Parts::providers, &Parts::diagnoser, &Parts::learner, &Parts::metrics,
                            &Parts::topology};
constexpr std::array kHeldObjects{&Engine::http_pool, &Engine::sync_client_pool,
                                  &Engine::last_raw_response, &Engine::telemetry};

template <class T>
nb::object made() {
  return call(nb::type<T>());
}

// The given key, else the one in the environment, else empty.
std::string key_for(std::string_view provider, nb::handle api_keys) {
  if (PyObject* given = PyDict_GetItem(api_keys.ptr(), from_utf8(provider).ptr())) {
    if (given != Py_None && !PyUnicode_Check(given)) {
      refuse_argument("api_keys['" + std::string(provider) + "']", "str", given);
    }
    if (is_true(given)) return to_utf8(given);
  }
  const std::string_view variable = preset(provider).key_variable;
  if (variable.empty()) return {};
  // Python's own view of the environment, which the program may have changed.
  return to_utf8(call(import("os").attr("environ").attr("get"), from_utf8(variable), ""));
}

nb::object make_record(ProviderFields fields) {
  return nb::cast(std::make_shared<ProviderConfig>(std::move(fields)));
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

nb::object keys_or_empty(nb::handle api_keys) {
  if (api_keys.is_none()) return nb::dict();
  if (!PyDict_Check(api_keys.ptr())) refuse_argument("api_keys", "dict or None", api_keys);
  return nb::borrow(api_keys);
}

ProviderFields preset_record(std::string_view name, std::string_view base_url,
                             nb::handle api_keys) {
  ProviderFields fields;
  fields.name = name;
  fields.base_url = base_url;
  fields.api_key = key_for(name, api_keys);
  const Names models = preset(name).models;
  fields.models = {models.begin(), models.end()};
  return fields;
}

Engine::Engine(nb::handle given_providers, nb::handle api_keys)
    : Parts{nb::dict(), made<Diagnoser>(), made<PythonLearner>(), made<MetricsCollector>(),
            made<SemanticTopology>()},
      http_pool(nb::dict()),
      sync_client_pool(nb::dict()) {
  keys_or_empty(api_keys);
  if (given_providers.is_none()) {
    auto_discover(api_keys);
  } else if (PyList_Check(given_providers.ptr())) {
    init_from_list(given_providers, api_keys);
  } else if (PyDict_Check(given_providers.ptr())) {
    providers = nb::borrow(given_providers);
  } else {
    throw nb::type_error(
        ("providers must be list, dict, or None, got " + std::string(class_name(given_providers)))
            .c_str());
  }
}

void Engine::auto_discover(nb::handle given_keys) {
  const nb::object api_keys = keys_or_empty(given_keys);
  for (const Preset& row : kPresets) {
    if (*row.base_url == '\0') continue;
    ProviderFields fields = preset_record(row.name, row.base_url, api_keys);
    if (!fields.api_key.empty()) providers[row.name] = make_record(std::move(fields));
  }
}

void Engine::init_from_list(nb::handle names, nb::handle given_keys) {
  const nb::object api_keys = keys_or_empty(given_keys);
  if (!PyList_Check(names.ptr())) refuse_argument("names", "list", names);
  for (nb::handle item : names) {
    const auto name = convert_argument<std::string>(item, "providers: a name");
    const std::string_view url = preset(name).base_url;
    if (url.empty()) throw nb::value_error(unknown_provider(name).c_str());
    providers[item] = make_record(preset_record(name, url, api_keys));
  }
}

void Engine::add_provider(nb::handle config_or_name, nb::handle config) {
  if (PyUnicode_Check(config_or_name.ptr()) && !config.is_none()) {
    providers[config_or_name] = config;
  } else if (is_made<ProviderConfig>(config_or_name)) {
    const std::string name = nb::inst_ptr<ProviderConfig>(config_or_name)->name();
    providers[from_utf8(name)] = config_or_name;
  } else {
    throw nb::type_error("add_provider expects ProviderConfig or (name, ProviderConfig)");
  }
}

nb::object Engine::telemetry_collector() {
  if (telemetry.is_none()) {
    telemetry = call(Helper::kTelemetryCollector);
  }
  return telemetry;
}

Surroundings Parts::surroundings(const Registry& registry, EngineCounters& counters) const {
  return {registry,
          require<SemanticTopology>(topology, "_topology"),
          require<Diagnoser>(diagnoser, "_diagnoser"),
          require<PythonLearner>(learner, "_learner"),
          require<MetricsCollector>(metrics, "_metrics"),
          counters};
}

int Parts::traverse(visitproc visit, void* arg) {
  for (auto held : kParts) Py_VISIT((this->*held).ptr());
  return 0;
}

void Parts::clear() {
  for (auto held : kParts) drop(this->*held);
}

int Engine::traverse(visitproc visit, void* arg) {
  for (auto held : kHeldObjects) Py_VISIT((this->*held).ptr());
  Py_VISIT(clients_.ptr());
  return Parts::traverse(visit, arg);
}

void Engine::clear() {
  for (auto held : kHeldObjects) drop(this->*held);
  drop(clients_);
  Parts::clear();
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
