#include "_engine/bindings.h"
#include "diagnosis/fault.h"
#include "diagnosis/fault_patterns.h"
#include "flywheel/bootstrap_rules.h"
#include "host/str_enum.h"
#include "providers/preset_tables.h"
#include "semantic/topology.h"

// The module's constant tables, as the host would have written them.
namespace tarvomeldric::host {
namespace {

nb::object category(FaultCategory value) { return HostEnum<FaultCategory>::member(value); }

nb::tuple pattern_row(nb::handle pattern, const FaultPattern& row) {
  const Decision decision = decision_of(row.category);
  return nb::make_tuple(pattern, category(row.category), row.confidence, decision.should_retry,
                        decision.skip_to_failover, nb::str(row.label));
}

nb::list patterns() {
  nb::list rows;
  for (const FaultPattern& row : kFaultPatterns) {
    rows.append(pattern_row(from_utf8(row.pattern), row));
  }
  return rows;
}

// Compiled on first sight: only the host looks at these, and compiling them takes longer than the
// rest of the import.
nb::list compiled_patterns() {
  const nb::object re = import("re");
  nb::list rows;
  for (const FaultPattern& row : kFaultPatterns) {
    rows.append(
        pattern_row(call(re.attr("compile"), from_utf8(row.pattern), re.attr("IGNORECASE")), row));
  }
  return rows;
}

void bind_fault_tables(nb::module_& module) {
  nb::dict statuses;
  for (const auto& [status, value] : kStatusMap) statuses[nb::int_(status)] = category(value);
  nb::dict decisions;
  for (std::size_t i = 0; i < kFaultCategories.size(); ++i) {
    const auto value = static_cast<FaultCategory>(i);
    const Decision decision = decision_of(value);
    decisions[category(value)] = nb::make_tuple(decision.should_retry, decision.skip_to_failover);
  }
  module.attr("_STATUS_MAP") = statuses;
  module.attr("_DECISION") = decisions;
  module.attr("_PATTERNS") = patterns();
}

template <class Table>
nb::dict model_table(const Table& table) {
  nb::dict dict;
  for (const ProviderModels& row : table) {
    nb::list models;
    for (const char* model : row.models) models.append(nb::str(model));
    dict[nb::str(row.provider)] = models;
  }
  return dict;
}

void bind_provider_tables(nb::module_& module) {
  nb::dict urls;
  for (const PresetUrl& row : kPresetUrls) urls[row.provider] = row.base_url;
  nb::dict variables;
  for (const ProviderKeyVariable& row : kEnvKeyMap) variables[row.provider] = row.variable;
  nb::dict defaults;
  for (const DefaultModel& row : kDefaultModels) defaults[row.provider] = row.model;
  nb::dict quick_start;
  for (const QuickStartProvider& row : kQuickStartProviders) {
    quick_start[row.variable] = nb::make_tuple(row.provider, row.base_url);
  }
  module.attr("_PRESET_URLS") = urls;
  module.attr("_ENV_KEY_MAP") = variables;
  module.attr("_MODEL_PROVIDERS") = model_table(kModelProviders);
  module.attr("_DEFAULT_MODELS") = defaults;
  module.attr("_DOWNGRADE_CHAIN") = model_table(kDowngradeChains);
  module.attr("_ENV_MAP") = quick_start;
  module.attr("_MAX_RETRIES") = kMaxRetries;
  module.attr("_MAX_PAYLOAD_SIZE") = kMaxPayloadSize;
  module.attr("_PROVIDER_TIMEOUT") = kProviderTimeout;
}

template <class Tasks>
nb::object task_set(const Tasks& tasks) {
  nb::list names;
  for (const char* task : tasks) names.append(nb::str(task));
  return nb::steal(PyFrozenSet_New(names.ptr()));
}

nb::list bootstrap_rules() {
  nb::list rules;
  for (const BootstrapRule& row : kBootstrapRules) {
    nb::dict rule;
    rule["pattern"] = row.pattern;
    rule["action"] = row.action;
    rule["success_count"] = row.success_count;
    rule["fail_count"] = row.fail_count;
    rule["confidence"] = row.confidence;
    rules.append(rule);
  }
  return rules;
}

}  // namespace

void bind_tables(nb::module_& module) {
  bind_fault_tables(module);
  bind_provider_tables(module);
  module.attr("_STRONG_EQUIV_TASKS") = task_set(kStrongEquivTasks);
  module.attr("_TAU_TASKS") = task_set(kTauTasks);
  module.attr("_OOB_TASKS") = task_set(kOobTasks);
  module.attr("_BOOTSTRAP_RULES") = bootstrap_rules();
  module.def("__getattr__", [module = nb::handle(module)](const std::string& name) -> nb::object {
    if (name == "_COMPILED") {
      nb::list rows = compiled_patterns();
      nb::setattr(module, "_COMPILED", rows);
      return rows;
    }
    throw nb::attribute_error(
        ("module 'tarvomeldric._engine' has no attribute '" + name + "'").c_str());
  });
}

}  // namespace tarvomeldric::host
