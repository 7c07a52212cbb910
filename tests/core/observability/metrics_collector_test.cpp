#include "observability/metrics_collector.h"

#include <gtest/gtest.h>

namespace tarvomeldric {
namespace {

TEST(MetricsCollector, PrometheusTextIsSortedByKindAndName) {
  MetricsCollector metrics;
  EXPECT_EQ(metrics.prometheus_format(), "");
  for (const char* name : {"calls_total", "Zeta", "alpha", "alpha"}) metrics.inc(name, -2);
  for (const char* name : {"tiny", "load"}) metrics.set_gauge(name, 0.00001);
  metrics.set_gauge("load", 2.0);
  for (int i = 10'001; i > 0; --i) metrics.observe("latency_ms", i);  // keeps the newest 5,000
  EXPECT_EQ(metrics.prometheus_format(), R"(tm_Zeta_total -2
tm_alpha_total -4
tm_calls_total_total -2
tm_load 2.0
tm_tiny 1e-05
tm_latency_ms_count 5000
tm_latency_ms_sum 12502500.0000
tm_latency_ms{quantile="0.5"} 2501.0000
tm_latency_ms{quantile="0.95"} 4751.0000
tm_latency_ms{quantile="0.99"} 4951.0000)");
}

TEST(MetricsCollector, HealthCountsTheNamesOfFaultsOnceThereAreCalls) {
  MetricsCollector metrics;
  for (const char* name : {"fault_timeout", "unrelated"}) metrics.inc(name, 0);
  EXPECT_FALSE(metrics.health().degraded);
  metrics.inc("calls_total", 10);
  const HealthDocument health = metrics.health();
  EXPECT_TRUE(health.degraded);
  EXPECT_EQ(health.error_count, 1);
  EXPECT_EQ(health.summary.size(), 2U);
}

}  // namespace
}  // namespace tarvomeldric
