#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "guards/retry_budget.h"

namespace tarvomeldric {

// What comes after a first attempt that failed for a moment: the same provider again, or the
// others.
enum class AttemptOrder : std::uint8_t { kRetryFirst, kFailoverFirst };
inline constexpr std::array kAttemptOrders{"retry_first", "failover_first"};

// Which answers are held against the contract: those that healed a call, or every one; then an
// answer without content is none, too.
enum class Validation : std::uint8_t { kHealed, kAll };
inline constexpr std::array kValidations{"healed", "all"};

// How long a first provider is waited for before a second one is asked, too.
struct HedgeAfter {
  std::optional<double> seconds;  // null: as long as 95 % of its newest answers took

  bool operator==(const HedgeAfter&) const = default;
};

// What one call may cost, and how it is healed. The defaults are what a call without a policy does.
// Never changed once a call goes by it.
struct CallPolicy {
  std::optional<double> deadline_s;          // for the whole call
  std::optional<double> attempt_timeout_s;   // for one request
  std::optional<std::int64_t> max_attempts;  // requests, over all providers
  std::int64_t max_retries = 5;              // of L1
  double initial_backoff_s = kUsualBackoffSeconds;
  double max_backoff_s = 16.0;
  bool jitter = false;              // wait anything up to the delay
  bool retry_after = false;         // heed what providers say about when to come back
  double retry_after_cap_s = 30.0;  // the longest such wait
  AttemptOrder order = AttemptOrder::kRetryFirst;
  bool respect_breakers = false;
  Validation validate = Validation::kHealed;
  std::optional<std::vector<std::string>> providers;  // only these, in this order
  bool exact_model = false;                           // the model that was asked for, or none
  std::shared_ptr<RetryBudget> retry_budget;
  std::optional<HedgeAfter> hedge_after;  // null: nobody else is asked before the first has failed
  double hedge_ratio = 0.05;              // second requests that each call earns
  double hedge_burst = 10.0;  // the most that can be saved up, and what there is at first

  // As long as the back-off begins with this, a rate limit is waited for in even steps.
  static constexpr double kUsualBackoffSeconds = 1.0;

  // std::invalid_argument that names the field whose value cannot be.
  void check() const;

  // For somebody who waits, and for work that nobody waits for.
  static CallPolicy interactive();
  static CallPolicy batch();
};

}  // namespace tarvomeldric
