#include "diagnosis/diagnoser.h"

#include <gtest/gtest.h>

namespace tarvomeldric {
namespace {

// What is diagnosed of a text is checked for the whole corpus, row by row.
TEST(Diagnoser, CountsCategoryAndLabelAndKeepsTheBeginningOfTheText) {
  Diagnoser diagnoser;
  std::string error = "TIMEOUT";
  for (int i = 0; i < 800; ++i) error += "\u901a";
  EXPECT_EQ(diagnoser.diagnose(error).raw_error, "timeout" + error.substr(7, 3 * 493));
  diagnoser.diagnose("azure throttle");
  std::string stats;
  for (const auto& [key, n] : diagnoser.snapshot().stats) stats += key + std::to_string(n) + " ";
  EXPECT_EQ(stats, "timeout2 rate_limit1 rate_limit:azure1 ");
  diagnoser.interpreter_locked_fields().latencies_us = {4.0, 1.0, 3.0, 2.0};
  const LatencyStats latency = *diagnoser.latency_stats();
  EXPECT_EQ(latency.p50, 3.0);
  EXPECT_EQ(latency.p95, 4.0);
  EXPECT_EQ(latency.avg, 2.5);
}

}  // namespace
}  // namespace tarvomeldric
