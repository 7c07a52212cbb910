#include "support/blocking.h"

#include <utility>

namespace tarvomeldric {
namespace {

BlockingHooks hooks;

}  // namespace

void install_blocking_hooks(const BlockingHooks& installed) { hooks = installed; }

BlockingRegion::BlockingRegion() : token_(hooks.release ? hooks.release() : nullptr) {}

BlockingRegion::~BlockingRegion() {
  if (token_) hooks.reacquire(token_);
}

void BlockingRegion::check_interrupt() {
  if (!token_) return;
  hooks.reacquire(std::exchange(token_, nullptr));
  hooks.check_interrupt();
  token_ = hooks.release();
}

}  // namespace tarvomeldric
