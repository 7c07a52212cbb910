#pragma once

#include <optional>
#include <utility>

#include "engine/io.h"
#include "providers/provider_config.h"
#include "support/task.h"

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

// The same without waiting.
std::optional<AdmittedSlot> admit_now(const ProviderPtr& provider);

// Asks a provider's guards to admit one attempt: a token, then a slot, for which it waits at most
// `timeout_s` seconds. Nothing when refused. A wait that is refused or abandoned gives its token
// back; an abandoned one is not counted as rejected.
Task<std::optional<AdmittedSlot>> admit(ProviderPtr provider, Io& io, double timeout_s);

}  // namespace tarvomeldric
