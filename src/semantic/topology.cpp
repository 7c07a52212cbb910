#include "semantic/topology.h"

#include <algorithm>

#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr double kListedTaskTau = 0.85;
constexpr double kDefaultTau = 0.8;
constexpr double kDriftRatio = 0.3;
constexpr double kDriftedTau = 0.7;
constexpr double kNearTau = 0.85;

bool lists(Names tasks, std::string_view task) {
  return std::ranges::find(tasks, task) != tasks.end();
}

}  // namespace

SemanticClassification SemanticTopology::classify_request(std::string_view task_type,
                                                          bool has_schema,
                                                          bool structured_output) const {
  using enum SemanticDomain;
  if (has_schema || structured_output) {
    return {kStrongEquivalence, "structured_output_schema_guaranteed", std::nullopt};
  }
  const std::string lowered = text::lower(task_type);
  const std::string_view task = text::strip(lowered);
  const std::string reason = "task_type:" + std::string(task);
  if (lists(kStrongEquivTasks, task)) return {kStrongEquivalence, reason, std::nullopt};
  if (lists(kOobTasks, task)) return {kOutOfBounds, reason, std::nullopt};
  if (lists(kTauTasks, task)) return {kTauNeighborhood, reason, kListedTaskTau};
  return {kTauNeighborhood, "default", kDefaultTau};
}

SemanticClassification SemanticTopology::classify_response_drift(std::int64_t primary_len,
                                                                 std::int64_t fallback_len,
                                                                 bool has_structure,
                                                                 bool structure_match) const {
  using enum SemanticDomain;
  if (has_structure && !structure_match) {
    return {kStrongEquivalence, "structure_mismatch_cannot_heal", std::nullopt};
  }
  const std::int64_t shorter = std::min(primary_len, fallback_len);
  const std::int64_t longer = std::max(primary_len, fallback_len);
  const double ratio =
      static_cast<double>(shorter) / static_cast<double>(std::max<std::int64_t>(longer, 1));
  if (ratio < kDriftRatio) {
    return {kTauNeighborhood, "length_drift_ratio=" + text::fixed(ratio, 2), kDriftedTau};
  }
  return {kTauNeighborhood, "length_ratio=" + text::fixed(ratio, 2), kNearTau};
}

}  // namespace tarvomeldric
