#include "engine/hedge.h"

#include <algorithm>
#include <utility>

#include "observability/metric_names.h"

namespace tarvomeldric {
namespace {

// Nobody is asked as second who has this share of the slots in use.
constexpr double kBusy = 0.8;

// A request that was sent.
struct Sent {
  Target target;
  AdmittedSlot slot;
  double sent_s;  // monotonic, seconds
  std::string lane;
};

class Race final : public Rival {
 public:
  Race(Pass& pass, FirstAttempt& first) : pass_(pass), result_(first) {}
  ~Race() override {
    if (racing_) pass_.io.leave_race();
  }
  Race(const Race&) = delete;
  Race& operator=(const Race&) = delete;

  Task<bool> run();
  bool hedged() const { return second_.has_value(); }
  std::optional<Leg> enter() override;
  void miss() override { engine_.metrics.inc(metric::kHedgeDenied); }

 private:
  std::optional<double> patience_s() const;
  Sent sent(Target target, AdmittedSlot slot) const;
  Leg leg(const Sent& request) const;
  bool fits(const Target& candidate) const;
  std::optional<Sent> admit(const NamedProvider& candidate) const;
  std::optional<Sent> find();

  Tried weigh(const Sent& request, Finish finish, AttemptRecord& record);
  Tried note(const Sent& request, Finish finish);
  Task<void> after_first(Finish finish);
  Task<void> wait_for_second();
  Task<void> record_second(const Tried& tried);
  void answer(Sent& by, Tried tried);
  void lose(const Sent& request) { pass_.note_lost(request.target, request.sent_s); }
  double lasted_s(const Sent& request) const {
    return pass_.engine.clock.monotonic() - request.sent_s;
  }

  Pass& pass_;
  const Surroundings& engine_ = pass_.engine;
  FirstAttempt& result_;
  std::optional<Sent> first_;
  std::optional<Sent> second_;
  bool racing_ = false;
};

Task<bool> Race::run() {
  first_ = sent(std::move(result_.target), std::move(result_.slot));
  if (!pass_.state.take_request()) co_return false;
  const std::optional<double> patience = patience_s();
  std::optional<Finish> finish;
  if (patience) {
    racing_ = true;
    finish = co_await pass_.io.race(leg(*first_), *patience, *this);
  } else {
    const AttemptTerms terms = leg(*first_).terms;
    Attempt made = co_await pass_.io.execute(first_->target.provider, first_->target.model, terms);
    finish = Finish{false, std::move(made), engine_.clock.monotonic()};
  }
  if (!finish->second) {
    co_await after_first(std::move(*finish));
    co_return true;
  }
  engine_.hedging.lost(first_->lane, lasted_s(*first_));
  lose(*first_);
  Tried tried = note(*second_, std::move(*finish));
  answer(*second_, std::move(tried));
  co_return true;
}

// How long the first one is waited for alone; null when nobody else is to be asked.
std::optional<double> Race::patience_s() const {
  if (pass_.domain() == SemanticDomain::kOutOfBounds) return std::nullopt;
  if (!pass_.io.may_race(first_->target.provider)) return std::nullopt;
  const HedgeAfter& after = *pass_.policy().hedge_after;
  const std::optional<double> seconds =
      after.seconds ? after.seconds : engine_.hedging.usual_s(first_->lane);
  if (!seconds || *seconds >= pass_.state.attempt_limit_s()) return std::nullopt;
  return seconds;
}

Sent Race::sent(Target target, AdmittedSlot slot) const {
  std::string lane = pass_.lane_of(target);
  return {std::move(target), std::move(slot), engine_.clock.monotonic(), std::move(lane)};
}

Leg Race::leg(const Sent& request) const {
  const AttemptTerms terms{pass_.state.attempt_limit_s(), false, pass_.demand()};
  return {request.target.provider, request.target.model, terms};
}

// Nothing of others is run in here: the call may be waiting in another thread.
std::optional<Leg> Race::enter() {
  second_ = find();
  engine_.metrics.inc(second_ ? metric::kHedgeSent : metric::kHedgeDenied);
  if (!second_) return std::nullopt;
  engine_.hedging.overdue(first_->lane);
  return leg(*second_);
}

std::optional<Sent> Race::find() {
  const CallPolicy& policy = pass_.policy();
  const auto budget = engine_.hedging.budget(policy.hedge_ratio, policy.hedge_burst);
  if (!budget->draw()) return std::nullopt;
  std::vector<NamedProvider> others = pass_.candidates.available(engine_.registry);
  std::erase_if(others, [&](const auto& one) { return !fits(pass_.candidates.target(one)); });
  while (!others.empty()) {
    const NamedProvider next = pass_.candidates.pick_next(others);
    std::optional<Sent> second = admit(next);
    if (second && pass_.state.take_hedge()) return second;
    if (second) {
      second->target.provider->rate_limiter()->refund();
      break;
    }
    std::erase_if(others, [&](const auto& one) { return one.name == next.name; });
  }
  budget->give_back();
  return std::nullopt;
}

bool Race::fits(const Target& candidate) const {
  if (candidate.name == first_->target.name) return false;
  if (!pass_.io.may_race(candidate.provider)) return false;
  if (pass_.left_alone_s(candidate.provider) > 0) return false;
  if (engine_.hedging.is_aside(pass_.lane_of(candidate))) return false;
  const bool exact = pass_.domain() == SemanticDomain::kStrongEquivalence;
  if (exact && candidate.model != first_->target.model) return false;
  const BulkheadFields slots = candidate.provider->bulkhead()->snapshot();
  return static_cast<double>(slots.active) < kBusy * static_cast<double>(slots.max_concurrent);
}

std::optional<Sent> Race::admit(const NamedProvider& candidate) const {
  Target target = pass_.candidates.target(candidate);
  std::optional<AdmittedSlot> slot = pass_.admit_now(target);
  if (!slot) return std::nullopt;
  return sent(std::move(target), std::move(*slot));
}

Tried Race::weigh(const Sent& request, Finish finish, AttemptRecord& record) {
  return pass_.weigh(request.target, std::move(finish.attempt), request.sent_s, finish.over_s,
                     record);
}

Tried Race::note(const Sent& request, Finish finish) {
  AttemptRecord record;
  Tried tried = weigh(request, std::move(finish), record);
  pass_.keep(std::move(record));
  return tried;
}

// The one that answered is told of last.
Task<void> Race::after_first(Finish finish) {
  AttemptRecord record;
  Tried tried = weigh(*first_, std::move(finish), record);
  if (!tried.ok()) {
    pass_.keep(std::move(record));
    pass_.settle(first_->target, tried, first_->slot);
    result_ = {first_->target, std::move(tried), std::move(first_->slot)};
    if (second_) co_await wait_for_second();
    co_return;
  }
  std::optional<Finish> no_good;
  if (second_) no_good = pass_.io.end_race();
  if (no_good) {
    const Tried other = note(*second_, std::move(*no_good));
    co_await record_second(other);
  } else if (second_) {
    lose(*second_);
  }
  pass_.keep(std::move(record));
  answer(*first_, std::move(tried));
}

Task<void> Race::wait_for_second() {
  result_.fault = co_await pass_.diagnose(result_.target, result_.tried, result_.slot);
  result_.slot = {};
  Finish finish = co_await pass_.io.other();
  Tried tried = note(*second_, std::move(finish));
  if (tried.ok()) {
    answer(*second_, std::move(tried));
    co_return;
  }
  pass_.settle(second_->target, tried, second_->slot);
  co_await record_second(tried);
  result_.other = second_->target.name;
}

Task<void> Race::record_second(const Tried& tried) {
  co_await pass_.diagnose(second_->target, tried, second_->slot);
  second_->slot = {};
}

void Race::answer(Sent& by, Tried tried) {
  engine_.hedging.answered(by.lane, tried.latency_ms / 1e3);
  if (&by != &*first_) engine_.metrics.inc(metric::kHedgeWon);
  pass_.settle(by.target, tried, by.slot);
  result_ = {std::move(by.target), std::move(tried), std::move(by.slot)};
}

}  // namespace

Task<bool> attempt_hedged(Pass& pass, FirstAttempt& first) {
  Race race(pass, first);
  const bool sent = co_await race.run();
  first.hedged = race.hedged();
  co_return sent;
}

}  // namespace tarvomeldric
