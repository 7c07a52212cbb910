"""Which reply a simulator gives next."""

from __future__ import annotations

import random
import threading
from collections import deque
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from math import ceil

from tarvomeldric import RateLimiter

from .replies import Fault, Reply

TYPICAL_FAULTS = (
    Reply(status=429),
    Reply(status=500),
    Reply(status=503),
    Reply(fault=Fault.STALL),
    Reply(fault=Fault.RESET),
    Reply(fault=Fault.GARBAGE),
)
"""What a provider does on a bad day: the choice of ``fault_rate`` unless ``faults`` is given."""


@dataclass(frozen=True)
class Settings:
    """All that a simulator is told before it starts; see ``ProviderSimulator``."""

    replies: Sequence[Reply] = ()
    default: Reply = field(default_factory=Reply)
    rules: Mapping[str, Reply] = field(default_factory=dict)
    fault_rate: float = 0.0
    faults: Sequence[Reply] = TYPICAL_FAULTS
    seed: int = 0
    port: int = 0
    keep: int = 10_000
    per_second: float | None = None
    burst: int = 1


class Script:
    """Chooses the reply to each request: scripted ones first, then rules, chance, the default.

    What is above the limit is refused before any of these is looked at.

    Chance draws from a generator of its own, so the same seed and the same order of requests
    give the same faults. Safe to share between threads.
    """

    def __init__(self, settings: Settings) -> None:
        self._lock = threading.Lock()
        self._pending = deque(settings.replies)
        self._default = settings.default
        self._rules = dict(settings.rules)
        self._fault_rate = settings.fault_rate
        self._faults = list(settings.faults)
        self._random = random.Random(settings.seed)
        self._limiter: RateLimiter | None = None
        if rate := settings.per_second:
            self._limiter = RateLimiter(settings.burst, rate, _tokens=settings.burst)
            self._refusal = Reply(status=429, headers={"Retry-After": str(ceil(1 / rate))})

    def replace(
        self, replies: Sequence[Reply], default: Reply | None, rules: Mapping[str, Reply] | None
    ) -> None:
        """Replace the replies still to come; None leaves the default or the rules alone."""
        with self._lock:
            self._pending = deque(replies)
            if default is not None:
                self._default = default
            if rules is not None:
                self._rules = dict(rules)

    def next_reply(self, model: str, prompt: str) -> Reply:
        """Return the reply to a request for ``model`` with ``prompt``."""
        with self._lock:
            if self._limiter and not self._limiter.acquire():
                return self._refusal
            if self._pending:
                return self._pending.popleft()
            for key, reply in self._rules.items():
                if key == model or key in prompt:
                    return reply
            if self._fault_rate and self._random.random() < self._fault_rate:
                return self._random.choice(self._faults)
            return self._default
