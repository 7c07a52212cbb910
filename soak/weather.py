"""The operator: revives barred providers, and brings about what seldom comes by itself."""

import random
import threading
from typing import Any

from endings import ERRORS, Tally
from naps import sleep
from unruly import SLOTS

from tarvomeldric import CircuitBreaker, CircuitState, ProviderConfig, RateLimiter

NO_PROVIDER, NO_FALLBACK, NO_ROOM, NO_CANDIDATE = list(ERRORS.values())[:4]
_CATEGORIES = ("auth_error", "unknown", "model_not_found", "validation_error", "server_error")
_HANDFUL = 3
_PATIENCE = 100  # looks, 5 ms apart


def revive(records: list[ProviderConfig]) -> None:
    for record in records:
        record.healthy = True
        record.circuit_breaker = CircuitBreaker()
        for category in list(record._category_circuit_breakers):
            record._category_circuit_breakers[category] = CircuitBreaker()


class Weather:
    """What the providers of one engine go through until the shift is over."""

    def __init__(self, records: list[ProviderConfig], tally: Tally, over: threading.Event) -> None:
        self._records = records
        self._tally = tally
        self._over = over

    def change(self, chance: random.Random) -> None:
        first, *others = everyone = self._records
        spells: list[tuple[str, dict[str, Any]]] = [
            (NO_PROVIDER, {"out": everyone}),
            (NO_PROVIDER, {"ill": everyone}),
            (NO_FALLBACK, {"out": others, "full": [first]}),
            (NO_FALLBACK, {"out": others, "spent": [first]}),
            (NO_ROOM, {"full": everyone}),
            (NO_ROOM, {"spent": everyone}),
            (NO_CANDIDATE, {"barred": everyone}),
        ]
        while not self._over.is_set():
            chance.shuffle(spells)
            for ending, spell in spells:
                self._calm(chance.uniform(0.1, 0.4))
                self._spell(self._tally[ending] + _HANDFUL, ending, **spell)

    def _calm(self, seconds: float) -> None:
        for _ in range(int(seconds / 0.02)):
            if any(
                record.circuit_breaker.get_state() is CircuitState.OPEN for record in self._records
            ):
                self._tally.note("breaker opened by failures")
            revive(self._records)
            sleep(0.02)

    def _spell(
        self,
        enough: int,
        ending: str,
        out: Any = (),
        ill: Any = (),
        full: Any = (),
        spent: Any = (),
        barred: Any = (),
    ) -> None:
        """Until the ending came about: breakers open, unhealthy, no slots, no tokens, categories barred."""
        held = [record for record in full for _ in range(SLOTS) if record.bulkhead.acquire(0.01)]
        limiters = {id(record): record.rate_limiter for record in spent}
        for record in spent:
            record.rate_limiter = RateLimiter(3, refill_rate=20.0, _tokens=0.0)
        for _ in range(_PATIENCE):
            if self._tally[ending] >= enough or self._over.is_set():
                break
            for record in out:
                record.circuit_breaker._trip()
            for record in ill:
                record.healthy = False
            for record in barred:
                for category in _CATEGORIES:
                    record.get_category_circuit_breaker(category)._trip()
            sleep(0.005)
        for record in spent:
            record.rate_limiter = limiters[id(record)]
        for record in held:
            record.release_slot()
        revive(self._records)
