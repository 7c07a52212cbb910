"""What must add up: the engine counts what its callers saw, gives back every slot, met every fault."""

from collections.abc import Iterator
from typing import Any

from outcomes import (
    ANSWERED,
    CALLS,
    CANCELLED,
    CLOSED,
    DEADLINE,
    ERRORS,
    PROVIDER_ERROR,
    REFUSED_ANSWER,
    Tally,
)
from providers import SLOTS

from support import Slots, slots_of
from tarvomeldric import FaultCategory

_DIRECT, _LEARNED, _RETRIED, _DOWNGRADED, _FAILED_OVER = ANSWERED
_NO_PROVIDER, _, _REFUSED, _NO_CANDIDATE, _, *_BROKEN, _DRIFTED, _ALL_BROKEN = ERRORS.values()
_BROKEN_AFTER_FAILOVER = _BROKEN[2]
_HEALED = [_RETRIED, _DOWNGRADED, _FAILED_OVER, _BROKEN_AFTER_FAILOVER]
# Counters, the outcomes that each of their sum stands for, and those that it may stand for: calls
# that were given up while what was learned of them was on its way, and refusals beyond a deadline.
_SUMS: list[tuple[str, list[str], list[str]]] = [
    ("call_count", CALLS, []),
    ("calls_total", CALLS, []),
    ("success_primary", [_DIRECT, _LEARNED], []),
    ("heal_count", _HEALED, [CANCELLED, CLOSED]),
    ("heal_l1_retry", [_RETRIED], []),
    ("heal_l2_downgrade", [_DOWNGRADED], []),
    ("l2_downgrade_count", [_DOWNGRADED], []),
    ("heal_l3_failover", [_FAILED_OVER, _BROKEN_AFTER_FAILOVER], []),
    ("contract_validation_failed", [*_BROKEN, REFUSED_ANSWER], []),
    ("drift_fail_loud", [_DRIFTED], []),
    ("errors_no_provider", [_NO_PROVIDER], [DEADLINE]),
    ("bulkhead_rejected_count", [_REFUSED], [DEADLINE]),
    ("errors_deadline", [DEADLINE], []),
    (
        "errors_all_providers_failed errors_requests_spent",
        [PROVIDER_ERROR, _NO_CANDIDATE, _ALL_BROKEN],
        [],
    ),
]
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
    "errors_requests_spent",
    "hedge_sent",
    "hedge_won",
)


def disagreements(engine: Any, tally: Tally) -> Iterator[str]:
    """What the engine counted differently from its callers."""
    counts = engine._read_counters()
    metric = engine.get_metrics().get_counter
    for names, outcomes, others in _SUMS:
        counted = sum(counts[name] if name in counts else metric(name) for name in names.split())
        least = tally.sum(outcomes)
        if not least <= counted <= least + tally.sum(others):
            yield f"{names}: {counted}, but the callers saw {least}"


def not_given_back(records: Any) -> Iterator[str]:
    """Slots that are missing, and waiters that are still in line."""
    for record in records:
        if (state := slots_of(record)) != Slots(free=SLOTS):
            yield f"{record.name}: permits, waiters and attempts in flight are {state}"


def missing(engine: Any, records: Any, tally: Tally) -> list[str]:
    """What should have happened, and did not."""
    metric = engine.get_metrics().get_counter
    lacking = [*tally.missing(), *(name for name in COUNTERS if not metric(name))]
    if not any(record.bulkhead.to_dict()["rejected"] for record in records):
        lacking.append("rejected by a bulkhead")
    return lacking
