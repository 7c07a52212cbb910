"""What is left between two shifts, when nobody calls: it must not become more."""

import sys
import threading
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass, field

import watch

PRIMING = 2  # shifts, in which caches fill
BLOCKS_A_CALL = 0.02  # of Python's memory
BYTES_A_CALL = 2  # of C's and C++'s
_SPARE_OBJECTS = 30  # of a type: guards have a breaker for each category of faults they met
_SPARE_BLOCKS = 3_000
_SPARE_BYTES = 300_000

HELD = {
    "engines": "tarvomeldric._engine.SelfHealingEngine",
    "learners": "tarvomeldric._engine.FlywheelLearner",
    "coroutines": "tarvomeldric._engine._Coroutine",
    "prompts": "asking.Prompt",
    "HTTP clients": "httpx.Client",
    "asynchronous HTTP clients": "httpx.AsyncClient",
    "tasks": "_asyncio.Task",
}
"""What belongs to an engine or a call, and so has no reason to become more."""


@dataclass
class Moment:
    """One of them, after so many calls."""

    calls: int
    descriptors: Counter[str] = field(default_factory=watch.descriptors)
    threads: int = field(default_factory=threading.active_count)
    objects: Counter[str] = field(default_factory=watch.objects)
    blocks: int = field(default_factory=sys.getallocatedblocks)
    allocated: int = field(default_factory=watch.allocated)
    resident: int = field(default_factory=watch.resident)


def complaints(moments: list[Moment]) -> Iterator[str]:
    """What became more from one moment to the next ones."""
    first, last = moments[0], moments[-1]
    if more := last.descriptors - first.descriptors:
        yield f"more open files than after the first shift: {dict(more)}"
    spare = Counter(dict.fromkeys(last.objects.keys() - set(HELD.values()), _SPARE_OBJECTS))
    if more := last.objects - first.objects - spare:
        yield f"more objects than after the first shift: {dict(more)}"
    if last.threads > first.threads:
        names = [thread.name for thread in threading.enumerate()]
        yield f"{last.threads} threads, {first.threads} after the first shift: {names}"
    if len(moments) <= PRIMING:
        return
    first = moments[PRIMING - 1]
    calls = last.calls - first.calls
    blocks, allocated = last.blocks - first.blocks, last.allocated - first.allocated
    if blocks > _SPARE_BLOCKS + BLOCKS_A_CALL * calls:
        yield f"{blocks} more blocks of Python's memory after {calls} calls"
    if allocated > _SPARE_BYTES + BYTES_A_CALL * calls:
        yield f"{allocated} more bytes allocated after {calls} calls"
