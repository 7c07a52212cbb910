"""The longest wait of a 1 ms ticker on the event loop while healed calls tell a Redis of them"""

import asyncio
import os
from collections.abc import Iterator
from unittest import mock

from calls import PROVIDER, REQUEST, StubbedEngine
from measuring import rounds_of
from table import Row

from support import RedisServer, provider, tireless, worst_pause

SECONDS = 2.0  # a round of each
MOST = 5.0  # ms more than the bare ticker


def measure(quick: bool) -> Iterator[Row]:
    with RedisServer() as server, mock.patch.dict(os.environ, TARVOMELDRIC_REDIS_URL=server.url):
        refusing, answering = tireless(name="refusing"), provider(name="answering")
        engine = StubbedEngine({PROVIDER: refusing, "answering": answering})
        assert engine._learner.get_stats()["sync_mode"] == "redis"

        async def heal() -> None:
            end = asyncio.get_running_loop().time() + SECONDS
            while asyncio.get_running_loop().time() < end:
                assert (await engine.call(**REQUEST)).heal_level == "l3_failover"

        async def longest_wait(workers: int) -> float:
            work = asyncio.gather(asyncio.sleep(SECONDS), *(heal() for _ in range(workers)))
            return await worst_pause(work) * 1e3

        def healing(stalled: bool) -> float:
            server.pause() if stalled else server.resume()
            return asyncio.run(longest_wait(4))

        rounds = [
            (asyncio.run(longest_wait(0)), healing(stalled=False), healing(stalled=True))
            for _ in rounds_of(quick)
        ]
    bare, healthy, stalled = zip(*rounds, strict=True)
    yield Row("bare ticker", bare, "ms")
    for name, waits in ("healthy", healthy), ("stalled", stalled):
        more = [wait - alone for wait, alone in zip(waits, bare, strict=True)]
        yield Row(f"{name} Redis", waits, "ms")
        yield Row(f"{name} Redis, more than bare", more, "ms", target=MOST)
