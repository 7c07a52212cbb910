#include "diagnosis/diagnoser.h"

#include <utility>

#include "diagnosis/fault_patterns.h"
#include "support/samples.h"
#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr double kUnknownConfidence = 0.5;
constexpr double kStatusConfidence = 0.95;
constexpr double kRateLimitRetryAfterSeconds = 1.0;
constexpr std::size_t kRawErrorCharacters = 500;

void decide(Diagnosis& diagnosis, FaultCategory category, double confidence) {
  const Decision decision = decision_of(category);
  diagnosis.category = category;
  diagnosis.confidence = confidence;
  diagnosis.should_retry = decision.should_retry;
  diagnosis.skip_to_failover = decision.skip_to_failover;
}

Diagnosis classify(std::string_view lowered, std::optional<std::int64_t> status) {
  Diagnosis diagnosis;
  const auto by_status = status ? category_of_status(*status) : std::nullopt;
  const FaultPattern* by_text = first_fault_pattern(lowered);
  if (by_status) {
    decide(diagnosis, *by_status, kStatusConfidence);
  } else if (by_text) {
    decide(diagnosis, by_text->category, by_text->confidence);
  } else {
    decide(diagnosis, FaultCategory::kUnknown, kUnknownConfidence);
  }
  if (by_text) {
    diagnosis.sub_category = by_text->label;
  } else {
    diagnosis.sub_category = value_of(diagnosis.category);
    if (by_status) diagnosis.sub_category += ":http_" + std::to_string(*status);
  }
  if (diagnosis.is(FaultCategory::kRateLimit))
    diagnosis.retry_after_s = kRateLimitRetryAfterSeconds;
  return diagnosis;
}

}  // namespace

std::string fault_label_of(std::string_view error_text, std::optional<std::int64_t> status) {
  return std::string(classify(text::lower(error_text), status).fault_label());
}

Diagnosis Diagnoser::diagnose(std::string_view error_text, std::optional<std::int64_t> status,
                              double reading_s) {
  const double start_s = clock_.monotonic();
  std::string lowered = text::lower(error_text);
  Diagnosis diagnosis = classify(lowered, status);
  lowered.resize(text::first(lowered, kRawErrorCharacters).size());
  diagnosis.raw_error = std::move(lowered);
  count(diagnosis, (clock_.monotonic() - start_s + reading_s) * 1e6);
  return diagnosis;
}

void Diagnoser::count(const Diagnosis& diagnosis, double latency_us) {
  MutexLock lock(mutex_);
  ++fields_.stats[value_of(diagnosis.category)];
  ++fields_.stats[diagnosis.sub_category];
  append_bounded(fields_.latencies_us, latency_us);
}

std::optional<LatencyStats> Diagnoser::latency_stats() const {
  MutexLock lock(mutex_);
  if (fields_.latencies_us.empty()) return std::nullopt;
  const SortedSamples samples(fields_.latencies_us);
  return LatencyStats{samples.count(), samples.median(), samples.quantile(0.95), samples.mean()};
}

}  // namespace tarvomeldric
