"""``serve``: a bad day without end, and the live page to watch it on."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import signal
import time
from collections.abc import Iterator
from typing import Any

from tarvomeldric import ProviderConfig, SelfHealingEngine, serve_dashboard
from tarvomeldric.simulator import ProviderSimulator, rehearsal

from .terminal import progress
from .visitors import PROVIDERS, VISITORS, visit

_ENDS = (signal.SIGINT, signal.SIGTERM)


def main(options: argparse.Namespace) -> int:
    """Serve until Ctrl-C, a request to terminate, or for the given seconds; all are good ends."""
    with rehearsal(), _simulated_engine() as engine:
        server = serve_dashboard(engine, options.host, options.port, live=True)
        print(end="", flush=True)  # whoever reads the addresses from a pipe wants them now
        handlers = {number: signal.getsignal(number) for number in _ENDS}
        try:
            asyncio.run(_live(engine, options.seconds))
        finally:
            for number, handler in handlers.items():  # the loop has left none behind
                signal.signal(number, handler)
            server.shutdown()
            server.server_close()
        progress("")
        print(f"  {_summary(engine)}")
    return 0


@contextlib.contextmanager
def _simulated_engine() -> Iterator[SelfHealingEngine]:
    """An engine whose providers are simulators, each in a process of its own."""
    with contextlib.ExitStack() as stack:
        engine = stack.enter_context(SelfHealingEngine({}))
        for name, behaviour in PROVIDERS.items():
            simulator = ProviderSimulator(process=True, keep=0, **behaviour)
            url = stack.enter_context(simulator).base_url
            engine.add_provider(ProviderConfig(name, url, "rehearsed-key"))
        yield engine


async def _live(engine: SelfHealingEngine, seconds: float | None) -> None:
    loop, ended = asyncio.get_running_loop(), asyncio.Event()
    for number in _ENDS:
        loop.add_signal_handler(number, ended.set)
    tasks = [asyncio.create_task(visit(engine, number)) for number in range(VISITORS)]
    tasks.append(asyncio.create_task(_report(engine)))
    with contextlib.suppress(asyncio.TimeoutError):
        await asyncio.wait_for(ended.wait(), seconds)
    for task in tasks:
        task.cancel()
    await asyncio.gather(*tasks, return_exceptions=True)
    await engine.close()


async def _report(engine: SelfHealingEngine) -> None:
    started = time.monotonic()
    while True:
        passed = time.monotonic() - started
        progress(f"  {passed:.0f} s: {_summary(engine)}; Ctrl-C ends it")
        await asyncio.sleep(1.0)


def _summary(engine: SelfHealingEngine) -> str:
    counted: dict[str, Any] = engine._read_counters()
    up = len(engine.get_available_providers())
    return (
        f"{counted['call_count']} calls, {counted['heal_count']} healed, {up} providers available"
    )
