"""Whether the engine counted what its callers saw, and whether everything there is came about."""

from collections.abc import Iterator
from typing import Any

from endings import CALLS, CANCELLED, CLOSED, ERRORS, LEVELS, PROVIDER_ERROR, Tally
from unruly import SLOTS

_DIRECT, _LEARNED, _RETRIED, _DOWNGRADED, _FAILED_OVER = LEVELS.values()
_NOBODY, _NO_FALLBACK, _REFUSED, _NO_CANDIDATE, _, *_BROKEN, _DRIFTED = ERRORS.values()
_CATEGORIES = (
    "rate_limit",
    "auth_error",
    "model_not_found",
    "server_error",
    "timeout",
    "connection_error",
    "quota_exceeded",
    "validation_error",
    "unknown",
)
HAPPENINGS = (
    *(f"fault_{category}" for category in _CATEGORIES),
    "l1_skip_to_failover",
    "l2_downgrade_attempt",
    "l4_learned_routing",
    "rate_limited",
    "rate_limited_during_failover",
    "category_circuit_blocked_failover",
    "contract_warning_tau_domain",
    "tau_domain_failover",
)
BESIDES = (
    "contract held",
    "contract broken and tolerated",
    "paused under back-pressure",
    "breaker opened by failures",
)


def disagreements(engine: Any, tally: Tally) -> Iterator[str]:
    """What the engine counted differently from its callers."""
    metric, counts = engine.get_metrics().get_counter, engine._read_counters()
    # Each of these is counted when nothing can end the call any more in another way.
    for name, counted, *endings in (
        ("call_count", counts["call_count"], *CALLS),
        ("calls_total", metric("calls_total"), *CALLS),
        ("success_primary", metric("success_primary"), _DIRECT, _LEARNED),
        ("heal_l1_retry", metric("heal_l1_retry"), _RETRIED),
        ("heal_l2_downgrade", metric("heal_l2_downgrade"), _DOWNGRADED),
        ("l2_downgrade_count", counts["l2_downgrade_count"], _DOWNGRADED),
        ("heal_l3_failover", metric("heal_l3_failover"), _FAILED_OVER, _BROKEN[2]),
        ("contract_validation_failed", metric("contract_validation_failed"), *_BROKEN),
        ("drift_fail_loud", metric("drift_fail_loud"), _DRIFTED),
        ("errors_no_provider", metric("errors_no_provider"), _NOBODY),
        ("bulkhead_rejected_count", counts["bulkhead_rejected_count"], _REFUSED),
        (
            "errors_all_providers_failed",
            metric("errors_all_providers_failed"),
            PROVIDER_ERROR,
            _NO_CANDIDATE,
        ),
    ):
        seen = sum(tally[ending] for ending in endings)
        if counted != seen:
            yield f"{name} is {counted}, but the callers saw {seen}"
    # A healed call can still be given up while what was learned of it is on its way.
    given_up = tally[CANCELLED] + tally[CLOSED]
    healed = (_RETRIED, _DOWNGRADED, _FAILED_OVER, _BROKEN[2])
    seen, counted = sum(tally[ending] for ending in healed), counts["heal_count"]
    if not seen <= counted <= seen + given_up:
        yield f"heal_count is {counted}, but the callers saw {seen}"


def not_given_back(records: Any) -> Iterator[str]:
    """Permits that are missing, and waiters that are still in line."""
    for record in records:
        semaphore, active = record.bulkhead._semaphore, record.bulkhead.to_dict()["active"]
        state = semaphore._permits, semaphore._waiting, active
        if state != (SLOTS, 0, 0):
            yield f"{record.name}: permits, waiters and attempts in flight are {state}"


def missing(engine: Any, records: Any, together: Tally) -> list[str]:
    """What should have happened, and did not."""
    metric = engine.get_metrics().get_counter
    lacking = together.missing()
    lacking += [name for name in BESIDES if not together[name]]
    lacking += [name for name in HAPPENINGS if not metric(name)]
    if not any(record.bulkhead.to_dict()["rejected"] for record in records):
        lacking.append("rejected by a bulkhead")
    return lacking
