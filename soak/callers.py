"""Calls on one engine, blocking and awaited, that are seen through or given up at any moment."""

import asyncio
import contextlib
import random
from collections.abc import Callable, Coroutine
from typing import Any

import asking
import naps
from endings import CANCELLED, CLOSED, INTERRUPTED, NEVER_AWAITED, NEVER_STARTED, UNCOUNTED, Tally

from tarvomeldric import SelfHealingEngine

Way = Callable[[random.Random], Coroutine[Any, Any, None]]
_TIMEOUTS = (asyncio.TimeoutError, TimeoutError)  # one and the same from Python 3.11 on


class Caller:
    """Calls an engine and notes how each call ended."""

    def __init__(self, engine: SelfHealingEngine, tally: Tally, text: str = "Hi") -> None:
        self._engine: Any = engine
        self._tally = tally
        self._text = text

    def block(self, chance: random.Random) -> None:
        """One call by this thread."""
        sleeper = naps.lie_down(chance)
        try:
            self._tally.answered(self._engine.call_sync(**self._asked(chance)))
        except naps.Interrupted:
            self._given_up(INTERRUPTED, sleeper)
        except Exception as error:
            self._tally.failed(error)
        self._woke(sleeper)

    async def wait(self, chance: random.Random) -> None:
        """One call that is awaited until it ends, or until this task is cancelled."""
        sleeper = naps.lie_down(chance)
        try:
            self._tally.answered(await self._engine.call(**self._asked(chance)))
        except asyncio.CancelledError:
            self._given_up(CANCELLED, sleeper)
            raise
        except Exception as error:
            self._tally.failed(error)
        finally:
            self._woke(sleeper)

    async def cancel(self, chance: random.Random) -> None:
        task = asyncio.ensure_future(self.wait(chance))
        await naps.asleep(chance.uniform(0, 0.1))
        task.cancel()
        await asyncio.wait([task])

    async def cancel_together(self, chance: random.Random) -> None:
        tasks = [asyncio.ensure_future(self.wait(chance)) for _ in range(3)]
        together = asyncio.gather(*tasks)
        await asyncio.wait([together], timeout=chance.uniform(0, 0.1))
        together.cancel()
        await asyncio.wait(tasks)  # all of them: together they are done as soon as one of them is
        if not together.cancelled():
            together.exception()

    async def run_out_of_time(self, chance: random.Random) -> None:
        with contextlib.suppress(*_TIMEOUTS):
            await asyncio.wait_for(self.wait(chance), chance.choice((0, 1e-6, 0.001, 0.05)))

    async def never_start(self, chance: random.Random) -> None:
        task = asyncio.ensure_future(self._engine.call(**self._asked(chance)))
        task.cancel()
        await asyncio.wait([task])
        self._tally.note(NEVER_STARTED)

    async def never_await(self, chance: random.Random) -> None:
        self._engine.call(**self._asked(chance)).close()
        self._tally.note(NEVER_AWAITED)

    async def close_midway(self, chance: random.Random) -> None:
        """One call that is driven by hand up to where it first waits."""
        sleeper = naps.lie_down(chance)
        call = self._engine.call(**self._asked(chance))
        try:
            call.send(None)
        except Exception as error:
            self._tally.failed(error)
        else:
            call.close()
            self._given_up(CLOSED, sleeper)

    @property
    def ways(self) -> list[Way]:
        """The awaited ways to call, the more frequent ones several times."""
        giving_up = [self.cancel, self.cancel_together, self.run_out_of_time]
        closing = [self.never_start, self.never_await]
        return [*[self.wait] * 12, *giving_up, *closing]

    def _asked(self, chance: random.Random) -> dict[str, Any]:
        return asking.call(chance, self._text)

    def _given_up(self, ending: str, sleeper: naps.Sleeper) -> None:
        self._tally.note(UNCOUNTED if sleeper.pausing else ending)

    def _woke(self, sleeper: naps.Sleeper) -> None:
        if sleeper.paused:
            self._tally.note("paused under back-pressure")
