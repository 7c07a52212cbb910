#pragma once

#include <tuple>

#include "guards/semaphore.h"
#include "host/interpreter/python.h"
#include "support/mutex.h"

namespace tarvomeldric::host {

// A lock as Python code holds it: what `threading.Lock` says of these operations holds here.
bool acquire_lock(Mutex& mutex, bool blocking, double timeout_s);
void release_lock(Mutex& mutex);

// A Python object in the line of a semaphore. Its `wake()` is called by whichever thread releases a
// permit, and answers whether it could be told.
class PythonWaiter final : public Semaphore::Waiter {
 public:
  explicit PythonWaiter(nb::handle waiter) : waiter_(nb::borrow(waiter)) {}
  ~PythonWaiter() override;

  bool wake() override;

  auto held() { return std::tie(waiter_); }

 private:
  nb::object waiter_;
};

}  // namespace tarvomeldric::host
