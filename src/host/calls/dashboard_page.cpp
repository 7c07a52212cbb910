#include "host/calls/dashboard_page.h"

#include <string>

#include "observability/dashboard_page.h"

namespace tarvomeldric::host {
namespace {

// Python's text form of a value as it is; one that has none is the page's failure.
std::string shown(nb::handle value) {
  return to_utf8(host_call([&]() -> nb::object { return nb::str(value); }));
}

nb::object part(nb::handle dict, const char* key) {
  return call(dict.attr("get"), key, nb::dict());
}
std::string shown_or(nb::handle dict, const char* key, const char* otherwise) {
  return shown(call(dict.attr("get"), key, otherwise));
}

PageFigures::Provider provider_of(const std::string& name, nb::handle stats) {
  return {.name = name,
          .healthy = is_true(call(stats.attr("get"), "healthy")),
          .score = shown_or(stats, "health_score", "?"),
          .latency_ms = shown_or(stats, "avg_latency_ms", "?"),
          .successes = shown_or(stats, "success", "0"),
          .failures = shown_or(stats, "fail", "0"),
          .circuit = shown_or(part(stats, "circuit"), "state", "?")};
}

PageFigures::Named named(nb::handle dict) {
  PageFigures::Named entries;
  for (nb::handle pair : call(dict.attr("items"))) {
    entries.emplace_back(shown(item(pair, nb::int_(0))), shown(item(pair, nb::int_(1))));
  }
  return entries;
}

}  // namespace

nb::str dashboard_page(nb::handle engine) {
  const nb::object stats = call(engine.attr("get_stats"));
  const nb::object flywheel = part(stats, "flywheel");
  const auto count = [&](const char* key) { return shown(item(stats, key)); };
  PageFigures page{.version = count("version"),
                   .providers = {},
                   .calls = count("call_count"),
                   .healed = count("heal_count"),
                   .heal_rate = count("heal_rate"),
                   .retries_skipped = count("l1_skip_count"),
                   .downgrades = count("l2_downgrade_count"),
                   .failovers = count("l3_failover_count"),
                   .learned = count("l4_learned_count"),
                   .rules = shown_or(flywheel, "total_rules", "0"),
                   .confident_rules = shown_or(flywheel, "high_confidence_rules", "0"),
                   .sync_mode = shown_or(flywheel, "sync_mode", "local"),
                   .rate_limited = count("rate_limited_count"),
                   .bulkhead_rejected = count("bulkhead_rejected_count"),
                   .counters = named(part(part(stats, "metrics"), "counters")),
                   .diagnoses = named(part(stats, "diagnosis_counts"))};
  for (nb::handle pair : call(part(stats, "providers").attr("items"))) {
    page.providers.push_back(provider_of(shown(item(pair, nb::int_(0))), item(pair, nb::int_(1))));
  }
  return from_utf8(tarvomeldric::dashboard_page(page));
}

}  // namespace tarvomeldric::host
