#include "guards/circuit_breaker.h"

#include <algorithm>

namespace tarvomeldric {
namespace {

struct Cooldown {
  std::string_view category;
  double seconds;
};

constexpr std::array<Cooldown, 7> kCooldowns{{
    {"rate_limit", 10.0},
    {"timeout", 15.0},
    {"connection_error", 20.0},
    {"server_error", 20.0},
    {"auth_error", 300.0},
    {"quota_exceeded", 300.0},
    {"model_not_found", 600.0},
}};
constexpr double kOtherCooldownSeconds = 30.0;

std::int64_t failures_in(const BoundedQueue<bool, 20>& window) {
  return std::count(window.begin(), window.end(), false);
}

}  // namespace

double cooldown_for(std::string_view fault_category) {
  for (const Cooldown& row : kCooldowns) {
    if (row.category == fault_category) return row.seconds;
  }
  return kOtherCooldownSeconds;
}

void CircuitBreaker::record_success() {
  MutexLock lock(mutex_);
  fields_.consecutive_fails = 0;
  fields_.window.append(true);
  if (fields_.state == CircuitState::kHalfOpen) {
    fields_.state = CircuitState::kClosed;
    fields_.half_open_tries = 0;
  }
}

void CircuitBreaker::record_failure(std::string_view provider) {
  MutexLock lock(mutex_);
  ++fields_.consecutive_fails;
  fields_.window.append(false);
  fields_.last_provider = provider;
  if (failing_locked()) open_locked();
}

bool CircuitBreaker::failing_locked() const {
  if (fields_.consecutive_fails >= fields_.failure_threshold) return true;
  const auto outcomes = static_cast<std::int64_t>(fields_.window.size());
  if (outcomes < fields_.window_size) return false;
  const double rate =
      static_cast<double>(failures_in(fields_.window)) / static_cast<double>(outcomes);
  return rate >= fields_.error_rate_threshold;
}

void CircuitBreaker::trip() {
  MutexLock lock(mutex_);
  open_locked();
}

void CircuitBreaker::trip_with_fault(std::string_view fault_category) {
  MutexLock lock(mutex_);
  fields_.cooldown_seconds = cooldown_for(fault_category);
  open_locked();
}

void CircuitBreaker::open_locked() {
  if (fields_.state == CircuitState::kOpen) return;
  fields_.state = CircuitState::kOpen;
  fields_.opened_at_s = clock_.wall();
  ++fields_.trip_count;
}

void CircuitBreaker::half_open_if_cooled_locked() {
  if (fields_.state != CircuitState::kOpen) return;
  if (clock_.wall() - fields_.opened_at_s < fields_.cooldown_seconds) return;
  fields_.state = CircuitState::kHalfOpen;
  fields_.half_open_tries = 0;
}

bool CircuitBreaker::is_available() {
  MutexLock lock(mutex_);
  if (fields_.state == CircuitState::kHalfOpen) {
    return fields_.half_open_tries < fields_.half_open_max;
  }
  half_open_if_cooled_locked();
  return fields_.state != CircuitState::kOpen;
}

std::optional<ProbePermit> CircuitBreaker::pass(const std::shared_ptr<CircuitBreaker>& breaker) {
  CircuitBreaker& self = *breaker;
  MutexLock lock(self.mutex_);
  self.half_open_if_cooled_locked();
  if (self.fields_.state == CircuitState::kClosed) return ProbePermit();
  if (self.fields_.state == CircuitState::kOpen) return std::nullopt;
  if (self.permits_out_ >= std::max<std::int64_t>(1, self.fields_.half_open_max)) {
    return std::nullopt;
  }
  ++self.permits_out_;
  return ProbePermit(breaker, self.generation_);
}

void CircuitBreaker::give_back_permit(std::uint64_t generation) {
  MutexLock lock(mutex_, kUninterrupted);
  if (generation == generation_) --permits_out_;
}

void CircuitBreaker::renew_after_fork() NO_THREAD_SAFETY_ANALYSIS {
  ++generation_;
  permits_out_ = 0;
}

bool CircuitBreaker::probe() {
  MutexLock lock(mutex_);
  if (fields_.state != CircuitState::kHalfOpen) return false;
  ++fields_.half_open_tries;
  return true;
}

CircuitState CircuitBreaker::state() {
  MutexLock lock(mutex_);
  half_open_if_cooled_locked();
  return fields_.state;
}

CircuitState CircuitBreaker::standing_state() const {
  MutexLock lock(mutex_);
  return fields_.state;
}

CircuitSummary CircuitBreaker::summary() {
  MutexLock lock(mutex_);
  half_open_if_cooled_locked();
  return {fields_.state, fields_.consecutive_fails, fields_.trip_count, failures_in(fields_.window),
          static_cast<std::int64_t>(fields_.window.size())};
}

double CircuitBreaker::cooldown_left_s() const {
  MutexLock lock(mutex_);
  if (fields_.state != CircuitState::kOpen) return 0.0;
  return std::max(0.0, fields_.opened_at_s + fields_.cooldown_seconds - clock_.wall());
}

}  // namespace tarvomeldric
