"""What the engine's tests share: providers that are wide open, and interpreters of their own."""

from __future__ import annotations

import asyncio
import os
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from operator import sub
from typing import Any
from unittest import mock

from tarvomeldric import Bulkhead, CircuitBreaker, ProviderConfig, RateLimiter, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator

KEY = "sk-0123456789abcdef"
NOWHERE = "http://127.0.0.1:9/v1"  # the discard port: nobody listens
_MANY = 1_000_000


def provider(base_url: str = NOWHERE, name: str = "mine", slots: int = 10, **more: Any) -> Any:
    """A provider without a limit on its rate, so that only its slots matter."""
    fields: dict[str, Any] = {
        "rate_limiter": RateLimiter(max_tokens=_MANY, refill_rate=1000.0, _tokens=_MANY),
        "bulkhead": Bulkhead(max_concurrent=slots),
        **more,
    }
    return ProviderConfig(name, base_url, fields.pop("api_key", KEY), **fields)


def tireless(**fields: Any) -> Any:
    """A provider that no failure puts out of use."""
    breaker = CircuitBreaker(failure_threshold=_MANY, error_rate_threshold=2.0)
    return provider(circuit_breaker=breaker, **fields)


def engine_with(*records: Any) -> SelfHealingEngine:
    engine = SelfHealingEngine({})
    for record in records or (provider(),):
        engine.add_provider(record)
    return engine


def engine_on(simulator: ProviderSimulator, **fields: Any) -> SelfHealingEngine:
    return engine_with(provider(simulator.base_url, **fields))


def state_of(record: Any) -> tuple[int, int, int]:
    """Free permits, waiters in line and attempts in flight."""
    semaphore = record.bulkhead._semaphore
    return semaphore._permits, semaphore._waiting, record.bulkhead.to_dict()["active"]


@contextmanager
def providers_at(base_url: str) -> Iterator[None]:
    """Every request goes to this simulator, whatever provider it is meant for; "Host" still tells."""
    import httpx

    port = httpx.URL(base_url).port
    blocking = httpx.HTTPTransport.handle_request
    awaited = httpx.AsyncHTTPTransport.handle_async_request

    def moved(request: httpx.Request) -> httpx.Request:
        request.url = request.url.copy_with(scheme="http", host="127.0.0.1", port=port)
        return request

    with (
        mock.patch.object(
            httpx.HTTPTransport, "handle_request", lambda way, it: blocking(way, moved(it))
        ),
        mock.patch.object(
            httpx.AsyncHTTPTransport,
            "handle_async_request",
            lambda way, it: awaited(way, moved(it)),
        ),
    ):
        yield


def drive(coroutine: Any) -> Any:
    """Runs a coroutine whose every wait is over at once, without an event loop around it."""
    try:
        while True:
            coroutine.send(None)
    except StopIteration as done:
        return done.value


def until(condition: Callable[[], bool], patience: float = 10.0) -> None:
    deadline = time.monotonic() + patience
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.005)


async def worst_pause(work: Any) -> float:
    """The longest that an event loop ever stood still while this work went on, in seconds."""
    task, ticks = asyncio.ensure_future(work), [time.perf_counter()]
    while not task.done():
        await asyncio.sleep(0.001)
        ticks.append(time.perf_counter())
    await task
    return max(map(sub, ticks[1:], ticks))


def start_child(code: str, *arguments: str, strict: bool = True) -> subprocess.Popen[str]:
    """A program in an interpreter of its own; a strict one fails on every warning."""
    options = ["-X", "dev", "-W", "error"] if strict else []
    return subprocess.Popen(
        [sys.executable, *options, "-c", code, *arguments],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
    )


def run_child(code: str, *arguments: str, strict: bool = True) -> str:
    """What the program printed; it must end well and complain about nothing."""
    child = start_child(code, *arguments, strict=strict)
    try:
        out, err = child.communicate(timeout=60)
    finally:
        child.kill()
    assert child.returncode == 0, (child.returncode, err)
    assert err == "", err
    return out.strip()
