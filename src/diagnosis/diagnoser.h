#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "diagnosis/fault.h"
#include "support/clock.h"
#include "support/guarded_record.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

// The label of one failure and what follows from it.
struct Diagnosis {
  CategoryOrText category = FaultCategory::kUnknown;
  double confidence = 0.0;
  bool should_retry = false;
  bool skip_to_failover = false;
  std::optional<double> retry_after_s;  // seconds
  std::string raw_error;                // lower-cased, at most 500 characters
  std::string sub_category;             // "rate_limit:azure", "server_error:http_503", ...

  bool is(FaultCategory wanted) const { return value_of(category) == value_of(wanted); }
  // What outcomes are learned under: the finer label when there is one.
  std::string_view fault_label() const {
    return sub_category.empty() ? value_of(category) : std::string_view(sub_category);
  }
};

// Order statistics of a list of samples, each an element of it.
struct LatencyStats {
  std::size_t count;
  double p50;
  double p95;
  double avg;
};

// The label alone, without keeping count of it.
std::string fault_label_of(std::string_view error_text, std::optional<std::int64_t> status);

// What a diagnoser counts.
struct DiagnoserFields {
  OrderedMap<std::int64_t> stats;    // category values and labels, in one flat map
  std::vector<double> latencies_us;  // microseconds, oldest first
};

// Labels failed provider requests by HTTP status and error text. It never acts on what it finds.
//
//   Diagnosis d = diagnoser.diagnose("Too Many Requests", 429);   // RATE_LIMIT, 0.95, retry
//
// The status decides the category when it is a listed one; the first pattern found in the text
// decides it otherwise, and names the finer label in either case. Any thread; the lock covers the
// bookkeeping only.
class Diagnoser : public GuardedRecord<DiagnoserFields> {
 public:
  explicit Diagnoser(const Clock& clock = system_clock()) : clock_(clock) {}

  // `reading_s` is how long it took to read the error's text: a part of the diagnosis' latency.
  Diagnosis diagnose(std::string_view error_text, std::optional<std::int64_t> status = {},
                     double reading_s = 0.0);

  // Over the newest 5,001 to 10,000 diagnoses, microseconds; nothing before the first one.
  std::optional<LatencyStats> latency_stats() const;

 private:
  void count(const Diagnosis& diagnosis, double latency_us);

  const Clock& clock_;
};

}  // namespace tarvomeldric
