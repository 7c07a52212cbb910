#include <re2/re2.h>

#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "checks.h"
#include "diagnosis/diagnoser.h"
#include "diagnosis/fault_patterns.h"
#include "support/text.h"

namespace tarvomeldric::fuzz {
namespace {

// The matching is the library's, which the fuzzer cannot see into. It is told which rows matched,
// and in which company, and keeps the texts that show it a new pair.
#ifdef __clang__
__attribute__((section("__libfuzzer_extra_counters")))
#endif
std::uint8_t pair_seen[kFaultPatternCount * kFaultPatternCount];

std::string replace_all(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The rows as Python understands them: its white space is Unicode's, and so is its ignoring of
// case, in which a dotless i is an i.
std::vector<std::unique_ptr<RE2>> compiled_rows() {
  std::vector<std::unique_ptr<RE2>> rows;
  for (const FaultPattern& row : kFaultPatterns) {
    std::string pattern = replace_all(row.pattern, "i", "[i\u0131]");
    pattern = replace_all(pattern, R"(\s)", R"([\s\x{b}\x{1c}-\x{1f}\x{85}\pZ])");
    rows.push_back(std::make_unique<RE2>("(?i)" + pattern));
    require(rows.back()->ok(), "every row compiles");
  }
  return rows;
}

const FaultPattern* first_row(std::string_view text) {
  static const auto rows = compiled_rows();
  std::optional<std::size_t> first;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (!RE2::PartialMatch(text, *rows[i])) continue;
    if (!first) first = i;
    pair_seen[*first * kFaultPatternCount + i] = 1;
  }
  return first ? &kFaultPatterns[*first] : nullptr;
}

std::optional<std::int64_t> take_status(std::string_view& input) {
  std::int64_t status = 0;
  const char* end = input.data() + input.size();
  const auto [rest, error] = std::from_chars(input.data(), end, status);
  if (error != std::errc()) return std::nullopt;
  input.remove_prefix(static_cast<std::size_t>(rest - input.data()));
  return status;
}

}  // namespace

void check_diagnosis(std::string_view input) {
  static Diagnoser diagnoser;
  const auto status = take_status(input);
  const Diagnosis got = diagnoser.diagnose(input, status);
  const FaultPattern* row = first_row(text::lower(input));
  const auto listed = status ? category_of_status(*status) : std::nullopt;

  const FaultCategory category = listed ? *listed : row ? row->category : FaultCategory::kUnknown;
  require(got.is(category), "category");
  require(got.confidence == (listed ? 0.95 : row ? row->confidence : 0.5), "confidence");
  std::string label(row ? row->label : value_of(category));
  if (!row && listed) label += ":http_" + std::to_string(*status);
  require(got.sub_category == label, "label");
  require(got.should_retry != got.skip_to_failover, "retry or go elsewhere");
  require(got.retry_after_s.has_value() == (category == FaultCategory::kRateLimit), "retry after");
  require(text::lower(input).starts_with(got.raw_error), "the beginning of the text is kept");
  require(text::length(got.raw_error) <= 500, "500 characters of the text are kept");
}

}  // namespace tarvomeldric::fuzz
