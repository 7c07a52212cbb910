#include "host/quick_start.h"

#include <memory>
#include <string>

#include "host/argument.h"
#include "host/engine.h"
#include "host/records.h"
#include "providers/preset_tables.h"
#include "support/version.h"

namespace tarvomeldric::host {
namespace {

constexpr const char* kHelper = "tarvomeldric._quick_start";
constexpr std::string_view kProbeModel = "deepseek-chat";  // where no preset model is known

void print(const std::string& line) { call(import("builtins").attr("print"), from_utf8(line)); }

std::string status_line(const ProviderFields& provider) {
  return std::string("  [") + (provider.healthy ? "OK" : "DOWN") + "] " + provider.name + ": " +
         provider.base_url + " (models: " + std::to_string(provider.models.size()) + ")";
}

void print_banner(nb::handle engine, int found) {
  const nb::object available = call(engine.attr("get_available_providers"));
  const nb::object learned = call(engine.attr("_learner").attr("get_stats"));
  print(std::string("\n  TarvoMeldric v") + kVersion + " | " + std::to_string(found) +
        " provider(s) | " + std::to_string(nb::len(available)) + " healthy");
  print("  MAPE-K: Monitor->Analyze->Plan->Execute->Knowledge");
  print("  HA: CircuitBreaker + RateLimiter + Bulkhead per provider");
  print("  Semantic: Strong/Tau/OOB three-domain topology");
  print("  Flywheel: " + text_form(item(learned, "total_rules")) + " rules loaded");
  print("\n  Async:  engine.call('Hello')");
  print("  Sync:   engine.call_sync('Hello')");
  print("  Model:  engine.call('Hello', model='gpt-4o')");
  print("  Task:   engine.call('Hello', task_type='classification')");
}

}  // namespace

nb::object quick_start(nb::handle api_keys, bool verbose) {
  const nb::object keys = keys_or_empty(api_keys);
  nb::object engine = call(nb::type<Engine>());
  int found = 0;
  for (const QuickStartProvider& row : kQuickStartProviders) {
    ProviderFields fields = preset_record(row.provider, row.base_url, keys);
    if (fields.api_key.empty()) continue;
    fields.healthy = is_true(
        call(import(kHelper).attr("probe"), row.provider, row.base_url, from_utf8(fields.api_key)));
    const std::string line = status_line(fields);
    call(engine.attr("add_provider"), std::make_shared<ProviderConfig>(std::move(fields)));
    ++found;
    if (verbose) print(line);
  }
  if (verbose) print_banner(engine, found);
  return engine;
}

nb::object check_provider(nb::handle name, nb::handle base_url, nb::handle api_key) {
  const std::string provider = to_utf8(require_text(name, "name"));
  require_text(base_url, "base_url");
  require_text(api_key, "api_key");
  const std::string_view model = default_model(provider);
  return call(import(kHelper).attr("check_provider"), base_url, api_key,
              from_utf8(model.empty() ? kProbeModel : model));
}

}  // namespace tarvomeldric::host
