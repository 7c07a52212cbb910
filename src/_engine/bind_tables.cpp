#include "_engine/rooms.h"
#include "diagnosis/fault.h"
#include "diagnosis/fault_patterns.h"
#include "flywheel/bootstrap_rules.h"
#include "host/records/str_enum.h"
#include "providers/limits.h"
#include "providers/presets.h"
#include "semantic/topology.h"

// The module's constant tables, as Python would have written them.
namespace tarvomeldric::host {
namespace {

nb::object category(FaultCategory value) { return PythonEnum<FaultCategory>::member(value); }

nb::tuple pattern_row(nb::handle pattern, const FaultPattern& row) {
  const Decision decision = decision_of(row.category);
  return nb::make_tuple(pattern, category(row.category), row.confidence, decision.should_retry,
                        decision.skip_to_failover, from_utf8(row.label));
}

nb::list patterns() {
  nb::list rows;
  for (const FaultPattern& row : kFaultPatterns) {
    rows.append(pattern_row(from_utf8(row.pattern), row));
  }
  return rows;
}

// Compiled on first sight: the engine has its own, and compiling these takes longer than the rest
// of the import.
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

nb::list list_of(const Names& names) {
  nb::list list;
  for (const std::string_view name : names) list.append(from_utf8(name));
  return list;
}

void bind_provider_tables(nb::module_& module) {
  nb::dict urls;
  nb::dict variables;
  for (const Preset& row : kPresets) {
    const nb::str name = from_utf8(row.name);
    urls[name] = from_utf8(row.base_url);
    variables[name] = from_utf8(row.key_variable);
  }
  nb::dict models;
  nb::dict defaults;
  nb::dict quick_start;
  for (const std::string_view listed : kModelOrder) {
    const Preset& row = preset(listed);
    const nb::str name = from_utf8(listed);
    models[name] = list_of(row.models);
    defaults[name] = from_utf8(row.default_model);
    quick_start[from_utf8(row.key_variable)] =
        nb::make_tuple(name, from_utf8(row.quick_start_url()));
  }
  nb::dict downgrades;
  for (const std::string_view name : kDowngradeOrder) {
    downgrades[from_utf8(name)] = list_of(preset(name).downgrades);
  }
  module.attr("_PRESET_URLS") = urls;
  module.attr("_ENV_KEY_MAP") = variables;
  module.attr("_MODEL_PROVIDERS") = models;
  module.attr("_DEFAULT_MODELS") = defaults;
  module.attr("_DOWNGRADE_CHAIN") = downgrades;
  module.attr("_ENV_MAP") = quick_start;
  module.attr("_MAX_RETRIES") = kMaxRetries;
  module.attr("_MAX_PAYLOAD_SIZE") = kMaxPayloadBytes;
  module.attr("_PROVIDER_TIMEOUT") = kProviderTimeoutSeconds;
}

nb::object set_of(const Names& names) { return made(PyFrozenSet_New(list_of(names).ptr())); }

nb::list bootstrap_rules() {
  nb::list rules;
  for (const BootstrapRule& row : kBootstrapRules) {
    rules.append(make_dict({{"pattern", from_utf8(row.pattern)},
                            {"action", from_utf8(row.action)},
                            {"success_count", nb::int_(row.success_count)},
                            {"fail_count", nb::int_(row.fail_count)},
                            {"confidence", number(row.confidence)}}));
  }
  return rules;
}

}  // namespace

void bind_tables(nb::module_& module) {
  bind_fault_tables(module);
  bind_provider_tables(module);
  module.attr("_STRONG_EQUIV_TASKS") = set_of(kStrongEquivTasks);
  module.attr("_TAU_TASKS") = set_of(kTauTasks);
  module.attr("_OOB_TASKS") = set_of(kOobTasks);
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
