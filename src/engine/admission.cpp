#include "engine/admission.h"

namespace tarvomeldric {

void Io::hold(const ProviderPtr&, AdmittedSlot) {}

Admission::Admission(const ProviderPtr& provider)
    : bulkhead_(provider->bulkhead()),
      semaphore_(bulkhead_->semaphore()),
      limiter_(provider->rate_limiter()),
      has_token_(limiter_->acquire()),
      has_permit_(has_token_ && semaphore_->try_acquire()) {}

Admission::~Admission() {
  if (has_token_) limiter_->refund();
}

std::optional<AdmittedSlot> Admission::take() {
  if (!has_token_) return std::nullopt;
  bulkhead_->count(has_permit_);
  if (!has_permit_) return std::nullopt;
  has_token_ = false;
  return AdmittedSlot(std::move(bulkhead_), std::move(semaphore_));
}

}  // namespace tarvomeldric
