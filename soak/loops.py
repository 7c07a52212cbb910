"""Event loops that start, call the engine in every way, and end in every way."""

import asyncio
import random
import threading
from typing import Any

import uvloop
from callers import Caller
from streams import Streamer

_COROUTINES = 12


def live_and_end(
    caller: Caller, streamer: Streamer, chance: random.Random, over: threading.Event
) -> None:
    """One loop after the other."""

    async def use(chance: random.Random, ways: list[Any], until: float) -> None:
        loop = asyncio.get_running_loop()
        while loop.time() < until and not over.is_set():
            await chance.choice(ways)(chance)

    async def main(ways: list[Any]) -> None:
        until = asyncio.get_running_loop().time() + chance.uniform(0.3, 3)
        seeds = [chance.random() for _ in range(_COROUTINES)]
        await asyncio.gather(*(use(random.Random(seed), ways, until) for seed in seeds))

    while not over.is_set():
        end = chance.choice((_closed, asyncio.run, uvloop.run))
        # Streams that were dropped are closed by a loop's proper end.
        end(main(caller.ways if end is _closed else [*caller.ways * 2, *streamer.ways]))


def _closed(work: Any) -> None:
    """What a program does that knows nothing of `asyncio.run`: nothing is shut down."""
    loop = asyncio.new_event_loop()
    loop.run_until_complete(work)
    loop.close()
