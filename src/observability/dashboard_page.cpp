#include "observability/dashboard_page.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr std::string_view kHealthy = "#4caf50";
constexpr std::string_view kUnhealthy = "#f44336";
constexpr std::string_view kNoFaults = R"(<span style="color:#a6adc8">No faults yet</span>)";
constexpr std::array<std::string_view, 6> kShownMetrics{"calls", "heal",    "fault",
                                                        "error", "success", "rate"};

std::string provider_card(const PageFigures::Provider& provider) {
  std::string html =
      R"(<div style="display:inline-block;margin:8px;padding:12px;border-radius:8px;)"
      R"(background:#1e1e2e;min-width:180px"><span style="color:)";
  html += provider.healthy ? kHealthy : kUnhealthy;
  html += R"(;font-size:20px">&#9679;</span> <b style="color:#cdd6f4">)" + provider.name;
  html += R"(</b><br><small style="color:#a6adc8">score: )" + provider.score + " | ";
  html += provider.latency_ms + R"(ms</small><br><small style="color:#a6adc8">&#10003;)";
  html += provider.successes + " &#10007;" + provider.failures;
  return html + " circuit:" + provider.circuit + "</small></div>";
}

std::string metric_line(const std::string& name, const std::string& value) {
  const bool listed = std::ranges::any_of(
      kShownMetrics, [&](std::string_view part) { return text::contains(name, part); });
  if (!listed) return {};
  return R"(<div style="color:#a6adc8"><b style="color:#89b4fa">)" + name + "</b>: " + value +
         "</div>";
}

std::string diagnosis_chip(const std::string& category, const std::string& count) {
  return R"(<span style="color:#a6adc8;margin-right:12px"><b style="color:#89b4fa">)" + category +
         "</b>:" + count + "</span>";
}

std::string head(const std::string& version) {
  return "<!DOCTYPE html><html><head><title>TarvoMeldric v" + version +
         R"(</title><meta http-equiv="refresh" content="5"><style>body{background:#11111b;)"
         "color:#cdd6f4;font-family:system-ui,sans-serif;margin:20px}h1{color:#89b4fa} "
         "h2{color:#cba6f7} a{color:#89b4fa}</style></head><body><h1>TarvoMeldric v" +
         version + "</h1>";
}

std::string engine_box(const PageFigures& of) {
  return R"(<div style="background:#1e1e2e;padding:12px;border-radius:8px">)"
         R"(<b style="color:#f9e2af">Calls</b>: )" +
         of.calls + R"(<br><b style="color:#a6e3a1">Healed</b>: )" + of.healed + " (" +
         of.heal_rate + R"()<br><b style="color:#89b4fa">L1 Skip</b>: )" + of.retries_skipped +
         R"( | <b style="color:#cba6f7">L2 Downgrade</b>: )" + of.downgrades +
         R"(<br><b style="color:#f38ba8">L3 Failover</b>: )" + of.failovers +
         R"( | <b style="color:#fab387">L4 Learned</b>: )" + of.learned + "</div>";
}

std::string flywheel_box(const PageFigures& of) {
  return R"(<div style="background:#1e1e2e;padding:12px;border-radius:8px">)"
         R"(<b style="color:#f9e2af">Flywheel</b>: )" +
         of.rules + " rules | " + of.confident_rules +
         R"( high-conf<br><b style="color:#89b4fa">Sync</b>: )" + of.sync_mode +
         R"(<br><b style="color:#a6e3a1">Rate Limited</b>: )" + of.rate_limited +
         R"( | <b style="color:#f38ba8">Bulkhead Rejected</b>: )" + of.bulkhead_rejected + "</div>";
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

std::string dashboard_page(const PageFigures& figures) {
  std::string html = head(figures.version) + "<h2>Providers</h2>";
  for (const PageFigures::Provider& provider : figures.providers) html += provider_card(provider);
  html +=
      R"(<h2>Engine Stats</h2><div style="display:grid;grid-template-columns:1fr 1fr;gap:8px">)";
  html += engine_box(figures) + flywheel_box(figures) + "</div>";
  std::string metrics;
  for (const auto& [name, value] : figures.counters) metrics += metric_line(name, value);
  html += box("Live Metrics", metrics);
  std::string chips;
  for (const auto& [name, count] : figures.diagnoses) chips += diagnosis_chip(name, count);
  if (chips.empty()) chips = kNoFaults;
  html += box("Diagnosis Counts", chips);
  html += kFoot;
  return html;
}

}  // namespace tarvomeldric
