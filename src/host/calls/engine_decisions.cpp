#include "engine/failover.h"
#include "engine/read_outs.h"
#include "engine/selection.h"
#include "host/calls/engine.h"
#include "host/records/argument.h"
#include "host/records/records.h"
#include "observability/metric_names.h"
#include "providers/models.h"

// The decisions of a call and the figures of an engine, as Python code may ask for them one by one.
namespace tarvomeldric::host {
namespace {

// The given names with their records; one that is not registered is a KeyError.
std::vector<NamedProvider> named(const Engine& engine, nb::handle names) {
  std::vector<NamedProvider> chosen;
  for (nb::handle name : names) {
    const nb::object record = item(engine.providers, name);
    require<ProviderConfig>(record, "a provider");
    chosen.push_back(
        {convert_argument<std::string>(name, "providers: a name"), nb::cast<ProviderPtr>(record)});
  }
  if (chosen.empty()) throw nb::value_error("providers must not be empty");
  return chosen;
}

}  // namespace

std::string Engine::pick_provider(const std::optional<std::string>& model,
                                  const NameList& names) const {
  return tarvomeldric::pick_provider(model.value_or(""), named(*this, names)).name;
}

std::string Engine::pick_fallback(const NameList& names) const {
  return tarvomeldric::pick_fallback(named(*this, names)).name;
}

double Engine::provider_priority(const std::string& provider, const std::string& fault_pattern,
                                 const std::string& sub_category) const {
  const nb::list names(nb::make_tuple(from_utf8(provider)));
  const std::string& pattern = sub_category.empty() ? fault_pattern : sub_category;
  return tarvomeldric::provider_priority(named(*this, names).front(), learner->advise(pattern));
}

std::optional<std::string> Engine::downgraded_model(const std::string& provider,
                                                    const std::string& current_model,
                                                    SemanticDomain domain) const {
  if (domain != SemanticDomain::kOutOfBounds) {
    return tarvomeldric::downgraded_model(provider, current_model);
  }
  metrics->inc(metric::kDowngradeOutOfBounds);
  return std::nullopt;
}

void Engine::inc_counter(const std::string& name, std::int64_t value) {
  for (std::size_t i = 0; i < kCounterNames.size(); ++i) {
    if (name == std::string("_") + kCounterNames[i]) {
      counters.add(static_cast<Counter>(i), value);
      return;
    }
  }
  // An attribute of the caller's own may run code of theirs, which no lock of ours waits for; a
  // plain one is changed without giving the interpreter up.
  const nb::object self = nb::find(this);
  const nb::str key = from_utf8(name);
  const nb::object sum = attribute_or(self, key, nb::int_(0));
  host_call([&] { nb::setattr(self, key, sum + nb::int_(value)); });
}

NameList Engine::available_names() const {
  nb::list names;
  for (const auto& entry : available_providers(PythonRegistry(providers))) {
    names.append(from_utf8(entry.name));
  }
  return names;
}

Figures Engine::stats() {
  return engine_figures(surroundings(PythonRegistry(providers), counters, hedging));
}

Figures Engine::mapek_stats() {
  return loop_figures(surroundings(PythonRegistry(providers), counters, hedging));
}

}  // namespace tarvomeldric::host
