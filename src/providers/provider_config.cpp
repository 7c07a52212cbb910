#include "providers/provider_config.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace tarvomeldric {
namespace {

constexpr double kUntriedScore = 50.0;
constexpr double kRecentFailureSeconds = 60.0;
constexpr double kRecentFailureFactor = 0.7;
constexpr double kOpenFactor = 0.1;
constexpr double kHalfOpenFactor = 0.5;
constexpr double kLongestAloneSeconds = 15 * 60.0;

ProviderFields with_guards(ProviderFields fields, const Clock& clock) {
  if (!fields.circuit_breaker) {
    fields.circuit_breaker = std::make_shared<CircuitBreaker>(CircuitBreakerFields{}, clock);
  }
  if (!fields.rate_limiter) fields.rate_limiter = std::make_shared<RateLimiter>(clock);
  if (!fields.bulkhead) fields.bulkhead = std::make_shared<Bulkhead>(BulkheadFields{}, clock);
  return fields;
}

}  // namespace

ProviderConfig::ProviderConfig(ProviderFields fields, const Clock& clock)
    : GuardedRecord(with_guards(std::move(fields), clock)), clock_(clock) {}

std::string ProviderConfig::name() const {
  MutexLock lock(mutex_);
  return fields_.name;
}

Endpoint ProviderConfig::endpoint() const {
  MutexLock lock(mutex_);
  return {fields_.name, fields_.base_url, fields_.api_key, fields_.extra_headers,
          fields_.extra_query};
}

std::vector<std::string> ProviderConfig::models() const {
  MutexLock lock(mutex_);
  return fields_.models;
}

bool ProviderConfig::healthy() const {
  MutexLock lock(mutex_);
  return fields_.healthy;
}

double ProviderConfig::avg_latency() const {
  MutexLock lock(mutex_);
  const auto& recent = fields_.recent_latencies_ms;
  if (recent.empty()) return 0.0;
  return std::accumulate(recent.begin(), recent.end(), 0.0) / static_cast<double>(recent.size());
}

double ProviderConfig::health_score() const {
  double score;
  BreakerPtr breaker;
  {
    MutexLock lock(mutex_);
    const std::int64_t total = fields_.success_count + fields_.fail_count;
    if (total == 0) return kUntriedScore;
    score = static_cast<double>(fields_.success_count) / static_cast<double>(total) * 100.0;
    const double since_error = clock_.wall() - fields_.last_error_time_s;
    if (fields_.last_error_time_s > 0 && since_error < kRecentFailureSeconds) {
      score *= kRecentFailureFactor;
    }
    breaker = fields_.circuit_breaker;
  }
  switch (breaker->state()) {
    case CircuitState::kOpen:
      return score * kOpenFactor;
    case CircuitState::kHalfOpen:
      return score * kHalfOpenFactor;
    case CircuitState::kClosed:
      break;
  }
  return score;
}

bool ProviderConfig::is_available() const { return circuit_breaker()->is_available() && healthy(); }

BreakerPtr ProviderConfig::circuit_breaker() const {
  MutexLock lock(mutex_);
  return fields_.circuit_breaker;
}

RateLimiterPtr ProviderConfig::rate_limiter() const {
  MutexLock lock(mutex_);
  return fields_.rate_limiter;
}

BulkheadPtr ProviderConfig::bulkhead() const {
  MutexLock lock(mutex_, kUninterrupted);
  return fields_.bulkhead;
}

BreakerPtr ProviderConfig::category_circuit_breaker(std::string_view category) {
  MutexLock lock(mutex_);
  BreakerPtr& breaker = fields_.category_circuit_breakers[category];
  if (!breaker) breaker = std::make_shared<CircuitBreaker>(CircuitBreakerFields{}, clock_);
  return breaker;
}

bool ProviderConfig::check_quota() { return rate_limiter()->acquire(); }

bool ProviderConfig::can_accept(double bulkhead_timeout_s) {
  const RateLimiterPtr limiter = rate_limiter();
  if (!limiter->acquire()) return false;
  if (bulkhead()->acquire(bulkhead_timeout_s)) return true;
  limiter->refund();
  return false;
}

void ProviderConfig::release_slot() { bulkhead()->release(); }

void ProviderConfig::record_success(double latency_ms) {
  BreakerPtr breaker;
  {
    MutexLock lock(mutex_);
    ++fields_.success_count;
    fields_.healthy = true;
    fields_.last_error.clear();
    fields_.recent_latencies_ms.append(latency_ms);
    breaker = fields_.circuit_breaker;
  }
  breaker->record_success();
}

void ProviderConfig::record_failure(std::string_view error, std::string_view fault_category) {
  BreakerPtr breaker;
  std::string name;
  {
    MutexLock lock(mutex_);
    ++fields_.fail_count;
    fields_.last_error = error;
    fields_.last_error_time_s = clock_.wall();
    breaker = fields_.circuit_breaker;
    name = fields_.name;
  }
  // The state is asked only for a categorised failure: asking may turn an open breaker half-open.
  const bool may_trip = !fault_category.empty() && breaker->state() != CircuitState::kOpen;
  breaker->record_failure(name);
  if (may_trip && breaker->state() == CircuitState::kOpen) breaker->trip_with_fault(fault_category);
}

void ProviderConfig::leave_alone(double seconds) {
  const double alone_s = std::min(seconds, kLongestAloneSeconds);
  rate_limiter()->leave_alone(alone_s);
  MutexLock lock(mutex_);
  not_before_s_ = clock_.monotonic() + alone_s;
}

double ProviderConfig::left_alone_s() const {
  const double others_s = rate_limiter()->left_alone_s();
  MutexLock lock(mutex_);
  return std::max(others_s, not_before_s_ - clock_.monotonic());
}

}  // namespace tarvomeldric
