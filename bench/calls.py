"""What a call itself costs: with its execution replaced by a stub, less a call of that stub"""

import asyncio
from collections.abc import Iterator
from functools import partial
from typing import Any

from measuring import row, take_turns
from opentelemetry.sdk.metrics import MeterProvider
from opentelemetry.sdk.metrics.export import InMemoryMetricReader
from opentelemetry.sdk.trace import TracerProvider
from table import Row

from support import provider
from tarvomeldric import APIError, CallPolicy, SelfHealingEngine
from tarvomeldric.telemetry import instrument

PROVIDER = "openai"
REQUEST: dict[str, Any] = {"prompt": "What is the capital of France?", "model": "gpt-4o-mini"}
CALLS = 20_000


class StubbedEngine(SelfHealingEngine):
    """Every provider answers at once, but one called "refusing" refuses the key."""

    def _execute_sync(self, cfg: Any, prompt: str, model: str, **options: Any) -> str:
        if cfg.name == "refusing":
            raise APIError("HTTP 401: unauthorized: invalid API key provided", 401)
        return "Paris."

    async def _execute(self, cfg: Any, prompt: str, model: str, **options: Any) -> str:
        return self._execute_sync(cfg, prompt, model)


def measure(quick: bool) -> Iterator[Row]:
    record, loop = provider(name=PROVIDER), asyncio.new_event_loop()
    engine, traced = (StubbedEngine({PROVIDER: provider(name=PROVIDER)}) for _ in range(2))
    instrument(traced, TracerProvider(), MeterProvider([InMemoryMetricReader()]))
    given = {"cfg": record, "api_type": "chat", **REQUEST}
    for name, call, stub, its_loop, target in (
        ("call_sync", engine.call_sync, engine._execute_sync, None, 5.0),
        ("call", engine.call, engine._execute, loop, 8.0),
    ):
        seen = getattr(engine.with_policy(CallPolicy.interactive()), name)
        ways = {"call": partial(call, **REQUEST), "stub": partial(stub, **given)}
        rounds = take_turns(quick, CALLS, its_loop, view=partial(seen, **REQUEST), **ways)
        yield row(rounds, name, target, less="stub")
        yield row(rounds, f"{name}, mean", 15.0, figure="mean", less="stub")
        yield row(rounds, f"{name} through a view, less without", 1.0, of="view", less="call")
    # Apart from the others, which it would drive out of the processor's caches.
    engine.add_provider(provider(name=PROVIDER))  # with all its tokens
    for name, its_loop in {"call_sync": None, "call": loop}.items():
        ways = {"call": engine, "traced": traced}
        calls = {way: partial(getattr(one, name), **REQUEST) for way, one in ways.items()}
        rounds = take_turns(quick, CALLS, its_loop, **calls)
        yield row(rounds, f"{name} with OpenTelemetry, less without", of="traced", less="call")
    loop.close()
