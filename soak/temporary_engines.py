"""Engines that are made, called a handful of times and closed, one after the other."""

import asyncio
import random
import threading
from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from typing import Any

from callers import Caller
from interventions import revive
from outcomes import Tally
from providers import RATE_LIMITED, SimulatedProvider
from sleeps import asleep

from support import engine_with
from tarvomeldric import Bulkhead, ProviderConfig, RateLimiter

_CALLS = 14  # more than it takes to get under back-pressure
Records = Sequence[ProviderConfig]


def use_in_turn(
    providers: Sequence[SimulatedProvider],
    tally: Tally,
    chance: random.Random,
    over: threading.Event,
) -> None:
    """Each has a tally of its own, which has to agree with its count."""
    uses = (_block, _await, _block_and_await, _block_in_threads, _close_in_thread, _abandon)
    while not over.is_set():
        own, text = Tally(), chance.choice(("Hi", RATE_LIMITED))
        records = [_narrow(provider, chance) for provider in providers]
        use, engine = chance.choice(uses), engine_with(*records)
        if use is _abandon:
            engine._execute = _answer  # type: ignore[method-assign]
        use(engine, Caller(engine, own, text), records, chance)
        engine.close_sync()
        counted = engine._read_counters()["call_count"]
        if counted != own.calls:
            own.note_unexpected(f"an engine counted {counted} calls, and its callers {own.calls}")
        tally.add(own)


async def _answer(*_: Any, **__: Any) -> str:
    """An execution that can be closed midway, or left to the end of its loop.

    The HTTP library's can not: its locks stay taken, and its attempts to connect complain.
    """
    await asleep(0.01)
    return '{"x": 1}'


def _narrow(provider: SimulatedProvider, chance: random.Random) -> Any:
    limiter = RateLimiter(4, refill_rate=chance.choice((5.0, 50.0)), _tokens=4.0)
    return provider.record(rate_limiter=limiter, bulkhead=Bulkhead(chance.choice((1, 2))))


def _block(engine: Any, caller: Caller, records: Records, chance: random.Random) -> None:
    with engine:
        for _ in range(_CALLS):
            caller.call_sync(chance)
            revive(records)


def _await(engine: Any, caller: Caller, records: Records, chance: random.Random) -> None:
    async def main() -> None:
        async with engine:
            for _ in range(_CALLS // 2):
                ways = (caller.call, caller.call, caller.cancel, caller.time_out)
                await asyncio.gather(*(chance.choice(ways)(chance) for _ in range(3)))
                revive(records)

    asyncio.run(main())


def _block_and_await(engine: Any, caller: Caller, records: Records, chance: random.Random) -> None:
    async def main() -> None:
        await asyncio.gather(*(chance.choice(caller.ways)(chance) for _ in range(5)))

    caller.call_sync(chance)
    asyncio.run(main())
    revive(records)
    asyncio.run(main())


def _block_in_threads(engine: Any, caller: Caller, records: Records, chance: random.Random) -> None:
    def call(seed: float) -> None:
        own = random.Random(seed)
        for _ in range(_CALLS // 4):
            caller.call_sync(own)

    with ThreadPoolExecutor(4) as threads:
        list(threads.map(call, [chance.random() for _ in range(4)]))


def _close_in_thread(engine: Any, caller: Caller, records: Records, chance: random.Random) -> None:
    """Another thread closes the engine while the loop, which has no calls any more, ends."""

    async def main() -> None:
        await asyncio.gather(*(caller.call(chance) for _ in range(3)))
        answered.set()
        await asleep(chance.choice((0, 0.0002, 0.001)))

    def close() -> None:
        answered.wait()
        engine.close_sync()

    for _ in range(3):
        answered = threading.Event()
        closer = threading.Thread(target=close)
        closer.start()
        asyncio.run(main())
        closer.join()
        revive(records)


def _abandon(engine: Any, caller: Caller, records: Records, chance: random.Random) -> None:
    """Calls are closed midway, or left to the end of their loop."""

    async def main() -> None:
        ways = (caller.close_midway, caller.call, caller.cancel)
        await asyncio.gather(*(chance.choice(ways)(chance) for _ in range(_CALLS)))
        left = [asyncio.ensure_future(caller.call(chance)) for _ in range(_CALLS)]
        await asleep(chance.uniform(0, 0.02))
        assert len(left) == _CALLS

    asyncio.run(main())
