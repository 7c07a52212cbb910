"""Engines that are opened and closed all along, a handful of calls each."""

import asyncio
import random
import threading
from typing import Any

from asking import TOO_MANY
from callers import Caller
from endings import Tally
from naps import asleep
from unruly import UnrulyProvider
from weather import revive

from tarvomeldric import Bulkhead, ProviderConfig, RateLimiter, SelfHealingEngine

_CALLS = 14  # more than it takes to get under back-pressure


class Unconnected(SelfHealingEngine):
    """Its calls can be closed midway, or left to the end of their loop.

    The HTTP library's can not: its locks stay taken, and its attempts to connect complain.
    """

    async def _execute(self, *_: Any, **__: Any) -> str:
        await asleep(0.01)
        return '{"x": 1}'


def follow_each_other(
    providers: list[UnrulyProvider], tally: Tally, chance: random.Random, over: threading.Event
) -> None:
    """One engine after the other, each with a tally of its own that has to agree with its counts."""
    lives = (_block, _await, _block_and_await, _crowd, _close_elsewhere, _abandon)
    while not over.is_set():
        own, text = Tally(), chance.choice(("Hi", TOO_MANY))
        records = [_tight(provider, chance) for provider in providers]
        life = chance.choice(lives)
        make = Unconnected if life is _abandon else SelfHealingEngine
        engine = make({record.name: record for record in records})
        life(engine, Caller(engine, own, text), records, chance)
        counted = engine._read_counters()["call_count"]
        if counted != own.calls:
            own.surprise(f"an engine counted {counted} calls, and its callers {own.calls}")
        tally.add(own)


def _tight(provider: UnrulyProvider, chance: random.Random) -> ProviderConfig:
    limiter = RateLimiter(4, refill_rate=chance.choice((5.0, 50.0)), _tokens=4.0)
    return provider.record(rate_limiter=limiter, bulkhead=Bulkhead(chance.choice((1, 2))))


def _block(engine: Any, caller: Caller, records: Any, chance: random.Random) -> None:
    with engine:
        for _ in range(_CALLS):
            caller.block(chance)
            revive(records)


def _await(engine: Any, caller: Caller, records: Any, chance: random.Random) -> None:
    async def main() -> None:
        async with engine:
            for _ in range(_CALLS // 2):
                ways = (caller.wait, caller.wait, caller.cancel, caller.run_out_of_time)
                await asyncio.gather(*(chance.choice(ways)(chance) for _ in range(3)))
                revive(records)

    asyncio.run(main())


def _block_and_await(engine: Any, caller: Caller, records: Any, chance: random.Random) -> None:
    async def main() -> None:
        await asyncio.gather(*(chance.choice(caller.ways)(chance) for _ in range(5)))

    caller.block(chance)
    asyncio.run(main())
    revive(records)
    asyncio.run(main())
    engine.close_sync()


def _abandon(engine: Any, caller: Caller, records: Any, chance: random.Random) -> None:
    async def main() -> None:
        ways = (caller.close_midway, caller.wait, caller.cancel)
        await asyncio.gather(*(chance.choice(ways)(chance) for _ in range(_CALLS)))
        left = [asyncio.ensure_future(caller.wait(chance)) for _ in range(_CALLS)]
        await asleep(chance.uniform(0, 0.02))
        assert len(left) == _CALLS

    asyncio.run(main())
    engine.close_sync()


def _close_elsewhere(engine: Any, caller: Caller, records: Any, chance: random.Random) -> None:
    """Another thread closes the engine while the loop, which has no calls any more, ends."""

    async def main() -> None:
        await asyncio.gather(*(caller.wait(chance) for _ in range(3)))
        over.set()
        await asleep(chance.choice((0, 0.0002, 0.001)))

    def close() -> None:
        over.wait()
        engine.close_sync()

    for _ in range(3):
        over = threading.Event()
        closer = threading.Thread(target=close)
        closer.start()
        asyncio.run(main())
        closer.join()
        revive(records)
    engine.close_sync()


def _crowd(engine: Any, caller: Caller, records: Any, chance: random.Random) -> None:
    def use(seed: float) -> None:
        own = random.Random(seed)
        for _ in range(_CALLS // 4):
            caller.block(own)

    threads = [threading.Thread(target=use, args=(chance.random(),)) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    engine.close_sync()
