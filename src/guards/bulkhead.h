#pragma once

#include <cstdint>
#include <memory>

#include "guards/semaphore.h"
#include "support/guarded_record.h"

namespace tarvomeldric {

// What a bulkhead is set to, and how full it is.
struct BulkheadFields {
  std::int64_t max_concurrent = 10;      // permits the semaphore starts with
  std::shared_ptr<Semaphore> semaphore;  // made by the bulkhead
  std::int64_t active = 0;               // granted and not yet released, never below 0
  std::int64_t rejected = 0;
};

// Caps the requests in flight to one provider, so that a slow one cannot absorb every worker. A
// refusal is a result, and counted. Every granted `acquire` is paired with one `release`; one
// without the other changes the cap for good. Any thread.
class Bulkhead : public GuardedRecord<BulkheadFields> {
 public:
  explicit Bulkhead(BulkheadFields fields = {}, const Clock& clock = system_clock());

  // Waits at most `timeout_s` seconds for a permit.
  bool acquire(double timeout_s = 2.0);
  // Clean-up: waits uninterrupted, cannot fail.
  void release() { give_back(semaphore()); }

  // The two halves of `acquire`, for coroutines, which wait in between without a thread.
  std::shared_ptr<Semaphore> semaphore() const;
  void count(bool granted);
  // Gives back a slot to the semaphore that granted it. One that is no longer the bulkhead's, as
  // after a fork, takes its slots along: they are not counted here any more.
  void give_back(const std::shared_ptr<Semaphore>& granting);

  // In the child of a fork nobody holds a slot. What is given back to the semaphore from before the
  // fork goes nowhere.
  void renew_after_fork();

 private:
  const ForkMember member_{*this};
};

}  // namespace tarvomeldric
