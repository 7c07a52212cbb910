#pragma once

#include <array>
#include <string_view>

#include "diagnosis/fault.h"

namespace tarvomeldric {

// One row of the pattern table: an error text in which `pattern` is found is a `category` fault.
struct FaultPattern {
  const char* pattern;
  FaultCategory category;
  double confidence;
  const char* label;
};

inline constexpr std::size_t kFaultPatternCount = 45;
extern const std::array<FaultPattern, kFaultPatternCount> kFaultPatterns;

// The first row, in table order, whose pattern is found anywhere in the text; null when none is.
// `lowered` is lower-cased text. One pass over it, whatever the number of rows; any thread.
const FaultPattern* first_fault_pattern(std::string_view lowered);

// Compiles the table and walks it with typical texts, so that no call pays for either.
void warm_fault_patterns();

}  // namespace tarvomeldric
