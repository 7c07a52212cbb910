#include "guards/fleet_share.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace tarvomeldric {
namespace {

constexpr double kDemandSeconds = 2.0;   // for so long after a request a member counts as asked
constexpr double kRenewalSeconds = 1.5;  // below a lease's time, with what an exchange may take
// Members that are cut off try again after this, or later where they are many.
constexpr double kRetrySeconds = 0.2, kLongestRetrySeconds = 1.0, kRetriesASecond = 400.0;
constexpr double kSliceSeconds = 0.05;  // a slice is what the limit gives in this time
// When tokens are short, members in need ask for them so many times as often as there are slices.
constexpr double kAsksPerSlice = 3.0;
constexpr double kLongestAloneSeconds = 15 * 60.0;

std::int64_t slice_of(double tokens_a_second, std::int64_t burst) {
  return std::clamp<std::int64_t>(static_cast<std::int64_t>(tokens_a_second * kSliceSeconds), 1,
                                  burst);
}

// Within bounds, whatever it is: a number that is none counts as the lower one.
double bounded(double value, double low, double high) {
  return value > low ? std::min(value, high) : low;
}

}  // namespace

FleetShare::FleetShare(double tokens_a_second, std::int64_t burst)
    : rate_(tokens_a_second), burst_(burst), slice_(slice_of(tokens_a_second, burst)) {}

bool FleetShare::take(std::int64_t tokens, double now_s) {
  asked_s_ = now_s;
  lapse(now_s);
  drift(now_s);
  const std::int64_t missing = std::max<std::int64_t>(0, tokens - held_);
  if (missing > 0) {
    if (own_ < static_cast<double>(missing)) return false;
    own_ -= static_cast<double>(missing);
    owed_ += static_cast<double>(missing);
  }
  held_ -= std::max<std::int64_t>(0, tokens - missing);
  return true;
}

// It may be spent again at once where it is still on record as leased; else it goes back to Redis.
void FleetShare::put_back(double now_s) {
  lapse(now_s);
  if (held_ < leased_) {
    ++held_;
  } else if (cut_off_s_ && owed_ >= 1.0) {
    owed_ -= 1.0;
    own_ += 1.0;
  } else {
    ++returned_;
  }
}

std::int64_t FleetShare::holding(double now_s) {
  lapse(now_s);
  drift(now_s);
  return held_ + static_cast<std::int64_t>(own_);
}

double FleetShare::due_s(double now_s) const {
  if (asking_) return std::numeric_limits<double>::infinity();
  const double due_s = runs_low(now_s) ? std::min(earliest_s_, renewal_s_) : renewal_s_;
  return due_s - now_s;
}

FleetRequest FleetShare::ask(double now_s) {
  lapse(now_s);
  const bool in_demand = this->in_demand(now_s);
  const std::int64_t enough = in_demand ? lease() : slice_;
  const std::int64_t kept = std::min(held_, enough);
  returned_ += held_ - kept;
  held_ = leased_ = kept;
  FleetRequest request{.interval_us = 1e6 / rate_,
                       .burst = burst_,
                       .slice = slice_,
                       .held = kept,
                       .wanted = enough - kept,
                       .returned = std::exchange(returned_, 0),
                       .in_demand = in_demand,
                       .owed = owed_,
                       .cut_off_s = cut_off_s_ ? now_s - *cut_off_s_ : 0.0,
                       .patience_s = patience_s(),
                       .born_us = born_us_.value_or(0),
                       .alone_s = std::max(0.0, alone_told_s_ - now_s)};
  asking_ = request;
  sent_s_ = now_s;
  return request;
}

void FleetShare::settle(const FleetReply& reply, double now_s, double chance) {
  if (!asking_) return;
  const FleetRequest asked = *std::exchange(asking_, std::nullopt);
  lapse(now_s);
  const std::int64_t granted = std::clamp(reply.granted, -asked.held, asked.wanted);
  held_ += granted;
  if (held_ < 0) {  // spent while it was being given back
    owed_ -= static_cast<double>(held_);
    held_ = 0;
  }
  leased_ = asked.held + granted;
  lapses_s_ = sent_s_ + kLeaseSeconds;
  born_us_ = reply.born_us;
  members_ = std::max<std::int64_t>(1, reply.members);
  most_ = std::max({most_, members_, reply.most});
  alone_until_s_ = now_s + bounded(reply.alone_s, 0.0, kLongestAloneSeconds);
  cut_off_s_.reset();
  own_ = 0.0;
  owed_ -= asked.owed;
  renewal_s_ = now_s + kRenewalSeconds * (0.8 + 0.2 * chance);
  earliest_s_ = now_s;
  if (asked.in_demand && reply.wait_s > 0) {
    const double rivals = static_cast<double>(std::max<std::int64_t>(1, reply.in_need));
    const double turn_s = rivals * static_cast<double>(slice_) / (kAsksPerSlice * rate_);
    earliest_s_ += bounded(reply.wait_s + 2 * chance * turn_s, 0.0, kRenewalSeconds);
  }
}

void FleetShare::fail(double now_s, double chance) {
  if (!cut_off_s_) cut_off_s_ = drifted_s_ = asking_ ? sent_s_ : now_s;
  asking_.reset();
  renewal_s_ = earliest_s_ = now_s + patience_s() * (0.5 + 0.5 * chance);
}

double FleetShare::left_alone_s(double now_s) const {
  return std::max(0.0, alone_until_s_ - now_s);
}

// A busy member of a small fleet may take the whole burst; Redis counts what is leased against it.
std::int64_t FleetShare::lease() const { return std::max(slice_, burst_ / members_); }

bool FleetShare::in_demand(double now_s) const {
  return asked_s_ && now_s - *asked_s_ < kDemandSeconds;
}

bool FleetShare::runs_low(double now_s) const {
  return in_demand(now_s) && 2 * held_ <= lease() && !cut_off_s_;
}

double FleetShare::patience_s() const {
  return bounded(static_cast<double>(most_) / kRetriesASecond, kRetrySeconds, kLongestRetrySeconds);
}

void FleetShare::lapse(double now_s) {
  if (now_s < lapses_s_) return;
  returned_ += std::exchange(held_, 0);
  leased_ = 0;
}

// Counts the member's own part up to now, from the exchange that failed on: that is heard of late.
// With what is held it is no more than a slice and a part of the burst, so that all members have
// together no more than bucket and leases had.
void FleetShare::drift(double now_s) {
  if (!cut_off_s_ || most_ == 0) return;
  if (now_s > *cut_off_s_ + kAdriftSeconds) {
    own_ = 0.0;
    return;
  }
  const double parts = static_cast<double>(most_);
  const double room = static_cast<double>(slice_ - held_) + static_cast<double>(burst_) / parts;
  own_ = std::min(std::max(0.0, room), own_ + (now_s - drifted_s_) * rate_ / parts);
  drifted_s_ = now_s;
}

}  // namespace tarvomeldric
