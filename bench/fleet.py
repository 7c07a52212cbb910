"""The longest wait of a 1 ms ticker on the event loop while healed calls tell a Redis of them"""

import asyncio
import os
import signal
import socket
import subprocess
from collections.abc import AsyncIterator, Callable, Coroutine, Iterator
from contextlib import asynccontextmanager, contextmanager
from time import perf_counter
from typing import Any
from unittest import mock

import redis
from calls import PROVIDER, REQUEST, StubbedEngine, wide_open
from measuring import rounds_of
from redis.backoff import ConstantBackoff
from redis.retry import Retry
from table import Row

from tarvomeldric import CircuitBreaker

SECONDS = 2.0  # a round of each
MOST = 5.0  # ms more than the bare ticker


def measure(quick: bool) -> Iterator[Row]:
    with redis_server() as (server, url), mock.patch.dict(os.environ, TARVOMELDRIC_REDIS_URL=url):
        refusing, answering = wide_open("refusing"), wide_open("answering")
        engine = StubbedEngine({PROVIDER: refusing, "answering": answering})
        assert engine._learner.get_stats()["sync_mode"] == "redis"

        async def heal() -> None:
            while True:
                refusing.circuit_breaker = CircuitBreaker()  # so that it is asked each time
                assert (await engine.call(**REQUEST)).heal_level == "l3_failover"

        def worst(stalled: bool) -> float:
            server.send_signal(signal.SIGSTOP if stalled else signal.SIGCONT)
            return asyncio.run(longest_wait(heal))

        rounds = [
            (asyncio.run(longest_wait(None)), worst(stalled=False), worst(stalled=True))
            for _ in rounds_of(quick)
        ]
        server.send_signal(signal.SIGCONT)
    bare, healthy, stalled = zip(*rounds, strict=True)
    yield Row("bare ticker", bare, "ms")
    for name, waits in ("healthy", healthy), ("stalled", stalled):
        more = [wait - alone for wait, alone in zip(waits, bare, strict=True)]
        yield Row(f"{name} Redis", waits, "ms")
        yield Row(f"{name} Redis, more than bare", more, "ms", target=MOST)


async def longest_wait(work: Callable[[], Coroutine[Any, Any, None]] | None) -> float:
    """Milliseconds by which the ticker was late at worst, with four coroutines at work beside it."""
    async with working(work):
        worst, end = 0.0, perf_counter() + SECONDS
        while (start := perf_counter()) < end:
            await asyncio.sleep(0.001)
            worst = max(worst, perf_counter() - start - 0.001)
    return worst * 1e3


@asynccontextmanager
async def working(work: Callable[[], Coroutine[Any, Any, None]] | None) -> AsyncIterator[None]:
    tasks = [asyncio.ensure_future(work()) for _ in range(4)] if work else []
    yield
    for task in tasks:
        task.cancel()
    ended = await asyncio.gather(*tasks, return_exceptions=True)
    assert all(isinstance(one, asyncio.CancelledError) for one in ended), ended


@contextmanager
def redis_server() -> Iterator[tuple[subprocess.Popen[bytes], str]]:
    """One without persistence on a free loopback port, in a process of its own."""
    with socket.create_server(("127.0.0.1", 0)) as free:
        port = str(free.getsockname()[1])
    command = ["redis-server", "--port", port, "--bind", "127.0.0.1", "--save", ""]
    with subprocess.Popen(command, stdout=subprocess.DEVNULL) as server:
        url = f"redis://127.0.0.1:{port}"
        with redis.Redis.from_url(url, retry=Retry(ConstantBackoff(0.05), 100)) as client:
            client.ping()  # it may still be starting
        yield server, url
        server.kill()
