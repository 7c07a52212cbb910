"""Streams that are read to their end, closed, dropped or cancelled."""

import asyncio
import random
from typing import Any

import asking
from endings import Tally
from naps import asleep
from unruly import STREAMS

from tarvomeldric import ProviderConfig, SelfHealingEngine

PROMPTS = [*STREAMS, "Hi", "Hello"]


class Streamer:
    """Reads streams of an engine and notes how each of them ended."""

    def __init__(
        self, engine: SelfHealingEngine, records: list[ProviderConfig], tally: Tally
    ) -> None:
        self._engine: Any = engine
        self._records = records
        self._tally = tally

    async def read(self, chance: random.Random) -> None:
        last: Any = None
        try:
            async for item in self._open(chance):
                last = item
        except asyncio.CancelledError:
            self._tally.note("stream cancelled")
            raise
        except Exception as error:
            self._tally.surprise(f"a stream raised {error!r}")
            return
        self._note_end(last)

    async def cancel(self, chance: random.Random) -> None:
        task = asyncio.ensure_future(self.read(chance))
        await asleep(chance.uniform(0, 0.1))
        task.cancel()
        await asyncio.wait([task])

    async def close(self, chance: random.Random) -> None:
        stream = self._open(chance)
        async for item in stream:
            if "error" in item:
                self._note_end(item)
                return
            await stream.aclose()
            self._tally.note("stream closed early")
            return

    async def drop(self, chance: random.Random) -> None:
        async for item in self._open(chance):
            if "error" in item:
                self._note_end(item)
                return
            self._tally.note("stream dropped")
            return

    @property
    def ways(self) -> list[Any]:
        return [self.read, self.read, self.cancel, self.close, self.drop]

    def _open(self, chance: random.Random) -> Any:
        record = chance.choice(self._records)
        return self._engine._execute_stream(record, **asking.stream(chance, PROMPTS))

    def _note_end(self, last: Any) -> None:
        if last is None or "error" not in last:
            self._tally.note("streamed to the end")
        elif set(last) != {"error", "recoverable"}:
            self._tally.surprise(f"a stream ended with {last!r}")
        elif last["recoverable"]:
            self._tally.note("stream interrupted")
        else:
            self._tally.note("stream failed")
