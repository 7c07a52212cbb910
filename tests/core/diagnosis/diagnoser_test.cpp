#include "diagnosis/diagnoser.h"

#include <gtest/gtest.h>

namespace tarvomeldric {
namespace {

TEST(Diagnoser, StatusDecidesTheCategoryAndTheFirstRowFoundTheLabel) {
  const std::tuple<std::string, int, std::string_view, double, std::string_view> cases[] = {
      {"Error code: 429 - rate limit", 0, "rate_limit", 0.95, "rate_limit"},
      {"通义千问 限流中", 0, "rate_limit", 0.9, "rate_limit:dashscope"},
      {"anthropic: \xed\xa0\x80 overloaded", 0, "rate_limit", 0.95, "rate_limit:anthropic"},
      {"anthropic:\noverloaded", 0, "unknown", 0.5, "unknown"},  // a line break is not bridged
      {"timed\u00a0\u2028\nout", 0, "timeout", 0.95, "timeout"},
      {"t\u0131meout", 0, "timeout", 0.95, "timeout"},
      {"azure deployment throttled", 401, "auth_error", 0.95, "rate_limit:azure"},
      {"no row knows this", 529, "server_error", 0.95, "server_error:http_529"},
      {"bad gateway", 501, "server_error", 0.9, "server_error"}};
  const std::string_view transient = "rate_limit server_error timeout connection_error";
  Diagnoser diagnoser;
  for (const auto& [text, status, category, confidence, label] : cases) {
    const Diagnosis got = diagnoser.diagnose(text, status);
    EXPECT_EQ(value_of(got.category), category) << text;
    EXPECT_EQ(got.confidence, confidence) << text;
    EXPECT_EQ(got.sub_category, label) << text;
    EXPECT_EQ(got.should_retry, transient.find(category) != transient.npos) << text;
    EXPECT_EQ(got.retry_after.has_value(), category == "rate_limit") << text;
  }
}

TEST(Diagnoser, CountsCategoryAndLabelAndKeepsTheBeginningOfTheText) {
  Diagnoser diagnoser;
  std::string error = "TIMEOUT";
  for (int i = 0; i < 800; ++i) error += "\u901a";
  EXPECT_EQ(diagnoser.diagnose(error).raw_error, "timeout" + error.substr(7, 3 * 493));
  diagnoser.diagnose("azure throttle");
  std::string stats;
  for (const auto& [key, n] : diagnoser.snapshot().stats) stats += key + std::to_string(n) + " ";
  EXPECT_EQ(stats, "timeout2 rate_limit1 rate_limit:azure1 ");
  diagnoser.host_fields().latencies = {4.0, 1.0, 3.0, 2.0};
  const LatencyStats latency = *diagnoser.latency_stats();
  EXPECT_TRUE(latency.p50 == 3.0 && latency.p95 == 4.0 && latency.avg == 2.5);
}

}  // namespace
}  // namespace tarvomeldric
