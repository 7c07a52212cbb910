"""Streams that heal, blocking and awaited: read to their end, left early, dropped or cancelled."""

import asyncio
import random
from collections.abc import Callable, Coroutine
from contextlib import aclosing, closing
from typing import Any

import arguments
from callers import Way
from calls import Call, begun
from outcomes import Tally
from providers import ANSWERS, STREAMS
from sleeps import asleep

from tarvomeldric import SelfHealingEngine, StreamInterrupted

_Opened = tuple[Call, Any] | None


class HealedStreamReader:
    """Reads streams of an engine and of its views. What is read is exact, or told to be cut."""

    def __init__(self, engine: SelfHealingEngine, tally: Tally) -> None:
        self._engine = engine
        self._tally = tally

    def read_sync(self, chance: random.Random) -> None:
        if opened := self._open_sync(chance):
            call, stream = opened
            words: list[str] = []
            try:
                with closing(stream):
                    words.extend(stream.text)
            except Exception as error:
                self._broken(call, "".join(words), error)
            else:
                self._whole(call, "".join(words), stream.result)

    def leave_sync(self, chance: random.Random) -> None:
        if opened := self._open_sync(chance):
            with closing(opened[1]) as stream:
                next(stream)
            self._tally.note("healed stream left early")

    def drop_sync(self, chance: random.Random) -> None:
        if self._open_sync(chance):
            self._tally.note("healed stream dropped")

    async def read(self, chance: random.Random) -> None:
        if opened := await self._open(chance):
            await self._read_on(*opened)

    async def cancel(self, chance: random.Random) -> None:
        await _cancel_after(chance.uniform(0, 0.1), self.read(chance))

    async def cancel_reading(self, chance: random.Random) -> None:
        if opened := await self._open(chance):
            await _cancel_after(chance.uniform(0, 0.01), self._read_on(*opened))

    async def leave(self, chance: random.Random) -> None:
        if opened := await self._open(chance):
            async with aclosing(opened[1]) as stream:
                await anext(stream)
            self._tally.note("healed stream left early")

    async def drop(self, chance: random.Random) -> None:
        if await self._open(chance):
            self._tally.note("healed stream dropped")

    @property
    def blocking_ways(self) -> list[Callable[[random.Random], None]]:
        return [self.read_sync, self.read_sync, self.leave_sync, self.drop_sync]

    @property
    def ways(self) -> list[Way]:
        return [self.read, self.read, self.cancel, self.cancel_reading, self.leave, self.drop]

    def _open_sync(self, chance: random.Random) -> _Opened:
        asked = arguments.of_healed_stream(chance)
        with begun(self._engine, self._tally, chance, asked) as call:
            stream = call.engine.stream_sync(**asked).__enter__()
            call.answered(stream._result)
            return call, stream
        return None

    async def _open(self, chance: random.Random) -> _Opened:
        asked = arguments.of_healed_stream(chance)
        with begun(self._engine, self._tally, chance, asked) as call:
            stream = await call.engine.stream(**asked).__aenter__()
            call.answered(stream._result)
            return call, stream
        return None

    async def _read_on(self, call: Call, stream: Any) -> None:
        words: list[str] = []
        try:
            async with aclosing(stream):
                async for word in stream.text:
                    words.append(word)
        except asyncio.CancelledError:
            self._tally.note("healed stream cancelled")
            raise
        except Exception as error:
            self._broken(call, "".join(words), error)
        else:
            self._whole(call, "".join(words), stream.result)

    def _whole(self, call: Call, text: str, result: Any) -> None:
        self._tally.note("healed stream read whole")
        call.over_after(call.arguments["total_timeout"])
        if text not in _answers(call) or text != (result.text or ""):
            self._tally.note_unexpected(f"{call.arguments['prompt']!r} gave {text!r}: {result!r}")

    def _broken(self, call: Call, text: str, error: Exception) -> None:
        self._tally.note("healed stream interrupted")
        call.over_after(call.arguments["total_timeout"])
        prefix = any(answer.startswith(text) for answer in _answers(call))
        if type(error) is not StreamInterrupted or error.text != text or not prefix:
            self._tally.note_unexpected(f"{call.arguments['prompt']!r} gave {text!r}: {error!r}")


async def _cancel_after(seconds: float, work: Coroutine[Any, Any, None]) -> None:
    task = asyncio.ensure_future(work)
    await asleep(seconds)
    task.cancel()
    await asyncio.wait([task])


def _answers(call: Call) -> list[str]:
    """All that a provider can say to it."""
    reply = STREAMS.get(call.arguments["prompt"])
    if reply is None:
        return ANSWERS
    return ["".join(item for item in reply.stream or () if isinstance(item, str))]
