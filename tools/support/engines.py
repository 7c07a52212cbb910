"""Providers that set no limit, and engines on them."""

from __future__ import annotations

from typing import Any, NamedTuple

from tarvomeldric import Bulkhead, CircuitBreaker, ProviderConfig, RateLimiter, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator

KEY = "sk-0123456789abcdef"
NOWHERE = "http://127.0.0.1:9/v1"  # the discard port: nobody listens
_MANY = 1_000_000


def provider(base_url: str = NOWHERE, name: str = "mine", slots: int = 10, **more: Any) -> Any:
    """A provider without a limit on its rate, so that only its slots matter."""
    fields: dict[str, Any] = {
        "rate_limiter": RateLimiter(max_tokens=_MANY, refill_rate=1000.0, _tokens=_MANY),
        "bulkhead": Bulkhead(max_concurrent=slots),
        **more,
    }
    return ProviderConfig(name, base_url, fields.pop("api_key", KEY), **fields)


def tireless(**fields: Any) -> Any:
    """A provider that no failure puts out of use."""
    breaker = CircuitBreaker(failure_threshold=_MANY, error_rate_threshold=2.0)
    return provider(circuit_breaker=breaker, **fields)


def engine_with(*records: Any) -> SelfHealingEngine:
    engine = SelfHealingEngine({})
    for record in records or (provider(),):
        engine.add_provider(record)
    return engine


def engine_on(simulator: ProviderSimulator, **fields: Any) -> SelfHealingEngine:
    return engine_with(provider(simulator.base_url, **fields))


class Slots(NamedTuple):
    """Of a provider: those free, the waiters in line, and those taken."""

    free: int
    waiting: int = 0
    taken: int = 0


def slots_of(record: Any) -> Slots:
    semaphore = record.bulkhead._semaphore
    return Slots(semaphore._permits, semaphore._waiting, record.bulkhead.to_dict()["active"])
