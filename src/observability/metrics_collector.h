#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/guarded_record.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

using Samples = std::vector<double>;

// Every metric by its name.
struct MetricsFields {
  OrderedMap<std::int64_t> counters;
  OrderedMap<double> gauges;
  OrderedMap<std::shared_ptr<Samples>> histograms;  // shared, so that a view of one stays valid
};

// A histogram in figures, in the unit of its samples.
struct HistogramSummary {
  std::size_t count;
  double p50;
  double p95;
  double p99;
  double avg;
};

// All metrics, as of one moment.
struct MetricsSnapshot {
  std::vector<std::pair<std::string, std::int64_t>> counters;
  std::vector<std::pair<std::string, double>> gauges;
  std::vector<std::pair<std::string, HistogramSummary>> histograms;
};

// What operators watch: whether faults were counted, over how many calls.
struct HealthDocument {
  bool degraded;
  std::int64_t calls;
  std::int64_t error_count;  // counters named for errors or faults, whatever their values
  std::vector<std::pair<std::string, std::int64_t>> summary;
};

// Named counters, gauges and histograms, in the order of their first use. Names are free text. A
// histogram keeps its newest 5,000 to 10,000 samples. Any thread; the lock is never held while
// calling out. Read-outs sort, and are meant for scrapes, not for the call path.
class MetricsCollector : public GuardedRecord<MetricsFields> {
 public:
  void inc(std::string_view name, std::int64_t value = 1);
  void set_gauge(std::string_view name, double value);
  void observe(std::string_view name, double value);

  // 0 for a counter that was never incremented.
  std::int64_t counter(std::string_view name) const;
  std::vector<std::pair<std::string, std::int64_t>> counters() const;
  MetricsSnapshot snapshot_all() const;
  HealthDocument health() const;
  // The classic Prometheus text form: names with the prefix "tm_", sorted by kind and name.
  std::string prometheus_format() const;
};

}  // namespace tarvomeldric
