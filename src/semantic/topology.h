#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "support/names.h"

namespace tarvomeldric {

// How far a call may be healed: exact output (validated), near output (warned about), or not at
// all.
enum class SemanticDomain : std::uint8_t { kStrongEquivalence, kTauNeighborhood, kOutOfBounds };

inline constexpr std::array<std::pair<const char*, const char*>, 3> kSemanticDomains{{
    {"STRONG_EQUIVALENCE", "strong_equiv"},
    {"TAU_NEIGHBORHOOD", "tau_neighborhood"},
    {"OUT_OF_BOUNDS", "out_of_bounds"},
}};

constexpr std::string_view value_of(SemanticDomain domain) {
  return kSemanticDomains[static_cast<std::size_t>(domain)].second;
}

inline constexpr auto kStrongEquivTasks =
    names("classification", "extraction", "schema_output", "translation_literal", "sentiment",
          "ner", "sql_generation", "code_format");
inline constexpr auto kTauTasks = names("summarization", "qa_factual", "code_generation",
                                        "translation_creative", "data_analysis", "rewriting");
inline constexpr auto kOobTasks = names("creative_writing", "brainstorming", "persuasion",
                                        "storytelling", "philosophical_reasoning", "open_dialogue");

// The domain of a request or answer, and why.
struct SemanticClassification {
  SemanticDomain domain = SemanticDomain::kTauNeighborhood;
  std::string reason;
  std::optional<double> tau_threshold;  // of a TAU_NEIGHBORHOOD result only
};

// Labels requests and the drift of answers with a domain. Pure functions: no state, no effect. Any
// thread.
class SemanticTopology {
 public:
  // A declared structure makes a task exact whatever its type; else the task type decides.
  SemanticClassification classify_request(std::string_view task_type = "", bool has_schema = false,
                                          bool structured_output = false) const;

  // Judges a fallback's output by its length beside the reference length, in characters, and by
  // whether an expected structure was met.
  SemanticClassification classify_response_drift(std::int64_t primary_len,
                                                 std::int64_t fallback_len, bool has_structure,
                                                 bool structure_match) const;
};

}  // namespace tarvomeldric
