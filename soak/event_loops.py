"""Event loops that start, call the engine in every way, and end in every way."""

import asyncio
import random
import threading
from collections.abc import Coroutine
from typing import Any

import uvloop
from callers import Caller, Way
from healed_streams import HealedStreamReader
from streams import StreamReader

_COROUTINES = 12


def run_and_end(
    caller: Caller,
    readers: list[StreamReader | HealedStreamReader],
    chance: random.Random,
    over: threading.Event,
) -> None:
    """One loop after the other."""

    async def use(chance: random.Random, ways: list[Way], until: float) -> None:
        loop = asyncio.get_running_loop()
        while loop.time() < until and not over.is_set():
            await chance.choice(ways)(chance)

    async def main(ways: list[Way]) -> None:
        until = asyncio.get_running_loop().time() + chance.uniform(0.3, 3)
        seeds = [chance.random() for _ in range(_COROUTINES)]
        await asyncio.gather(*(use(random.Random(seed), ways, until) for seed in seeds))

    streaming = [way for reader in readers for way in reader.ways]
    while not over.is_set():
        run = chance.choice((_run_and_close, asyncio.run, uvloop.run))
        # Streams that were dropped are closed by a loop's proper end.
        run(main(caller.ways if run is _run_and_close else [*caller.ways * 2, *streaming]))


def _run_and_close(work: Coroutine[Any, Any, None]) -> None:
    """What a program does that knows nothing of `asyncio.run`: nothing is shut down."""
    loop = asyncio.new_event_loop()
    loop.run_until_complete(work)
    loop.close()
