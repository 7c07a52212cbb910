#pragma once

#include <cstdint>
#include <optional>

namespace tarvomeldric {

// What a member of a fleet tells and asks Redis in one exchange. Counts are tokens.
struct FleetRequest {
  double interval_us = 0.0;   // the limit: from one token to the next, ...
  std::int64_t burst = 1;     // ... how many there are at once, ...
  std::int64_t slice = 1;     // ... and how many an idle member may keep
  std::int64_t held = 0;      // kept, and leased anew
  std::int64_t wanted = 0;    // on top of those
  std::int64_t returned = 0;  // given back, unused
  bool in_demand = false;     // whether anybody asked this member lately
  double owed = 0.0;          // spent while it was cut off ...
  double cut_off_s = 0.0;     // ... which lasted so long
  double patience_s = 0.0;    // after which members that are cut off have tried again
  std::int64_t born_us = 0;   // which bucket the member knows
  double alone_s = 0.0;       // how long the provider wants to be left alone, as this member heard
};

// What Redis answers. Nothing in it is trusted further than it was asked for.
struct FleetReply {
  std::int64_t granted = 0;  // below 0: to be given back, of what is held
  std::int64_t members = 1;
  std::int64_t most = 1;     // the largest membership ever published
  std::int64_t in_need = 0;  // members that are asked for tokens and have none
  double wait_s = 0.0;       // until there is a token again, 0 when there is one
  std::int64_t born_us = 0;  // when the bucket was made
  double alone_s = 0.0;      // how long the provider wants to be left alone, as anybody heard
};

// One member's share of a limit that a fleet has in common: how many tokens it may spend, and when
// it asks for more. The tokens are leases on a bucket in Redis; this is the arithmetic of it.
//
// Guarantees: a token is spent within `kLeaseSeconds` of the exchange that leased it, or given
// back. While Redis is away the member spends what it holds, then its part of the limit (the limit
// over the largest membership ever published) for `kAdriftSeconds`, and owes what it spent so. A
// share that never saw Redis has nothing.
//
//   if (share.due_s(now) <= 0) {
//     request = share.ask(now);
//     answered ? share.settle(reply, now, chance) : share.fail(now, chance);
//   }
//
// Times are seconds of a monotonic clock, chances uniform from 0 to 1. One thread at a time.
class FleetShare {
 public:
  FleetShare(double tokens_a_second, std::int64_t burst);

  bool take(std::int64_t tokens, double now_s);
  // Takes back a token of an admission that came to nothing.
  void put_back(double now_s);
  // What could be taken now.
  std::int64_t holding(double now_s);

  // Seconds until the next exchange is due.
  double due_s(double now_s) const;
  // Begins an exchange; `settle` or `fail` ends it.
  FleetRequest ask(double now_s);
  void settle(const FleetReply& reply, double now_s, double chance);
  // Redis did not answer. Also ends what was not begun.
  void fail(double now_s, double chance);

  // What the provider said to this member, and what is known of everybody.
  void leave_alone(double seconds, double now_s) { alone_told_s_ = now_s + seconds; }
  double left_alone_s(double now_s) const;

  bool connected() const { return born_us_ && !cut_off_s_; }
  // Tokens at a time: of a busy member, and of one that nobody asks.
  std::int64_t lease() const;
  std::int64_t slice() const { return slice_; }
  std::int64_t members() const { return members_; }
  std::int64_t most() const { return most_; }
  double owed() const { return owed_; }

  static constexpr double kLeaseSeconds = 2.0;
  static constexpr double kAdriftSeconds = 60.0;

 private:
  bool in_demand(double now_s) const;
  bool runs_low(double now_s) const;
  double patience_s() const;
  void lapse(double now_s);
  void drift(double now_s);

  double rate_;  // tokens a second
  std::int64_t burst_;
  std::int64_t slice_;

  std::int64_t held_ = 0;
  std::int64_t leased_ = 0;  // what Redis has on record for this member, at least
  double lapses_s_ = 0.0;
  std::int64_t returned_ = 0;  // to be given back
  std::optional<double> asked_s_;

  std::optional<std::int64_t> born_us_;  // of the bucket, as of the newest reply
  std::int64_t members_ = 1, most_ = 0;
  double alone_told_s_ = 0.0, alone_until_s_ = 0.0;

  std::optional<double> cut_off_s_;  // since when
  double drifted_s_ = 0.0;           // up to when the member's own part is counted
  double own_ = 0.0;                 // tokens of it that are left
  double owed_ = 0.0;

  std::optional<FleetRequest> asking_;
  double sent_s_ = 0.0;
  double renewal_s_ = 0.0;   // the next exchange in any case
  double earliest_s_ = 0.0;  // and the next one for want of tokens
};

}  // namespace tarvomeldric
