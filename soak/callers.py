"""Calls an engine, blocking and awaited, and waits for the answer or gives up at any moment."""

import asyncio
import contextlib
import random
from collections.abc import Callable, Coroutine
from typing import Any

import arguments
import sleeps
from calls import begun
from outcomes import CLOSED, NEVER_AWAITED, NEVER_STARTED, Tally

from tarvomeldric import SelfHealingEngine

Way = Callable[[random.Random], Coroutine[Any, Any, None]]
_TIMEOUTS = (asyncio.TimeoutError, TimeoutError)  # one and the same from Python 3.11 on


class Caller:
    """Calls an engine and notes the outcome of each call."""

    def __init__(self, engine: SelfHealingEngine, tally: Tally, text: str = "Hi") -> None:
        self._engine: Any = engine
        self._tally = tally
        self._text = text

    def call_sync(self, chance: random.Random) -> None:
        with begun(self._engine, self._tally, chance, self._arguments(chance)) as call:
            call.answered(call.engine.call_sync(**call.arguments))

    async def call(self, chance: random.Random) -> None:
        with begun(self._engine, self._tally, chance, self._arguments(chance)) as call:
            call.answered(await call.engine.call(**call.arguments))

    async def cancel(self, chance: random.Random) -> None:
        task = asyncio.ensure_future(self.call(chance))
        await sleeps.asleep(chance.uniform(0, 0.1))
        task.cancel()
        await asyncio.wait([task])

    async def cancel_gathered(self, chance: random.Random) -> None:
        tasks = [asyncio.ensure_future(self.call(chance)) for _ in range(3)]
        gathered = asyncio.gather(*tasks)
        await asyncio.wait([gathered], timeout=chance.uniform(0, 0.1))
        gathered.cancel()
        await asyncio.wait(tasks)  # all of them: gathered they are done as soon as one of them is
        if not gathered.cancelled():
            gathered.exception()

    async def time_out(self, chance: random.Random) -> None:
        with contextlib.suppress(*_TIMEOUTS):
            await asyncio.wait_for(self.call(chance), chance.choice((0, 1e-6, 0.001, 0.05)))

    async def never_start(self, chance: random.Random) -> None:
        task = asyncio.ensure_future(self._engine.call(**self._arguments(chance)))
        task.cancel()
        await asyncio.wait([task])
        self._tally.note(NEVER_STARTED)

    async def never_await(self, chance: random.Random) -> None:
        self._engine.call(**self._arguments(chance)).close()
        self._tally.note(NEVER_AWAITED)

    async def close_midway(self, chance: random.Random) -> None:
        """Drives a call by hand up to where it first waits."""
        with begun(self._engine, self._tally, chance, self._arguments(chance)) as call:
            coroutine = call.engine.call(**call.arguments)
            coroutine.send(None)
            coroutine.close()
            call.given_up(CLOSED)

    @property
    def ways(self) -> list[Way]:
        """The awaited ways to call, the more frequent ones several times."""
        giving_up = [self.cancel, self.cancel_gathered, self.time_out]
        return [*[self.call] * 12, *giving_up, self.never_start, self.never_await]

    def _arguments(self, chance: random.Random) -> dict[str, Any]:
        return arguments.of_call(chance, self._text)
