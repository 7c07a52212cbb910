"""Calls over loopback HTTP, beside the bare client's exchanges of the same request"""

import asyncio
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from functools import partial
from statistics import median
from time import perf_counter
from typing import Any

import httpx
from calls import PROVIDER, REQUEST
from measuring import Call, rounds_of, row, take_turns
from table import Row

from support import engine_on
from tarvomeldric import APIError
from tarvomeldric.simulator import ProviderSimulator

Pair = dict[str, Call]
FAILURES = (APIError, RuntimeError, httpx.TransportError)
CALLS = 512  # a round, of all workers together


def measure(quick: bool) -> Iterator[Row]:
    loop = asyncio.new_event_loop()
    with rivals(loop) as (blocking, awaited):
        for name, pair, its_loop, most in (
            ("call_sync", blocking, None, 20.0),
            ("call", awaited, loop, None),
        ):
            rounds = take_turns(quick, CALLS, its_loop, **pair)
            yield row(rounds, name, beside="bare")
            yield row(rounds, f"{name}, more than bare", most, less="bare")
        for workers in (1, 8, 64):
            yield race(f"call_sync, {workers} threads", partial(threads, workers), blocking, quick)
        for workers in (1, 64, 512):
            run = partial(coroutines, loop, workers)
            yield race(f"call, {workers} coroutines", run, awaited, quick)
    loop.close()


@contextmanager
def rivals(loop: asyncio.AbstractEventLoop) -> Iterator[tuple[Pair, Pair]]:
    """`call` and `bare`, blocking and, on the loop, awaited.

    The bare clients are made as the engine's own are, and send what the engine was seen to send.
    """
    with ProviderSimulator(process=True) as provider:
        engine = engine_on(provider, name=PROVIDER, slots=CALLS)
        engine.call_sync(**REQUEST)
        seen = provider.requests[0]
        url = provider.base_url.removesuffix("/v1") + seen.path
        plain = httpx.Client().build_request("POST", url, json=seen.body).headers
        headers = {name: value for name, value in seen.headers if plain.get(name) != value}
        post: dict[str, Any] = {"url": url, "json": seen.body, "headers": headers, "timeout": 8.0}
        client = engine._get_sync_client("bare")
        awaited_client = loop.run_until_complete(engine._get_session("bare"))

        def bare() -> object:
            return client.post(**post).json()

        async def bare_awaited() -> object:
            return (await awaited_client.post(**post)).json()

        blocking = {"call": partial(engine.call_sync, **REQUEST), "bare": bare}
        yield blocking, {"call": partial(engine.call, **REQUEST), "bare": bare_awaited}
        loop.run_until_complete(engine.close())


def race(what: str, run: Callable[[Call], int], pair: Pair, quick: bool) -> Row:
    """Calls a second; `run` makes them and returns how many of them failed."""
    failed = dict.fromkeys(pair, 0)

    def rate(name: str) -> float:
        start = perf_counter()
        failed[name] += run(pair[name])
        return CALLS / (perf_counter() - start)

    rates = [(rate("call"), rate("bare")) for _ in (None, *rounds_of(quick))][1:]
    ratio = median(own / bare for own, bare in rates)
    what += f", failed {failed['call']}, bare {failed['bare']}" if any(failed.values()) else ""
    return Row(what, [own for own, _ in rates], "calls/s", ratio=ratio, beside="bare")


def threads(workers: int, call: Call) -> int:
    def work(_: int) -> int:
        failed = 0
        for _ in range(CALLS // workers):
            try:
                call()
            except FAILURES:
                failed += 1
        return failed

    with ThreadPoolExecutor(workers) as pool:
        return sum(pool.map(work, range(workers)))


def coroutines(loop: asyncio.AbstractEventLoop, workers: int, call: Call) -> int:
    async def work() -> int:
        failed = 0
        for _ in range(CALLS // workers):
            try:
                await call()
            except FAILURES:
                failed += 1
        return failed

    async def work_together() -> int:
        return sum(await asyncio.gather(*(work() for _ in range(workers))))

    return loop.run_until_complete(work_together())
