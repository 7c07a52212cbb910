#pragma once

#include <cstdint>
#include <optional>

#include "diagnosis/diagnoser.h"
#include "engine/policy.h"
#include "support/clock.h"
#include "support/random.h"

namespace tarvomeldric {

// What its policy still allows one call: time, requests, and the next delay.
//
//   if (state.may_send()) ... prepare ...; if (state.take_request()) ... send ...
//
// Of one call, and so of one thread at a time. Policy, clock and chance outlive it.
class PolicyState {
 public:
  // Makes the call's deposit into the budget.
  PolicyState(const CallPolicy& policy, const Clock& clock, const Random& random, double start_s);

  const CallPolicy& policy() const { return policy_; }
  // Seconds until the deadline; infinite without one.
  double left_s() const;
  // How long the next request may take; infinite when nothing bounds it.
  double attempt_limit_s() const;

  // Whether another request may be sent: there is time for it, and it is within the count and the
  // budget. Once the answer is no, it stays no.
  bool may_send();
  // The same for a request that is sent now, which it counts.
  bool take_request();
  // The same for one beside a request that is under way. A no concerns this one alone.
  bool take_hedge();
  // Whether a wait ends early enough for what is to follow it. A no is remembered as the
  // deadline's.
  bool may_wait(double seconds);
  // An attempt that was over then ended with the deadline rather than with its own limit.
  bool cut_by_deadline(double over_s) const;
  void stop_at_deadline() { forbidden_by_ = Forbidden::kDeadline; }

  // Whether the deadline kept the call from a step, or the count or the budget did.
  bool ended_by_deadline() const {
    return forbidden_by_ == Forbidden::kDeadline || (wait_forbidden_ && !ended_by_count());
  }
  bool ended_by_count() const { return forbidden_by_ == Forbidden::kCount; }

  // The pause before a retry, counted from 0, that follows a fault; the provider asked to be left
  // alone for `alone_s` seconds. Nothing when that is too long to be waited for.
  std::optional<double> delay_s(int retry, const Diagnosis& fault, double alone_s) const;
  // How long a provider is waited for that asked to be left alone; nothing as above.
  std::optional<double> wait_s(double alone_s) const;

 private:
  enum class Forbidden { kNot, kDeadline, kCount };

  bool is_spent() const;

  const CallPolicy& policy_;
  const Clock& clock_;
  const Random& random_;
  double end_s_;  // monotonic, seconds; infinite without a deadline
  std::int64_t requests_ = 0;
  Forbidden forbidden_by_ = Forbidden::kNot;
  bool wait_forbidden_ = false;
};

}  // namespace tarvomeldric
