"""What must add up: the engine counts what its callers saw, gives back every slot, met every fault."""

from collections.abc import Iterator
from typing import Any

from outcomes import CALLS, CANCELLED, CLOSED, ERRORS, LEVELS, PROVIDER_ERROR, Tally
from providers import SLOTS

from support import state_of
from tarvomeldric import FaultCategory

_DIRECT, _LEARNED, _RETRIED, _DOWNGRADED, _FAILED_OVER = LEVELS.values()
_NO_PROVIDER, _, _REFUSED, _NO_CANDIDATE, _, *_BROKEN, _DRIFTED = ERRORS.values()
_BROKEN_AFTER_FAILOVER = _BROKEN[2]
# Each of these is counted when nothing can end the call any more in another way.
_SUMS: dict[str, list[str]] = {
    "call_count": CALLS,
    "calls_total": CALLS,
    "success_primary": [_DIRECT, _LEARNED],
    "heal_l1_retry": [_RETRIED],
    "heal_l2_downgrade": [_DOWNGRADED],
    "l2_downgrade_count": [_DOWNGRADED],
    "heal_l3_failover": [_FAILED_OVER, _BROKEN_AFTER_FAILOVER],
    "contract_validation_failed": _BROKEN,
    "drift_fail_loud": [_DRIFTED],
    "errors_no_provider": [_NO_PROVIDER],
    "errors_all_providers_failed": [PROVIDER_ERROR, _NO_CANDIDATE],
    "bulkhead_rejected_count": [_REFUSED],
}
_HEALED = [_RETRIED, _DOWNGRADED, _FAILED_OVER, _BROKEN_AFTER_FAILOVER]
COUNTERS = (
    *(f"fault_{category.value}" for category in FaultCategory),
    "l1_skip_to_failover",
    "l2_downgrade_attempt",
    "l4_learned_routing",
    "rate_limited",
    "rate_limited_during_failover",
    "category_circuit_blocked_failover",
    "contract_warning_tau_domain",
    "tau_domain_failover",
)


def disagreements(engine: Any, tally: Tally) -> Iterator[str]:
    """What the engine counted differently from its callers."""
    metric, counts = engine.get_metrics().get_counter, engine._read_counters()
    for name, outcomes in _SUMS.items():
        counted, seen = counts[name] if name in counts else metric(name), tally.sum(outcomes)
        if counted != seen:
            yield f"{name} is {counted}, but the callers saw {seen}"
    # A healed call can still be given up while what was learned of it is on its way.
    seen, given_up = tally.sum(_HEALED), tally.sum([CANCELLED, CLOSED])
    if not seen <= counts["heal_count"] <= seen + given_up:
        yield f"heal_count is {counts['heal_count']}, but the callers saw {seen}"


def not_given_back(records: Any) -> Iterator[str]:
    """Slots that are missing, and waiters that are still in line."""
    for record in records:
        if (state := state_of(record)) != (SLOTS, 0, 0):
            yield f"{record.name}: permits, waiters and attempts in flight are {state}"


def missing(engine: Any, records: Any, tally: Tally) -> list[str]:
    """What should have happened, and did not."""
    metric = engine.get_metrics().get_counter
    lacking = [*tally.missing(), *(name for name in COUNTERS if not metric(name))]
    if not any(record.bulkhead.to_dict()["rejected"] for record in records):
        lacking.append("rejected by a bulkhead")
    return lacking
