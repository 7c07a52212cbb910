#include "engine/admission.h"

namespace tarvomeldric {
namespace {

// A token that goes back unless the attempt was admitted.
class TakenToken {
 public:
  explicit TakenToken(RateLimiterPtr limiter) : limiter_(std::move(limiter)) {}
  TakenToken(const TakenToken&) = delete;
  TakenToken& operator=(const TakenToken&) = delete;
  ~TakenToken() {
    if (limiter_) limiter_->refund();
  }
  void spend() { limiter_.reset(); }

 private:
  RateLimiterPtr limiter_;
};

}  // namespace

void Io::hold(const ProviderPtr&, AdmittedSlot) {}

std::optional<AdmittedSlot> admit_now(const ProviderPtr& provider) {
  const RateLimiterPtr limiter = provider->rate_limiter();
  if (!limiter->acquire()) return std::nullopt;
  TakenToken token(limiter);
  const BulkheadPtr bulkhead = provider->bulkhead();
  const std::shared_ptr<Semaphore> semaphore = bulkhead->semaphore();
  const bool granted = semaphore->try_acquire();
  bulkhead->count(granted);
  if (!granted) return std::nullopt;
  token.spend();
  return AdmittedSlot(bulkhead, semaphore);
}

Task<std::optional<AdmittedSlot>> admit(ProviderPtr provider, Io& io, double timeout_s) {
  const RateLimiterPtr limiter = provider->rate_limiter();
  if (!limiter->acquire()) co_return std::nullopt;
  TakenToken token(limiter);
  const BulkheadPtr bulkhead = provider->bulkhead();
  const std::shared_ptr<Semaphore> semaphore = bulkhead->semaphore();
  bool granted = semaphore->try_acquire();
  if (!granted) granted = co_await io.wait_for_permit(semaphore, timeout_s);
  bulkhead->count(granted);
  if (!granted) co_return std::nullopt;
  token.spend();
  co_return AdmittedSlot(bulkhead, semaphore);
}

}  // namespace tarvomeldric
