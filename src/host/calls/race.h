#pragma once

#include <exception>
#include <memory>

#include "host/calls/call_io.h"
#include "host/interpreter/coroutine.h"
#include "support/mutex.h"

namespace tarvomeldric::host {

// One of two requests of a call that are under way at a time, on a copy of the call's state. What
// comes of it goes to `raced`; what is no failure of a provider is thrown. The second one may
// run on a thread of `_hedging`.
class LegWork final : public CoroutineWork {
 public:
  LegWork(const CallState& call, Leg leg, bool second, std::shared_ptr<Raced> raced);

  Task<void> run(Suspension* suspension) override;
  // Whether the answer is a good one.
  nb::object result() override { return truth(raced_->good); }
  int traverse(visitproc visit, void* arg) override { return visit_python(state_, visit, arg); }

 private:
  CallState state_;
  Leg leg_;
  bool second_;
  std::shared_ptr<Raced> raced_;
};

// The race of a blocking call. Its first request is made by the calling thread; the second one by
// one of the package's few threads, which ends the first when it has won. The rival is asked by
// that thread, under the lock that the calling thread takes before it goes on.
class BlockingRace : public std::enable_shared_from_this<BlockingRace> {
 public:
  BlockingRace(const CallState& call, Rival& rival);

  // Has the second one sent after so many seconds.
  void start(double patience_s);
  const nb::object& abort_of_first() const { return abort_first_; }
  // The first request is over; whether the second one has won before.
  bool first_is_over();
  // Waits for the second one.
  Raced& wait();
  // Nobody waits any more; how the second one failed, if it did before.
  std::optional<Finish> leave();
  Raced& second() { return *raced_; }

 private:
  void send();
  void miss();
  std::unique_ptr<LegWork> enter();
  void call_off();

  CallState call_;  // as it stood before the first request
  const std::shared_ptr<Raced> raced_ = std::make_shared<Raced>();
  const nb::object abort_first_;
  const nb::object abort_second_;
  const nb::object done_;
  nb::object due_;
  Mutex mutex_;
  Rival* rival_ GUARDED_BY(mutex_);  // null once the first request is over
  std::exception_ptr error_ GUARDED_BY(mutex_);
  bool sent_ GUARDED_BY(mutex_) = false;
  bool over_ GUARDED_BY(mutex_) = false;  // the second one, like the next
  bool won_ GUARDED_BY(mutex_) = false;
  bool left_ GUARDED_BY(mutex_) = false;
};

}  // namespace tarvomeldric::host
