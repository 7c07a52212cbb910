#pragma once

#include <optional>
#include <utility>

#include "engine/io.h"
#include "providers/provider_config.h"

namespace tarvomeldric {

// The slot of an admitted attempt. It goes back exactly once: when asked to, or with its owner,
// however the attempt ends. The leave to test a breaker, where the attempt has one, is kept until
// its outcome is recorded: it goes back with the owner alone. Of one thread at a time.
class AdmittedSlot {
 public:
  AdmittedSlot() = default;
  AdmittedSlot(BulkheadPtr bulkhead, std::shared_ptr<Semaphore> granting)
      : bulkhead_(std::move(bulkhead)), granting_(std::move(granting)) {}
  AdmittedSlot(AdmittedSlot&&) noexcept = default;
  AdmittedSlot& operator=(AdmittedSlot&& other) noexcept {
    release();
    bulkhead_ = std::move(other.bulkhead_);
    granting_ = std::move(other.granting_);
    permit_ = std::move(other.permit_);
    return *this;
  }
  ~AdmittedSlot() { release(); }

  void release() {
    if (auto held = std::exchange(bulkhead_, nullptr)) held->give_back(granting_);
  }
  void keep(ProbePermit permit) { permit_ = std::move(permit); }
  // The breaker that the attempt tests, or null.
  CircuitBreaker* tested() const { return permit_.tested(); }

 private:
  BulkheadPtr bulkhead_;
  std::shared_ptr<Semaphore> granting_;
  ProbePermit permit_;
};

// One attempt before a provider's guards: a token first, then a slot. What does not end with the
// slot taken gives the token back; what is abandoned is not counted as rejected.
//
//   Admission asked(provider);
//   if (asked.must_wait()) asked.waited(co_await io.wait_for_permit(asked.semaphore(), 1.0));
//   if (std::optional<AdmittedSlot> slot = asked.take()) ...
//
// Of one thread at a time.
class Admission {
 public:
  explicit Admission(const ProviderPtr& provider);
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;
  ~Admission();

  // Whether there was a token, but no slot is free.
  bool must_wait() const { return has_token_ && !has_permit_; }
  const std::shared_ptr<Semaphore>& semaphore() const { return semaphore_; }
  // How the wait for a permit of the semaphore ended.
  void waited(bool granted) { has_permit_ = granted; }
  // The slot, once; nothing when refused.
  std::optional<AdmittedSlot> take();

 private:
  // What may be interrupted comes before the token is taken.
  BulkheadPtr bulkhead_;
  std::shared_ptr<Semaphore> semaphore_;
  RateLimiterPtr limiter_;
  bool has_token_;
  bool has_permit_;
};

}  // namespace tarvomeldric
