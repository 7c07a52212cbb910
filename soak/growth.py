"""What the process holds when nobody calls: it must not become more over time."""

import gc
import os
import sys
import threading
from collections import Counter
from collections.abc import Iterator
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

from support import allocated, give_back_free, resident, until

_LEAST_WARM_UP = 2  # rounds
_WARM_UP = 1 / 6  # of the rounds: ten minutes of an hour
_BLOCKS_A_CALL = 0.02  # of Python's memory
_BYTES_A_CALL = 2  # of C's and C++'s
_SPARE_OBJECTS = 30  # of a type: guards have a breaker for each category of faults they met
_SPARE_BLOCKS = 3_000
_SPARE_BYTES = 600_000  # kept of every function that ran, and of what was learned
_SPARE_RESIDENT = 6 << 20  # a round with more calls than before has more alive at a time
_PATIENCE = 20.0  # seconds
_OWN = {"tarvomeldric", "arguments", "httpx", "httpcore", "redis", "asyncio", "_asyncio", "uvloop"}

HELD = {
    "engines": "tarvomeldric._engine.SelfHealingEngine",
    "learners": "tarvomeldric._engine.FlywheelLearner",
    "views": "tarvomeldric._engine.EngineView",
    "streams": "tarvomeldric._streams.Stream",
    "blocking streams": "tarvomeldric._streams.SyncStream",
    "coroutines": "tarvomeldric._engine._Coroutine",
    "prompts": "arguments.Prompt",
    "HTTP clients": "httpx.Client",
    "asynchronous HTTP clients": "httpx.AsyncClient",
    "tasks": "_asyncio.Task",
}
"""What belongs to an engine or a call, and so has no reason to become more."""


def _descriptors() -> Counter[str]:
    """The open files by kind."""
    kinds: Counter[str] = Counter()
    for link in Path("/proc/self/fd").iterdir():
        with suppress(OSError):  # the one that lists the folder
            kinds[os.readlink(link).partition(":")[0]] += 1
    return kinds


def _objects() -> Counter[str]:
    """The objects by type that the garbage collector knows, of those types that matter here."""
    types = Counter(map(type, gc.get_objects()))
    own = (kind for kind in types if str(kind.__module__).partition(".")[0] in _OWN)
    return Counter({f"{kind.__module__}.{kind.__qualname__}": types[kind] for kind in own})


@dataclass
class Snapshot:
    """What is held after so many calls."""

    calls: int
    descriptors: Counter[str] = field(default_factory=_descriptors)
    threads: int = field(default_factory=threading.active_count)
    resident: int = field(default_factory=resident)  # before the objects take room to be counted
    objects: Counter[str] = field(default_factory=_objects)
    blocks: int = field(default_factory=sys.getallocatedblocks)
    allocated: int = field(default_factory=allocated)


def warm_up(rounds: int) -> int:
    """The first of so many rounds, in which caches fill."""
    return max(_LEAST_WARM_UP, round(_WARM_UP * rounds))


def settle(threads: int) -> None:
    """Waits for threads that are on their way out, and collects what nobody holds."""
    for _ in range(3):
        gc.collect()
    with suppress(TimeoutError):  # the snapshot will show it
        until(lambda: threading.active_count() <= threads, _PATIENCE)
    gc.collect()
    give_back_free()


def increases(snapshots: list[Snapshot]) -> Iterator[str]:
    """What became more: of things since the first round, of memory since the warm-up."""
    first, last = snapshots[0], snapshots[-1]
    if more := last.descriptors - first.descriptors:
        yield f"more open files than after the first round: {dict(more)}"
    spare = Counter(dict.fromkeys(last.objects.keys() - set(HELD.values()), _SPARE_OBJECTS))
    if more := last.objects - first.objects - spare:
        yield f"more objects than after the first round: {dict(more)}"
    if last.threads > first.threads:
        names = [thread.name for thread in threading.enumerate()]
        yield f"{last.threads} threads, {first.threads} after the first round: {names}"
    if len(snapshots) < 3:  # something was not right before the caches were full
        return
    warm = snapshots[1]
    calls = last.calls - warm.calls
    blocks, allocated = last.blocks - warm.blocks, last.allocated - warm.allocated
    resident = last.resident - warm.resident
    if blocks > _SPARE_BLOCKS + _BLOCKS_A_CALL * calls:
        yield f"{blocks} more blocks of Python's memory after {calls} calls"
    if allocated > _SPARE_BYTES + _BYTES_A_CALL * calls:
        yield f"{allocated} more bytes allocated after {calls} calls"
    if resident > _SPARE_RESIDENT:
        yield f"{resident} more bytes resident after {calls} calls, what was free given back"


def leftovers(start: Snapshot) -> Iterator[str]:
    """What is left when the engine is gone, too."""
    settle(start.threads)
    end = Snapshot(0)
    if end.threads > start.threads:
        yield f"threads left: {threading.enumerate()}"
    if more := end.descriptors - start.descriptors:
        yield f"open files left: {dict(more)}"
    if left := {name: end.objects[kind] for name, kind in HELD.items() if end.objects[kind]}:
        yield f"objects left: {left}"
    if gc.garbage:
        yield f"garbage left: {gc.garbage[:10]}"
