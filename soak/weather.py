"""The operator: revives barred providers, and brings about what seldom comes by itself."""

import random
import threading
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass

from endings import ERRORS, Tally
from naps import sleep
from unruly import SLOTS

from tarvomeldric import CircuitBreaker, CircuitState, ProviderConfig, RateLimiter

_NO_PROVIDER, _NO_FALLBACK, _NO_ROOM, _NO_CANDIDATE = list(ERRORS.values())[:4]
_CATEGORIES = ("auth_error", "unknown", "model_not_found", "validation_error", "server_error")
_ENOUGH = 3
_PATIENCE = 100  # looks, 5 ms apart


def revive(records: Sequence[ProviderConfig]) -> None:
    for record in records:
        record.healthy = True
        record.circuit_breaker = CircuitBreaker()
        for category in list(record._category_circuit_breakers):
            record._category_circuit_breakers[category] = CircuitBreaker()


@dataclass
class Spell:
    """A time in which calls are bound to end in one way, and what brings that about."""

    ending: str
    out: Sequence[ProviderConfig] = ()  # breakers are open
    ill: Sequence[ProviderConfig] = ()  # not healthy
    full: Sequence[ProviderConfig] = ()  # all slots are held
    spent: Sequence[ProviderConfig] = ()  # hardly any tokens
    barred: Sequence[ProviderConfig] = ()  # for some categories of faults

    @contextmanager
    def prepared(self) -> Iterator[None]:
        held = [one for one in self.full for _ in range(SLOTS) if one.bulkhead.acquire(0.01)]
        limiters = [record.rate_limiter for record in self.spent]
        for record in self.spent:
            record.rate_limiter = RateLimiter(3, refill_rate=20.0, _tokens=0.0)
        try:
            yield
        finally:
            for record, limiter in zip(self.spent, limiters, strict=True):
                record.rate_limiter = limiter
            for record in held:
                record.release_slot()

    def go_on(self) -> None:
        for record in self.out:
            record.circuit_breaker._trip()
        for record in self.ill:
            record.healthy = False
        for record in self.barred:
            for category in _CATEGORIES:
                record.get_category_circuit_breaker(category)._trip()


def change(
    records: Sequence[ProviderConfig], tally: Tally, chance: random.Random, over: threading.Event
) -> None:
    """One spell after the other, and calm in between."""
    first, *others = records
    spells = [
        Spell(_NO_PROVIDER, out=records),
        Spell(_NO_PROVIDER, ill=records),
        Spell(_NO_FALLBACK, out=others, full=[first]),
        Spell(_NO_FALLBACK, out=others, spent=[first]),
        Spell(_NO_ROOM, full=records),
        Spell(_NO_ROOM, spent=records),
        Spell(_NO_CANDIDATE, barred=records),
    ]
    while not over.is_set():
        chance.shuffle(spells)
        for spell in spells:
            _calm(records, tally, chance)
            _endure(spell, tally, over)


def _calm(records: Sequence[ProviderConfig], tally: Tally, chance: random.Random) -> None:
    for _ in range(chance.randrange(5, 20)):
        revive(records)
        sleep(0.02)
        if any(one.circuit_breaker.get_state() is CircuitState.OPEN for one in records):
            tally.note("breaker opened by failures")
    revive(records)


def _endure(spell: Spell, tally: Tally, over: threading.Event) -> None:
    enough = tally[spell.ending] + _ENOUGH
    with spell.prepared():
        for _ in range(_PATIENCE):
            if tally[spell.ending] >= enough or over.is_set():
                return
            spell.go_on()
            sleep(0.005)
