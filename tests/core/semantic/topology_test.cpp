#include "semantic/topology.h"

#include <gtest/gtest.h>

namespace tarvomeldric {
namespace {

std::string shown(const SemanticClassification& got) {
  const std::string tau = got.tau_threshold ? std::to_string(*got.tau_threshold) : "none";
  return std::string(value_of(got.domain)) + " " + got.reason + " " + tau.substr(0, 4);
}

TEST(SemanticTopology, DeclaredStructureWinsOverTheTaskType) {
  const auto classify = [](auto... a) { return shown(SemanticTopology().classify_request(a...)); };
  const std::string exact = "strong_equiv structured_output_schema_guaranteed none";
  EXPECT_EQ(classify("brainstorming", true), exact);
  EXPECT_EQ(classify("", false, true), exact);
  EXPECT_EQ(classify("SQL_Generation"), "strong_equiv task_type:sql_generation none");
  EXPECT_EQ(classify("open_dialogue"), "out_of_bounds task_type:open_dialogue none");
  EXPECT_EQ(classify(" Rewriting\u3000"), "tau_neighborhood task_type:rewriting 0.85");
  EXPECT_EQ(classify("open dialogue"), "tau_neighborhood default 0.80");
}

TEST(SemanticTopology, DriftIsJudgedByStructureThenByLength) {
  const auto drift = [](auto... a) {
    return shown(SemanticTopology().classify_response_drift(a...));
  };
  EXPECT_EQ(drift(100, 30, false, true), "tau_neighborhood length_ratio=0.30 0.85");
  EXPECT_EQ(drift(20, 100, true, true), "tau_neighborhood length_drift_ratio=0.20 0.70");
  EXPECT_EQ(drift(0, 0, false, false), "tau_neighborhood length_drift_ratio=0.00 0.70");
  EXPECT_EQ(drift(50, 50, true, false), "strong_equiv structure_mismatch_cannot_heal none");
}

}  // namespace
}  // namespace tarvomeldric
