"""Three providers, a handful of prompts, and what the engine has to say about them.

Each provider is a simulator in a process of its own, reached over real HTTP. Everything happens
in a rehearsal: no key is needed, and nothing that is learned here outlives the program.
"""

from __future__ import annotations

import asyncio
import os
import sys
from collections.abc import Mapping
from contextlib import ExitStack
from itertools import pairwise
from typing import Any

from tarvomeldric import APIError, CallResult, ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Reply, rehearsal

ANSWERS = {
    "capital": "Paris.",
    "haiku": "Old pond / a frog leaps in / water's sound.",
    "prime": "Seventeen is prime.",
}
PROMPTS = {
    "gpt-4o-mini": "What is the capital of France?",
    "claude-3-5-haiku-20241022": "Write a haiku about a pond.",
    "deepseek-chat": "Name a prime number above 13.",
}
ROW = "  {:<10} {:<9} {:>5} {:>4} {:>7} {:>8}  {}"
COLOURS = {"bold": 1, "dim": 2, "red": 31, "green": 32, "cyan": 36}


def main() -> None:
    with ExitStack() as stack:
        stack.enter_context(rehearsal())
        simulators = {
            name: stack.enter_context(simulator(delay_ms))
            for name, delay_ms in {"openai": 20, "anthropic": 40, "deepseek": 5}.items()
        }
        engine = stack.enter_context(SelfHealingEngine({}))
        title("Three simulated providers, each in a process of its own")
        for name, provider in simulators.items():
            engine.add_provider(ProviderConfig(name, provider.base_url, "demo-key"))
            print(f"  {name:<10} {provider.base_url}")

        title("Blocking: engine.call_sync(prompt, model=...)")
        for model, prompt in PROMPTS.items():
            show(prompt, engine.call_sync(prompt, model=model))

        title("Awaited, all at once: await engine.call(prompt, model=...)")
        for prompt, result in zip(PROMPTS.values(), asyncio.run(ask_all(engine)), strict=True):
            show(prompt, result)

        title("A provider fails")
        fail(engine, simulators["openai"])
        report(engine)


def simulator(delay_ms: int) -> ProviderSimulator:
    rules = {word: Reply(answer, delay=delay_ms / 1000) for word, answer in ANSWERS.items()}
    return ProviderSimulator(rules=rules, process=True)


async def ask_all(engine: SelfHealingEngine) -> list[CallResult]:
    calls = [engine.call(prompt, model=model) for model, prompt in PROMPTS.items()]
    try:
        return await asyncio.gather(*calls)
    finally:
        await engine.close()


def fail(engine: SelfHealingEngine, provider: ProviderSimulator) -> None:
    """Let the next request meet a 503, and show what the caller of the engine gets."""
    provider.script(503)
    prompt = PROMPTS["gpt-4o-mini"]
    try:
        show(prompt, engine.call_sync(prompt, model="gpt-4o-mini"))
    except APIError as error:
        print(f"  {paint('bold', prompt)}")
        print(f"  {paint('red', f'✗ APIError, status {error.status_code}')}: {error}")


def show(prompt: str, result: CallResult) -> None:
    """Print a prompt, the summary of its answer, and where the time went."""
    print(f"  {paint('bold', prompt)}")
    print(f"  {paint('green', repr(result))}")
    trace = result.mapek_trace or {}
    steps = [f"{name} {took:.0f}" for name, took in phase_times(trace)]
    loop = f"whole loop {trace.get('total_loop_us', 0.0):.0f} us"
    print(f"  {paint('dim', ', '.join([*steps, loop]))}\n")


def phase_times(trace: Mapping[str, Any]) -> list[tuple[str, float]]:
    """Return the phases with the microseconds spent in each, oldest first."""
    phases = list(trace.get("phases", ()))
    times = [(name, end - start) for (name, start), (_, end) in pairwise(phases)]
    if phases:
        # Nothing marks the end of the last phase but the end of the loop.
        spent = sum(took for _, took in times)
        times.append((phases[-1][0], max(0.0, trace["total_loop_us"] - spent)))
    return times


def report(engine: SelfHealingEngine) -> None:
    """Print the engine's statistics in short."""
    stats, mapek, health = engine.get_stats(), engine.get_mapek_stats(), engine.health_check()
    title(f"Statistics of engine {stats['version']}")
    print(ROW.format("provider", "health", "score", "ok", "failed", "avg ms", "circuit"))
    for name, row in stats["providers"].items():
        outcomes = (row["health_score"], row["success"], row["fail"], row["avg_latency_ms"])
        print(ROW.format(name, health[name], *outcomes, row["circuit"]["state"]))
    print(f"\n  calls {mapek['total_calls']}, healed {stats['heal_rate']}")
    for heading in ("heal_cascade", "contract_validation", "semantic_boundaries"):
        counts = ", ".join(f"{name} {count}" for name, count in mapek[heading].items())
        print(f"  {heading.replace('_', ' ')}: {counts}")
    rules = mapek["flywheel_rules"]
    print(f"  learned rules: {rules['total_rules']} ({rules['high_confidence_rules']} trusted)")


def title(text: str) -> None:
    print(f"\n{paint('cyan', text)}")


def paint(colour: str, text: str) -> str:
    """Return ``text`` in colour when a person is looking at a terminal."""
    if not sys.stdout.isatty() or "NO_COLOR" in os.environ:
        return text
    return f"\x1b[{COLOURS[colour]}m{text}\x1b[0m"


if __name__ == "__main__":
    main()
