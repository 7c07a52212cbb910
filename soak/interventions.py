"""What an operator does while calls run.

Revives providers that were put out of use, and holds all of them in states that come about seldom
by themselves: breakers open, slots taken, hardly a token left.
"""

import random
import threading
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any

from outcomes import ERRORS, Tally
from providers import SLOTS
from sleeps import sleep

from tarvomeldric import (
    APIError,
    CallPolicy,
    CallRefused,
    CircuitBreaker,
    CircuitState,
    ProviderConfig,
    RateLimiter,
)

_NO_PROVIDER, _NO_FALLBACK, _NO_ROOM, _NO_CANDIDATE = list(ERRORS.values())[:4]
_CATEGORIES = ("auth_error", "unknown", "model_not_found", "validation_error", "server_error")
_ENOUGH = 3
_PATIENCE = 100  # looks, 5 ms apart


def revive(records: Sequence[ProviderConfig]) -> None:
    for record in records:
        record.healthy = True
        _close(record.circuit_breaker)
        for breaker in record._category_circuit_breakers.values():
            _close(breaker)


def _close(breaker: CircuitBreaker) -> None:
    """Without another one in its place: a leave to test it that was not given back would be lost."""
    breaker._state, breaker._consecutive_fails = CircuitState.CLOSED, 0
    breaker._window.clear()


def test_half_open(engine: Any, record: ProviderConfig, tally: Tally) -> None:
    """When nobody else calls, a half-open provider lets one through."""
    revive([record])
    record.circuit_breaker._state = CircuitState.HALF_OPEN
    policy = CallPolicy(respect_breakers=True, providers=[record.name], max_attempts=1)
    try:
        tally.answered(engine.with_policy(policy).call_sync("Hi", timeout=0.3))
    except CallRefused as error:
        tally.note_unexpected(f"{record.name} is half-open, and nobody may test it: {error}")
        tally.failed(error)
    except APIError as error:
        tally.failed(error)


@dataclass
class State:
    """A state of the providers in which calls are bound to have one outcome."""

    outcome: str
    tripped: Sequence[ProviderConfig] = ()  # breakers are open
    tested: Sequence[ProviderConfig] = ()  # breakers are half-open
    unhealthy: Sequence[ProviderConfig] = ()
    full: Sequence[ProviderConfig] = ()  # all slots are taken
    spent: Sequence[ProviderConfig] = ()  # hardly any tokens
    blocked: Sequence[ProviderConfig] = ()  # for some categories of faults

    @contextmanager
    def prepared(self) -> Iterator[None]:
        taken = [one for one in self.full for _ in range(SLOTS) if one.bulkhead.acquire(0.01)]
        limiters = [record.rate_limiter for record in self.spent]
        for record in self.spent:
            record.rate_limiter = RateLimiter(3, refill_rate=20.0, _tokens=0.0)
        try:
            yield
        finally:
            for record, limiter in zip(self.spent, limiters, strict=True):
                record.rate_limiter = limiter
            for record in taken:
                record.release_slot()

    def renew(self) -> None:
        """Calls that succeed, and other threads, undo this all along."""
        for record in self.tripped:
            record.circuit_breaker._trip()
        for record in self.tested:
            record.circuit_breaker._state = CircuitState.HALF_OPEN
        for record in self.unhealthy:
            record.healthy = False
        for record in self.blocked:
            for category in _CATEGORIES:
                record.get_category_circuit_breaker(category)._trip()


def intervene(
    records: Sequence[ProviderConfig], tally: Tally, chance: random.Random, over: threading.Event
) -> None:
    """One state after the other, with all providers in use in between."""
    first, *others = records
    states = [
        State(_NO_PROVIDER, tripped=records),
        State(_NO_PROVIDER, unhealthy=records),
        State(_NO_FALLBACK, tripped=others, full=[first]),
        State(_NO_FALLBACK, tripped=others, spent=[first]),
        State(_NO_ROOM, full=records),
        State(_NO_ROOM, spent=records),
        State(_NO_ROOM, tested=records),
        State(_NO_CANDIDATE, blocked=records),
    ]
    while not over.is_set():
        for state in chance.sample(states, len(states)):
            _keep_in_use(records, tally, chance)
            _hold(state, tally, over)


def _keep_in_use(records: Sequence[ProviderConfig], tally: Tally, chance: random.Random) -> None:
    for _ in range(chance.randrange(5, 20)):
        revive(records)
        sleep(0.02)
        if any(one.circuit_breaker.get_state() is CircuitState.OPEN for one in records):
            tally.note("breaker opened by failures")
    revive(records)


def _hold(state: State, tally: Tally, over: threading.Event) -> None:
    enough = tally.counts[state.outcome] + _ENOUGH
    with state.prepared():
        for _ in range(_PATIENCE):
            if tally.counts[state.outcome] >= enough or over.is_set():
                return
            state.renew()
            sleep(0.005)
