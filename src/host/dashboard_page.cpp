#include "host/dashboard_page.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "support/text.h"

namespace tarvomeldric::host {
namespace {

constexpr std::string_view kHealthy = "#4caf50";
constexpr std::string_view kUnhealthy = "#f44336";
constexpr std::string_view kNoFaults = R"(<span style="color:#a6adc8">No faults yet</span>)";
constexpr std::array<std::string_view, 6> kShownMetrics{"calls", "heal",    "fault",
                                                        "error", "success", "rate"};

// The host's text form of a value as it is; one that has none is the page's failure.
std::string shown(nb::handle value) {
  return to_utf8(host_call([&]() -> nb::object { return nb::str(value); }));
}

nb::object entry(nb::handle dict, const char* key, nb::handle otherwise) {
  return call(dict.attr("get"), key, otherwise);
}
nb::object entry(nb::handle dict, const char* key) { return entry(dict, key, nb::dict()); }
std::string shown_entry(nb::handle dict, const char* key, nb::handle otherwise) {
  return shown(entry(dict, key, otherwise));
}

// One fragment for each entry of a dictionary, in its order.
template <class Fragment>
std::string for_each_entry(nb::handle dict, Fragment fragment) {
  std::string html;
  for (nb::handle pair : call(dict.attr("items"))) {
    html += fragment(shown(item(pair, nb::int_(0))), item(pair, nb::int_(1)));
  }
  return html;
}

std::string provider_card(const std::string& name, nb::handle provider) {
  const nb::str unknown("?");
  const nb::int_ none(0);
  const bool healthy = is_true(entry(provider, "healthy", nb::none()));
  std::string html =
      R"(<div style="display:inline-block;margin:8px;padding:12px;border-radius:8px;)"
      R"(background:#1e1e2e;min-width:180px"><span style="color:)";
  html += healthy ? kHealthy : kUnhealthy;
  html += R"(;font-size:20px">&#9679;</span> <b style="color:#cdd6f4">)" + name;
  html += R"(</b><br><small style="color:#a6adc8">score: )";
  html += shown_entry(provider, "health_score", unknown) + " | ";
  html += shown_entry(provider, "avg_latency_ms", unknown);
  html += R"(ms</small><br><small style="color:#a6adc8">&#10003;)";
  html += shown_entry(provider, "success", none) + " &#10007;";
  html += shown_entry(provider, "fail", none) + " circuit:";
  html += shown_entry(entry(provider, "circuit"), "state", unknown) + "</small></div>";
  return html;
}

std::string metric_line(const std::string& name, nb::handle value) {
  const bool listed = std::ranges::any_of(
      kShownMetrics, [&](std::string_view part) { return text::contains(name, part); });
  if (!listed) return {};
  return R"(<div style="color:#a6adc8"><b style="color:#89b4fa">)" + name +
         "</b>: " + shown(value) + "</div>";
}

std::string diagnosis_chip(const std::string& category, nb::handle count) {
  return R"(<span style="color:#a6adc8;margin-right:12px"><b style="color:#89b4fa">)" + category +
         "</b>:" + shown(count) + "</span>";
}

std::string head(const std::string& version) {
  return "<!DOCTYPE html><html><head><title>TarvoMeldric v" + version +
         R"(</title><meta http-equiv="refresh" content="5"><style>body{background:#11111b;)"
         "color:#cdd6f4;font-family:system-ui,sans-serif;margin:20px}h1{color:#89b4fa} "
         "h2{color:#cba6f7} a{color:#89b4fa}</style></head><body><h1>TarvoMeldric v" +
         version + "</h1>";
}

std::string engine_box(nb::handle stats) {
  const auto count = [&](const char* key) { return shown(item(stats, key)); };
  return R"(<div style="background:#1e1e2e;padding:12px;border-radius:8px">)"
         R"(<b style="color:#f9e2af">Calls</b>: )" +
         count("call_count") + R"(<br><b style="color:#a6e3a1">Healed</b>: )" +
         count("heal_count") + " (" + count("heal_rate") +
         R"()<br><b style="color:#89b4fa">L1 Skip</b>: )" + count("l1_skip_count") +
         R"( | <b style="color:#cba6f7">L2 Downgrade</b>: )" + count("l2_downgrade_count") +
         R"(<br><b style="color:#f38ba8">L3 Failover</b>: )" + count("l3_failover_count") +
         R"( | <b style="color:#fab387">L4 Learned</b>: )" + count("l4_learned_count") + "</div>";
}

std::string flywheel_box(nb::handle stats) {
  const nb::object flywheel = entry(stats, "flywheel");
  const nb::int_ none(0);
  return R"(<div style="background:#1e1e2e;padding:12px;border-radius:8px">)"
         R"(<b style="color:#f9e2af">Flywheel</b>: )" +
         shown_entry(flywheel, "total_rules", none) + " rules | " +
         shown_entry(flywheel, "high_confidence_rules", none) +
         R"( high-conf<br><b style="color:#89b4fa">Sync</b>: )" +
         shown_entry(flywheel, "sync_mode", nb::str("local")) +
         R"(<br><b style="color:#a6e3a1">Rate Limited</b>: )" +
         shown(item(stats, "rate_limited_count")) +
         R"( | <b style="color:#f38ba8">Bulkhead Rejected</b>: )" +
         shown(item(stats, "bulkhead_rejected_count")) + "</div>";
}

std::string box(const std::string& title, const std::string& content) {
  return "<h2>" + title +
         R"(</h2><div style="background:#1e1e2e;padding:12px;border-radius:8px">)" + content +
         "</div>";
}

constexpr std::string_view kFoot =
    R"(<p style="color:#585b70;margin-top:20px">Auto-refresh 5s | <a href="/metrics">Prometheus</a>)"
    R"( | <a href="/health">Health</a> | <a href="/stats">Stats JSON</a></p></body></html>)";

}  // namespace

nb::str dashboard_page(nb::handle engine) {
  const nb::object stats = call(engine.attr("get_stats"));
  std::string html = head(shown(item(stats, "version")));
  html += "<h2>Providers</h2>" + for_each_entry(entry(stats, "providers"), provider_card);
  html +=
      R"(<h2>Engine Stats</h2><div style="display:grid;grid-template-columns:1fr 1fr;gap:8px">)";
  html += engine_box(stats) + flywheel_box(stats) + "</div>";
  html +=
      box("Live Metrics", for_each_entry(entry(entry(stats, "metrics"), "counters"), metric_line));
  std::string chips = for_each_entry(entry(stats, "diagnosis_counts"), diagnosis_chip);
  if (chips.empty()) chips = kNoFaults;
  html += box("Diagnosis Counts", chips);
  html += kFoot;
  return from_utf8(html);
}

}  // namespace tarvomeldric::host
