#include "_engine/engine_class.h"
#include "engine/read_outs.h"
#include "host/records/read_outs.h"
#include "host/records/records.h"
#include "providers/models.h"

namespace tarvomeldric::host {
void bind_decisions(EngineClass& cls) {
  using OptionalText = std::optional<std::string>;
  def(cls, "_pick_provider", &Engine::pick_provider,
      "The provider of a first attempt: one that serves the model, else the healthiest.",
      arg("model"), arg("providers"));
  def(cls, "_pick_fallback", &Engine::pick_fallback,
      "The healthiest of the providers; among equals the first.", arg("providers"));
  def(cls, "_provider_priority", &Engine::provider_priority,
      "The score by which failover candidates are ordered; higher is better.", arg("provider"),
      arg("fault_pattern"), arg("sub_category") = "");
  def(
      cls, "_resolve_model",
      [](const Engine&, std::string_view provider_name, const OptionalText& requested_model) {
        return resolve_model(provider_name, requested_model.value_or(""));
      },
      "The model to send to a provider for the requested one.", arg("provider_name"),
      arg("requested_model") = nb::none());
  def(cls, "_get_downgraded_model", &Engine::downgraded_model,
      "The next model down the provider's chain, or None; none when out of bounds.",
      arg("provider"), arg("current_model"),
      arg("semantic_domain") =
          PythonEnum<SemanticDomain>::member(SemanticDomain::kTauNeighborhood));
  def(
      cls, "_model_to_error_hint",
      [](const Engine&, const OptionalText& model) {
        return model_to_error_hint(model.value_or(""));
      },
      "The learner's pattern for requests of the model's family, or None.", arg("model"));
  def(cls, "_inc_counter", &Engine::inc_counter,
      "Adds to a counter; a new name makes an attribute.", arg("name"), arg("value") = 1);
  def(
      cls, "_read_counters",
      [](const Engine& self) { return CountDict(dict_of(counter_figures(self.counters))); },
      "A snapshot of the counters.");
  def(
      cls, "health_check",
      [](const Engine& self) {
        const PythonRegistry registry(self.providers);
        return Annotated<"dict[str, str]">(dict_of(health_words(registry)));
      },
      "Each provider's state: no_key, circuit_open, degraded, unhealthy or healthy.");
  def(cls, "get_available_providers", &Engine::available_names,
      "The names of the providers that may be called now, in order of registration.");
  def(
      cls, "get_metrics", [](const Engine& self) { return self.metrics; },
      "The engine's own collector.");
  def(cls, "get_stats", &Engine::stats,
      "Counters, providers, diagnoses, learned rules and metrics, built afresh.");
  def(cls, "get_mapek_stats", &Engine::mapek_stats,
      "What the loop did: healing by level, contracts, semantic boundaries, rules.");
  def(cls, "_get_telemetry", &Engine::telemetry_collector,
      "The telemetry collector, made on first use.");
}

}  // namespace tarvomeldric::host
