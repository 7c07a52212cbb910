#include "guards/bulkhead.h"

#include <algorithm>
#include <utility>

namespace tarvomeldric {
namespace {

BulkheadFields with_semaphore(BulkheadFields fields, const Clock& clock) {
  fields.semaphore = std::make_shared<Semaphore>(fields.max_concurrent, clock);
  return fields;
}

}  // namespace

Bulkhead::Bulkhead(BulkheadFields fields, const Clock& clock)
    : GuardedRecord(with_semaphore(std::move(fields), clock)) {}

std::shared_ptr<Semaphore> Bulkhead::semaphore() const {
  MutexLock lock(mutex_, kUninterrupted);
  return fields_.semaphore;
}

bool Bulkhead::acquire(double timeout_s) {
  const bool granted = semaphore()->acquire(timeout_s);
  count(granted);
  return granted;
}

void Bulkhead::count(bool granted) {
  MutexLock lock(mutex_, kUninterrupted);
  ++(granted ? fields_.active : fields_.rejected);
}

void Bulkhead::give_back(const std::shared_ptr<Semaphore>& granting) {
  granting->release();
  MutexLock lock(mutex_, kUninterrupted);
  if (fields_.semaphore != granting) return;
  fields_.active = std::max<std::int64_t>(0, fields_.active - 1);
}

void Bulkhead::renew_after_fork() {
  MutexLock lock(mutex_);
  fields_.semaphore->renew_after_fork();  // its turn may come later
  fields_.semaphore->take_all();
  fields_.semaphore = std::make_shared<Semaphore>(fields_.max_concurrent);
  fields_.active = 0;
}

}  // namespace tarvomeldric
