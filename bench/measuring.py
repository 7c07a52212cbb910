"""Timing: samples of calls, taken in rounds in which rivals take turns."""

from asyncio import AbstractEventLoop as Loop
from collections.abc import Callable
from statistics import fmean, median
from time import perf_counter_ns
from typing import Any

from table import Row

Call = Callable[[], Any]
Rounds = list[dict[str, dict[str, float]]]
"""The p50, p95 and mean of each rival in each round, in microseconds."""

_BLOCKS = 20  # a round


def rounds_of(quick: bool) -> range:
    return range(3 if quick else 9)


def take_turns(quick: bool, calls: int, loop: Loop | None = None, **rivals: Call) -> Rounds:
    """Samples the rivals block by block, so that what slows the machine down slows all of them.

    With a loop they are awaited; a block is then one run of the loop. A first block, in which
    caches fill and connections are made, does not count.
    """
    size = max(1, calls // _BLOCKS // (10 if quick else 1))
    rounds: Rounds = []
    for blocks in (1, *[_BLOCKS for _ in rounds_of(quick)]):
        taken: dict[str, list[int]] = {name: [] for name in rivals}
        for name, call in list(rivals.items()) * blocks:
            block = loop.run_until_complete(_await(call, size)) if loop else _call(call, size)
            taken[name] += block
        rounds.append({name: _figures(sorted(samples)) for name, samples in taken.items()})
    return rounds[1:]


def row(rounds: Rounds, what: str, target: float | None = None, **to: str) -> Row:
    """The row of the rival `call`, or `of` another: `less` what a third takes, as a ratio to `beside`."""
    of, figure = to.get("of", "call"), to.get("figure", "p50")
    less, beside = to.get("less"), to.get("beside", "")
    own = [one[of][figure] - (one[less][figure] if less else 0.0) for one in rounds]
    p95 = median(one[of]["p95"] - (one[less]["p50"] if less else 0.0) for one in rounds)
    ratio = median(one[of][figure] / one[beside][figure] for one in rounds) if beside else None
    return Row(what, own, "us", p95 if figure == "p50" else None, target, ratio, beside)


def _call(call: Call, count: int) -> list[int]:
    taken = []
    for _ in range(count):
        start = perf_counter_ns()
        call()
        taken.append(perf_counter_ns() - start)
    return taken


async def _await(call: Call, count: int) -> list[int]:
    taken = []
    for _ in range(count):
        start = perf_counter_ns()
        await call()
        taken.append(perf_counter_ns() - start)
    return taken


def _figures(ordered: list[int]) -> dict[str, float]:
    clock = median(-(perf_counter_ns() - perf_counter_ns()) for _ in range(1_000))
    p95 = ordered[len(ordered) * 19 // 20]
    values = {"p50": median(ordered), "p95": p95, "mean": fmean(ordered)}
    return {name: (value - clock) / 1000 for name, value in values.items()}
