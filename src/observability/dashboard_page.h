#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tarvomeldric {

// What the dashboard's page shows, each value as the text that stands in the page: unescaped.
struct PageFigures {
  struct Provider {
    std::string name;
    bool healthy = false;
    std::string score;
    std::string latency_ms;
    std::string successes;
    std::string failures;
    std::string circuit;
  };
  using Named = std::vector<std::pair<std::string, std::string>>;

  std::string version;
  std::vector<Provider> providers;
  std::string calls, healed, heal_rate;
  std::string retries_skipped, downgrades, failovers, learned;
  std::string rules, confident_rules, sync_mode;
  std::string rate_limited, bulkhead_rejected;
  Named counters;
  Named diagnoses;
};

// The page as one HTML text that loads nothing and reloads itself every 5 seconds. Of the counters
// those about calls, healing and failures are shown.
std::string dashboard_page(const PageFigures& figures);

}  // namespace tarvomeldric
