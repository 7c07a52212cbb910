#include "observability/metrics_collector.h"

#include <algorithm>
#include <initializer_list>

#include "observability/metric_names.h"
#include "support/samples.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

HistogramSummary summarize(const Samples& samples) {
  const SortedSamples sorted(samples);
  return {sorted.count(), sorted.median(), sorted.quantile(0.95), sorted.quantile(0.99),
          sorted.mean()};
}

bool names_any(std::string_view name, std::initializer_list<std::string_view> parts) {
  return std::ranges::any_of(parts, [&](auto part) { return text::contains(name, part); });
}

template <class V>
std::vector<std::pair<std::string, V>> by_name(const OrderedMap<V>& map) {
  std::vector<std::pair<std::string, V>> sorted(map.begin(), map.end());
  std::ranges::sort(
      sorted, {}, [](const auto& entry) -> const auto& { return entry.first; });
  return sorted;
}

// One metric a line; lines are joined, so the text has no line feed at its end.
class Exposition {
 public:
  void line(const std::string& name, const std::string& suffix, const std::string& value) {
    if (!text_.empty()) text_ += '\n';
    text_ += "tm_" + name + suffix + ' ' + value;
  }
  void histogram(const std::string& name, const Samples& samples) {
    const SortedSamples sorted(samples);
    line(name, "_count", std::to_string(sorted.count()));
    line(name, "_sum", text::fixed(sorted.sum(), 4));
    line(name, R"({quantile="0.5"})", text::fixed(sorted.median(), 4));
    line(name, R"({quantile="0.95"})", text::fixed(sorted.quantile(0.95), 4));
    line(name, R"({quantile="0.99"})", text::fixed(sorted.quantile(0.99), 4));
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

}  // namespace

void MetricsCollector::inc(std::string_view name, std::int64_t value) {
  MutexLock lock(mutex_);
  fields_.counters[name] += value;
}

void MetricsCollector::set_gauge(std::string_view name, double value) {
  MutexLock lock(mutex_);
  fields_.gauges[name] = value;
}

void MetricsCollector::observe(std::string_view name, double value) {
  MutexLock lock(mutex_);
  auto& samples = fields_.histograms[name];
  if (!samples) samples = std::make_shared<Samples>();
  append_bounded(*samples, value);
}

std::int64_t MetricsCollector::counter(std::string_view name) const {
  MutexLock lock(mutex_);
  const std::int64_t* value = fields_.counters.find(name);
  return value ? *value : 0;
}

std::vector<std::pair<std::string, std::int64_t>> MetricsCollector::counters() const {
  MutexLock lock(mutex_);
  return {fields_.counters.begin(), fields_.counters.end()};
}

MetricsSnapshot MetricsCollector::snapshot_all() const {
  MutexLock lock(mutex_);
  MetricsSnapshot all;
  all.counters.assign(fields_.counters.begin(), fields_.counters.end());
  all.gauges.assign(fields_.gauges.begin(), fields_.gauges.end());
  for (const auto& [name, samples] : fields_.histograms) {
    if (!samples->empty()) all.histograms.emplace_back(name, summarize(*samples));
  }
  return all;
}

HealthDocument MetricsCollector::health() const {
  HealthDocument document{};
  for (auto& [name, value] : counters()) {
    if (name == metric::kCalls) document.calls = value;
    if (names_any(name, {"error", "fault"})) ++document.error_count;
    if (names_any(name, {"calls", "heal", "fault", "error"})) {
      document.summary.emplace_back(std::move(name), value);
    }
  }
  document.degraded = document.error_count != 0 && document.calls != 0;
  return document;
}

std::string MetricsCollector::prometheus_format() const {
  MutexLock lock(mutex_);
  Exposition exposition;
  for (const auto& [name, value] : by_name(fields_.counters)) {
    exposition.line(name, "_total", std::to_string(value));
  }
  for (const auto& [name, value] : by_name(fields_.gauges)) {
    exposition.line(name, "", text::shortest(value));
  }
  for (const auto& [name, samples] : by_name(fields_.histograms)) {
    if (!samples->empty()) exposition.histogram(name, *samples);
  }
  return exposition.take();
}

}  // namespace tarvomeldric
