#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "guards/bulkhead.h"
#include "guards/circuit_breaker.h"
#include "guards/rate_limiter.h"
#include "support/bounded_queue.h"
#include "support/clock.h"
#include "support/guarded_record.h"
#include "support/ordered_map.h"

namespace tarvomeldric {

using BreakerPtr = std::shared_ptr<CircuitBreaker>;
using RateLimiterPtr = std::shared_ptr<RateLimiter>;
using BulkheadPtr = std::shared_ptr<Bulkhead>;

// What is known of a provider, and its guards.
struct ProviderFields {
  std::string name;
  std::string base_url;
  std::string api_key;
  std::vector<std::string> models;  // in order of preference
  bool healthy = true;              // last known
  std::int64_t success_count = 0;
  std::int64_t fail_count = 0;
  std::string last_error;
  double last_error_time_s = 0.0;  // wall clock, seconds
  BreakerPtr circuit_breaker;
  OrderedMap<BreakerPtr> category_circuit_breakers;
  RateLimiterPtr rate_limiter;
  BulkheadPtr bulkhead;
  BoundedQueue<double, 100> recent_latencies_ms;  // milliseconds, of successes
  OrderedMap<std::string> extra_headers;  // sent with every request, beside or instead of ours
  OrderedMap<std::string> extra_query;    // appended to every URL
};

// Where a provider's API is, and what opens it.
struct Endpoint {
  std::string name;
  std::string base_url;
  std::string api_key;
  OrderedMap<std::string> extra_headers;
  OrderedMap<std::string> extra_query;
};

// One provider: where its API lives, the key, the models, how it has been doing, and the guards
// that say whether it may be called now.
//
// An admitted attempt takes a token, then a slot; it reports its outcome with `record_success` or
// `record_failure` and gives the slot back once (`AdmittedSlot` in engine/admission.h owns it).
// Any thread; a provider's lock is not held while a guard's is.
class ProviderConfig : public GuardedRecord<ProviderFields> {
 public:
  explicit ProviderConfig(ProviderFields fields = {}, const Clock& clock = system_clock());

  std::string name() const;
  Endpoint endpoint() const;
  std::vector<std::string> models() const;
  bool healthy() const;
  // The mean of the recent latencies in milliseconds, 0 without any.
  double avg_latency() const;
  // 0 to 100, higher is healthier; 50 for a provider that has not been called. May turn an open
  // breaker that has cooled down half-open, and so may `is_available`.
  double health_score() const;
  bool is_available() const;

  BreakerPtr circuit_breaker() const;
  RateLimiterPtr rate_limiter() const;
  BulkheadPtr bulkhead() const;
  // The breaker for one category of faults, made on first use.
  BreakerPtr category_circuit_breaker(std::string_view category);

  bool check_quota();
  // Takes a token and a slot, waiting at most `bulkhead_timeout` seconds for the slot. A refusal
  // holds nothing.
  bool can_accept(double bulkhead_timeout_s = 1.0);
  void release_slot();

  void record_success(double latency_ms);
  // A categorised failure that opens the breaker also sets the cooldown that suits its category.
  void record_failure(std::string_view error, std::string_view fault_category = "");

  // The provider asked to be left alone for so long; at most 15 minutes of it are heeded. Kept
  // beside the fields: it concerns this process, and whom its rate limiter tells, and only calls
  // whose policy heeds it.
  void leave_alone(double seconds);
  // Seconds until it may be asked again, 0 when it may be now.
  double left_alone_s() const;

 private:
  const Clock& clock_;
  double not_before_s_ GUARDED_BY(mutex_) = 0.0;  // monotonic, seconds
};

using ProviderPtr = std::shared_ptr<ProviderConfig>;

}  // namespace tarvomeldric
