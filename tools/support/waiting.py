"""Waits for what another thread, process or event loop does."""

from __future__ import annotations

import asyncio
import time
from collections.abc import Callable
from itertools import pairwise
from typing import Any


def until(condition: Callable[[], bool], patience: float = 10.0) -> None:
    """Waits for it to come true; TimeoutError when that takes longer than the patience."""
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {patience:g} s")
        time.sleep(0.005)


async def worst_pause(work: Any) -> float:
    """The longest that an event loop ever stood still while this work went on, in seconds."""
    task, tick, ticks = asyncio.ensure_future(work), 0.001, [time.perf_counter()]
    while not task.done():
        await asyncio.sleep(tick)
        ticks.append(time.perf_counter())
    await task
    return max(b - a for a, b in pairwise(ticks)) - tick
