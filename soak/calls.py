"""One call: of an engine, or through a view of it, whose policy then keeps what it promises."""

import asyncio
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from random import Random
from typing import Any

import arguments
import sleeps
from outcomes import CANCELLED, INTERRUPTED, UNCOUNTED, Tally

import tarvomeldric as tm

_VIEWED = 0.4  # of the calls
_DOCUMENTED = {
    tm.APIError,
    tm.DeadlineExceeded,
    tm.NoProviderAvailable,
    tm.ProvidersBusy,
    tm.AllProvidersFailed,
    tm.ContractViolationError,
    tm.SemanticBoundaryViolationError,
}


@dataclass
class Call:
    """A call that is being made, and who notes how it ends."""

    engine: Any  # or a view of it
    arguments: dict[str, Any]
    tally: Tally
    slept: sleeps.Sleeper
    policy: tm.CallPolicy | None
    start: float = field(default_factory=time.monotonic)

    def answered(self, result: Any) -> None:
        self._check(result)
        self.tally.answered(result)

    def failed(self, error: Exception) -> None:
        self._check(error)
        self.tally.failed(error)

    def given_up(self, outcome: str) -> None:
        self.tally.note(UNCOUNTED if self.slept.pausing else outcome)

    def over_after(self, limit: float | None) -> None:
        """It is over now, and should have been within so many seconds."""
        if limit is not None:
            self.tally.note_lateness(time.monotonic() - self.start - limit)

    def _check(self, end: Any) -> None:
        if not self.policy:
            return
        self.over_after(self.policy.deadline)
        for broken in _broken_promises(self.policy, self.arguments["model"], end):
            self.tally.note_unexpected(f"{broken}: {self.policy}, {end!r}")


def _broken_promises(policy: tm.CallPolicy, model: str | None, end: Any) -> Iterator[str]:
    if isinstance(end, Exception) and type(end) not in _DOCUMENTED:
        yield "an error of no documented type"
        return
    if policy.max_attempts is not None and len(end.attempts) > policy.max_attempts:
        yield f"{len(end.attempts)} requests"
    if policy.providers and not {each.provider for each in end.attempts} <= {*policy.providers}:
        yield "a provider that was left out"
    if policy.exact_model and model and {each.model for each in end.attempts} - {model}:
        yield "a model that was not asked for"


@contextmanager
def begun(engine: Any, tally: Tally, chance: Random, asked: dict[str, Any]) -> Iterator[Call]:
    """Notes how the call ends that is made meanwhile, unless it is answered."""
    policy = arguments.of_policy(chance) if chance.random() < _VIEWED else None
    seen = engine.with_policy(policy) if policy else engine
    call = Call(seen, asked, tally, sleeps.begin_call(chance), policy)
    try:
        yield call
    except sleeps.Interrupted:
        call.given_up(INTERRUPTED)
    except asyncio.CancelledError:
        call.given_up(CANCELLED)
        raise
    except Exception as error:
        call.failed(error)
    finally:
        if call.slept.paused:
            tally.note("paused under back-pressure")
