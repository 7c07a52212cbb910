"""Streams that are read to their end, closed, dropped or cancelled."""

import asyncio
import random
from collections.abc import AsyncGenerator
from typing import Any

import arguments
from callers import Way
from outcomes import Tally
from sleeps import asleep

from tarvomeldric import ProviderConfig, SelfHealingEngine


class StreamReader:
    """Reads streams of an engine and notes the outcome of each."""

    def __init__(
        self, engine: SelfHealingEngine, records: list[ProviderConfig], tally: Tally
    ) -> None:
        self._engine: Any = engine
        self._records = records
        self._tally = tally

    async def read(self, chance: random.Random) -> None:
        last: Any = {}
        try:
            async for item in self._open(chance):
                last = item
        except asyncio.CancelledError:
            self._tally.note("stream cancelled")
            raise
        except Exception as error:
            self._tally.note_unexpected(f"a stream raised {error!r}")
        else:
            self._note_end(last)

    async def cancel(self, chance: random.Random) -> None:
        task = asyncio.ensure_future(self.read(chance))
        await asleep(chance.uniform(0, 0.1))
        task.cancel()
        await asyncio.wait([task])

    async def close(self, chance: random.Random) -> None:
        stream = self._open(chance)
        if await self._has_begun(stream):
            await stream.aclose()
            self._tally.note("stream closed early")

    async def drop(self, chance: random.Random) -> None:
        if await self._has_begun(self._open(chance)):
            self._tally.note("stream dropped")

    @property
    def ways(self) -> list[Way]:
        return [self.read, self.read, self.cancel, self.close, self.drop]

    def _open(self, chance: random.Random) -> AsyncGenerator[dict[str, Any], None]:
        record = chance.choice(self._records)
        stream: AsyncGenerator[dict[str, Any], None]
        stream = self._engine._execute_stream(record, **arguments.of_stream(chance))
        return stream

    async def _has_begun(self, stream: AsyncGenerator[dict[str, Any], None]) -> bool:
        async for item in stream:
            if "error" not in item:
                return True
            self._note_end(item)
        return False

    def _note_end(self, last: dict[str, Any]) -> None:
        if "error" not in last:
            self._tally.note("streamed to the end")
        elif set(last) != {"error", "recoverable"}:
            self._tally.note_unexpected(f"a stream ended with {last!r}")
        else:
            self._tally.note("stream interrupted" if last["recoverable"] else "stream failed")
