"""What asking a second provider brings: two providers of whose answers 5 % are ten times slower.

The same calls with and without hedging, block by block in one run: blocking, awaited and streamed
until the first output. Beside it what "p95" makes of 3 %: of exactly 5 % it is as often a slow answer
as a usual one.
"""

import argparse
import asyncio
import json
import math
import os
import platform
import random
import sys
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from time import perf_counter
from typing import Any

from tarvomeldric import Bulkhead, CallPolicy, ProviderConfig, RateLimiter, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Reply, rehearsal

LATENCY_S, SPREAD = 0.06, 0.3  # the median of a log-normal distribution, and its sigma
SLOWER = 10
AT_ONCE = 8
BLOCK = 100  # calls
NAMES = ("openai", "groq")
PATIENCE_S = 0.15

Figures = dict[str, float]


def main() -> None:
    parser = argparse.ArgumentParser(description=str(__doc__).partition("\n")[0])
    parser.add_argument("--calls", type=int, default=2000, help="of each kind (default: 2000)")
    options = parser.parse_args()
    print(f"Python {platform.python_version()}, {os.cpu_count()} processors, {AT_ONCE} at once")
    print("\n| | p50 / p95 / p99 ms | with hedging | p99 | requests a call |\n" + "|---" * 5 + "|")
    with rehearsal():
        for share, after in ((0.05, PATIENCE_S), (0.03, "p95")):
            for form, runner in FORMS.items():
                title = f"{form}, {share:.0%} slow, `hedge_after={json.dumps(after)}`"
                print(row(title, *measure(share, after, runner, options.calls)), flush=True)


def row(title: str, without: Figures, with_it: Figures) -> str:
    told = [
        " / ".join(f"{one[key]:.0f}" for key in ("p50", "p95", "p99")) for one in (without, with_it)
    ]
    ratio = with_it["p99"] / without["p99"]
    return f"| {title} | {told[0]} | {told[1]} | {ratio:.2f} | {with_it['requests']:.3f} |"


def measure(share: float, after: Any, run: Any, calls: int) -> tuple[Figures, Figures]:
    """Figures without and with hedging, taken in turns."""
    prompts = [f"Question {number}?" for number in range(calls)]
    taken: tuple[list[float], list[float]] = ([], [])
    requests = [0, 0]
    with providers(prompts, share) as simulators, engine_on(simulators) as engine:
        views = [engine.with_policy(CallPolicy(hedge_after=it)) for it in (None, after)]
        with run(views) as ask:
            for at in range(0, calls, BLOCK):
                for kind, view in enumerate(views):
                    before = sum(it.request_count for it in simulators)
                    taken[kind].extend(ask(view, prompts[at : at + BLOCK]))
                    requests[kind] += sum(it.request_count for it in simulators) - before
    return figures(taken[0], requests[0]), figures(taken[1], requests[1])


def figures(seconds: list[float], requests: int) -> Figures:
    ordered = sorted(seconds)
    shares = {f"p{it}": 1000 * ordered[len(ordered) * it // 100] for it in (50, 95, 99)}
    return {**shares, "requests": requests / len(ordered)}


@contextmanager
def providers(prompts: list[str], share: float) -> Iterator[list[ProviderSimulator]]:
    """How long an answer takes depends on provider and question alone."""
    simulators = []
    for name in NAMES:
        chance = random.Random(f"{name} {share}")
        rules = {}
        for prompt in prompts:
            latency = chance.lognormvariate(math.log(LATENCY_S), SPREAD)
            slower = SLOWER if chance.random() < share else 1
            rules[prompt] = Reply("Yes.", delay=latency * slower)
        simulators.append(ProviderSimulator(rules=rules, process=True, keep=0))
    with simulators[0], simulators[1]:
        yield simulators


@contextmanager
def engine_on(simulators: list[ProviderSimulator]) -> Iterator[SelfHealingEngine]:
    engine = SelfHealingEngine({})
    for name, simulator in zip(NAMES, simulators, strict=True):
        limits = {
            "rate_limiter": RateLimiter(max_tokens=10**6, refill_rate=10**6, _tokens=10**6),
            "bulkhead": Bulkhead(max_concurrent=4 * AT_ONCE),
        }
        engine.add_provider(ProviderConfig(name, simulator.base_url, "sk-0123456789", **limits))
    try:
        yield engine
    finally:
        engine.close_sync()


Ask = Callable[[Any, list[str]], list[float]]


@contextmanager
def blocking(views: list[Any]) -> Iterator[Ask]:
    def ask(view: Any, prompts: list[str]) -> list[float]:
        left, taken = iter(prompts), list[float]()

        def work() -> None:
            for prompt in left:
                start = perf_counter()
                view.call_sync(prompt, model="gpt-4o")
                taken.append(perf_counter() - start)

        threads = [threading.Thread(target=work) for _ in range(AT_ONCE)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return taken

    yield ask


@contextmanager
def awaited(views: list[Any], streamed: bool = False) -> Iterator[Ask]:
    async def call(view: Any, prompt: str) -> float:
        start = perf_counter()
        if not streamed:
            await view.call(prompt, model="gpt-4o")
            return perf_counter() - start
        async with view.stream(prompt, model="gpt-4o") as stream:
            first = perf_counter()
            async for _ in stream:
                pass
        return first - start

    async def gather(view: Any, prompts: list[str]) -> list[float]:
        left, taken = iter(prompts), list[float]()

        async def work() -> None:
            for prompt in left:
                taken.append(await call(view, prompt))

        await asyncio.gather(*(work() for _ in range(AT_ONCE)))
        return taken

    loop = asyncio.new_event_loop()
    try:
        yield lambda view, prompts: loop.run_until_complete(gather(view, prompts))
        loop.run_until_complete(views[0].engine.close())
    finally:
        loop.close()


FORMS = {
    "blocking": blocking,
    "awaited": awaited,
    "streamed, first output": lambda views: awaited(views, streamed=True),
}

if __name__ == "__main__":
    sys.exit(main())
