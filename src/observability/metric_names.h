#pragma once

// Every metric that the engine writes, by its name in a MetricsCollector.
namespace tarvomeldric::metric {

// Counters.
inline constexpr char kCalls[] = "calls_total";
inline constexpr char kPrimarySuccess[] = "success_primary";
inline constexpr char kNoProvider[] = "errors_no_provider";
inline constexpr char kAllProvidersFailed[] = "errors_all_providers_failed";
inline constexpr char kDeadline[] = "errors_deadline";
inline constexpr char kRequestsSpent[] = "errors_requests_spent";  // by `max_attempts` or a budget
inline constexpr char kRateLimited[] = "rate_limited";
inline constexpr char kRateLimitedInFailover[] = "rate_limited_during_failover";
inline constexpr char kBulkheadRejected[] = "bulkhead_rejected";
inline constexpr char kCategoryBlocked[] = "category_circuit_blocked_failover";
inline constexpr char kLearnedRouting[] = "l4_learned_routing";
inline constexpr char kRetrySkipped[] = "l1_skip_to_failover";
inline constexpr char kRetry[] = "l1_retry_attempt_";  // and the number of the retry, from 0
inline constexpr char kDowngrade[] = "l2_downgrade_attempt";
inline constexpr char kHealedByRetry[] = "heal_l1_retry";
inline constexpr char kHealedByDowngrade[] = "heal_l2_downgrade";
inline constexpr char kHealedByFailover[] = "heal_l3_failover";
inline constexpr char kTolerantFailover[] = "tau_domain_failover";
inline constexpr char kOutOfBoundsFailover[] = "oob_domain_failover";
inline constexpr char kDowngradeOutOfBounds[] = "downgrade_blocked_oob";
inline constexpr char kContractBroken[] = "contract_validation_failed";
inline constexpr char kContractWarning[] = "contract_warning_tau_domain";
inline constexpr char kDrift[] = "drift_fail_loud";
inline constexpr char kHedgeSent[] = "hedge_sent";      // a second provider was asked
inline constexpr char kHedgeWon[] = "hedge_won";        // and answered first
inline constexpr char kHedgeDenied[] = "hedge_denied";  // nobody had room, or the budget was empty
inline constexpr char kFault[] = "fault_";              // and the category of the fault
inline constexpr char kRateLimitFault[] = "fault_rate_limit";

// Histograms.
inline constexpr char kFaultLatency[] = "fault_latency_us";
inline constexpr char kPrimaryLatency[] = "latency_primary_ms";
inline constexpr char kFailoverLatency[] = "latency_failover_ms";

}  // namespace tarvomeldric::metric
