#include "host/calls/race.h"

#include <utility>

#include "host/interpreter/errors.h"
#include "host/interpreter/helpers.h"
#include "support/clock.h"

namespace tarvomeldric::host {
namespace {

constexpr const char* kLegName = "SelfHealingEngine._race";

// What is known of the race is the call's own: the garbage collector must see it once. So is the
// lease, with its slot. The settings of a stream hold its newest connection, and each leg has its
// own.
CallState beside(const CallState& asked) {
  CallState state = asked;
  state.race = state.lease = {};
  state.raced_first = state.raced_second = nullptr;
  if (state.settings.is_valid()) {
    state.settings = call(import("copy").attr("copy"), state.settings);
    state.settings.attr("newest") = nb::none();
  }
  return state;
}

}  // namespace

LegWork::LegWork(const CallState& call, Leg leg, bool second, std::shared_ptr<Raced> raced)
    : state_(beside(call)), leg_(std::move(leg)), second_(second), raced_(std::move(raced)) {}

Task<void> LegWork::run(Suspension* suspension) {
  CallIo io(state_, suspension);
  Attempt made = co_await io.execute(leg_.provider, leg_.model, leg_.terms);
  made.refused = io.objection(leg_.terms.demand, made);
  raced_->good = made.ok() && !made.refused;
  raced_->finish = Finish{second_, std::move(made), system_clock().monotonic()};
  raced_->state = std::move(state_);
}

BlockingRace::BlockingRace(const CallState& call, Rival& rival)
    : call_(call),
      abort_first_(host::call(Helper::kAbort)),
      abort_second_(host::call(Helper::kAbort)),
      done_(host::call(import("threading").attr("Event"))),
      rival_(&rival) {
  call_.abort = abort_second_;
}

void BlockingRace::start(double patience_s) {
  const nb::object job = nb::cpp_function([race = weak_from_this()](bool in_time) {
    if (const auto alive = race.lock()) in_time ? alive->send() : alive->miss();
  });
  due_ = host::call(Helper::kHedgeAt, system_clock().monotonic() + patience_s, job);
}

std::unique_ptr<LegWork> BlockingRace::enter() {
  MutexLock lock(mutex_);
  if (!rival_) return nullptr;
  std::optional<Leg> entered = rival_->enter();
  if (!entered) return nullptr;
  sent_ = true;
  return std::make_unique<LegWork>(call_, std::move(*entered), true, raced_);
}

void BlockingRace::send() {
  const std::unique_ptr<LegWork> second = enter();
  if (!second) return;
  std::exception_ptr error;
  try {
    run_blocking(second->run(nullptr));
  } catch (...) {
    error = std::current_exception();
  }
  bool won = false;
  bool unwanted = false;
  {
    MutexLock lock(mutex_, kUninterrupted);
    over_ = true;
    error_ = std::move(error);
    won = won_ = rival_ && raced_->good;
    unwanted = left_ && raced_->good;
  }
  if (won) host::call(abort_first_.attr("ask"));
  if (unwanted) CallIo::discard(raced_->state);
  host::call(done_.attr("set"));
}

bool BlockingRace::first_is_over() {
  {
    MutexLock lock(mutex_);
    rival_ = nullptr;
  }
  call_off();
  MutexLock lock(mutex_);
  return won_;
}

Raced& BlockingRace::wait() {
  host::call(done_.attr("wait"));
  MutexLock lock(mutex_);
  if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  return *raced_;
}

// First of all nobody asks the rival any more, whatever may go wrong after that.
std::optional<Finish> BlockingRace::leave() {
  enum class Second { kNone, kUnderWay, kUnwanted } second = Second::kNone;
  std::optional<Finish> no_good;
  {
    MutexLock lock(mutex_, kUninterrupted);
    rival_ = nullptr;
    const bool before = std::exchange(left_, true);
    if (!before && sent_ && !won_) {
      second = !over_ ? Second::kUnderWay : raced_->good ? Second::kUnwanted : Second::kNone;
      if (over_ && !raced_->good) no_good = raced_->finish;
    }
  }
  if (second == Second::kUnderWay) host::call(abort_second_.attr("ask"));
  if (second == Second::kUnwanted) CallIo::discard(raced_->state);
  call_off();
  return no_good;
}

void BlockingRace::miss() {
  MutexLock lock(mutex_);
  if (rival_) rival_->miss();
}

void BlockingRace::call_off() {
  if (!due_.is_valid()) return;
  const nb::object due = std::move(due_);
  host::call(due.attr("call_off"));
}

const char* CallIo::objection(Demand demand, const Attempt& made) {
  if (!made.ok() || demand == Demand::kNothing) return nullptr;
  if (made.empty) return "answer:empty";
  if (demand == Demand::kContent || !has_contract()) return nullptr;
  return validate() ? nullptr : "answer:contract";
}

void CallIo::leave_race() noexcept {
  error_scope keep;
  try {
    end_race();
  } catch (...) {
    set_error(std::current_exception());
    PyErr_WriteUnraisable(nullptr);
  }
}

Finish CallIo::adopt(Raced& raced) {
  CallState& from = raced.state;
  state_.exchange = std::move(from.exchange);
  state_.answer = std::move(from.answer);
  state_.raw_response = std::move(from.raw_response);
  state_.report = std::move(from.report);
  state_.response = std::move(from.response);
  state_.verdict = std::move(from.verdict);
  if (from.error.is_valid()) {
    state_.error = std::move(from.error);
    state_.own_error = from.own_error;
  }
  if (state_.settings.is_valid()) {
    state_.settings.attr("newest") = from.settings.attr("newest");
  }
  Finish finish = std::move(*raced.finish);
  finish.attempt.refused = nullptr;  // the pass judges what is now the newest answer
  raced = {};
  return finish;
}

void CallIo::discard(const CallState& left) {
  if (left.settings.is_valid()) quietly([&] { call(Helper::kDiscardStream, left.settings); });
}

// Another thread can end the requests of our own clients alone.
bool CallIo::may_race(const ProviderPtr& provider) const {
  if (replacement().is_valid()) return false;
  if (suspension_) return true;
  const nb::object placed =
      call(Helper::kIsPlaced, state_.native().sync_client_pool, from_utf8(provider->name()));
  return !is_true(placed);
}

Task<Finish> CallIo::race_threads(Leg first, double patience_s, Rival& rival) {
  race_ = std::make_shared<BlockingRace>(state_, rival);
  race_->start(patience_s);
  state_.abort = race_->abort_of_first();
  Attempt made = co_await execute(first.provider, first.model, first.terms);
  drop(state_.abort);
  Finish finish{false, std::move(made), system_clock().monotonic()};
  if (!race_->first_is_over()) co_return finish;
  discard(state_);
  co_return adopt(race_->second());
}

Task<Finish> CallIo::race_tasks(Leg first, double patience_s, Rival& rival) {
  const auto leg = [&](Leg sent, std::shared_ptr<Raced>& raced) {
    raced = std::make_shared<Raced>();
    const bool second = &raced == &state_.raced_second;
    auto work = std::make_unique<LegWork>(state_, std::move(sent), second, raced);
    return make_coroutine(std::move(work), kLegName);
  };
  state_.race = call(Helper::kRace, leg(std::move(first), state_.raced_first));
  PythonAwait waiting(*suspension_, call(state_.race.attr("first"), patience_s));
  const nb::object over = co_await waiting;
  if (is_true(over)) co_return adopt(*state_.raced_first);
  nb::object beside = nb::none();
  if (std::optional<Leg> entered = rival.enter()) {
    beside = leg(std::move(*entered), state_.raced_second);
  }
  PythonAwait racing(*suspension_, call(state_.race.attr("both"), beside));
  drop(beside);
  const nb::object won = co_await racing;
  if (!is_true(won)) co_return adopt(*state_.raced_first);
  if (state_.raced_first->good) discard(state_.raced_first->state);
  co_return adopt(*state_.raced_second);
}

Task<Finish> CallIo::other() {
  if (race_) co_return adopt(race_->wait());
  PythonAwait waiting(*suspension_, call(state_.race.attr("other")));
  co_await waiting;
  co_return adopt(*state_.raced_second);
}

std::optional<Finish> CallIo::end_race() {
  if (race_) return race_->leave();
  if (!state_.race.is_valid()) return std::nullopt;
  quietly([&] { call(state_.race.attr("end")); });
  drop(state_.race);
  const std::shared_ptr<Raced> second = std::exchange(state_.raced_second, nullptr);
  if (!second || !second->finish) return std::nullopt;
  if (!second->good) return second->finish;
  discard(second->state);
  return std::nullopt;
}

}  // namespace tarvomeldric::host
