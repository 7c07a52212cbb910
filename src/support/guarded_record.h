#pragma once

#include <utility>

#include "support/mutex.h"

namespace tarvomeldric {

// A record whose fields live under one lock. The fields are a plain struct with defaults, so that a
// record can be made from them, compared by them and shown by them. Any thread.
template <class F>
class GuardedRecord {
 public:
  using Fields = F;

  GuardedRecord() = default;
  explicit GuardedRecord(F fields) : fields_(std::move(fields)) {}
  GuardedRecord(const GuardedRecord&) = delete;
  GuardedRecord& operator=(const GuardedRecord&) = delete;

  F snapshot() const {
    MutexLock lock(mutex_);
    return fields_;
  }

  // The fields as Python code sees them, guarded by the interpreter lock alone. Left out of the
  // analysis of locks: every thread that gets here holds the interpreter lock, and no operation
  // enters a blocking region with a field half-written, so these reads and writes need no lock;
  // taking it would lock a caller out who holds it already.
  F& interpreter_locked_fields() NO_THREAD_SAFETY_ANALYSIS { return fields_; }

  Mutex& mutex() const RETURN_CAPABILITY(mutex_) { return mutex_; }

 protected:
  mutable Mutex mutex_;
  F fields_ GUARDED_BY(mutex_);
};

}  // namespace tarvomeldric
