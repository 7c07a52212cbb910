"""Ask several questions at once from an event loop."""

import asyncio
import time

from tarvomeldric import ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Reply, rehearsal

LANGUAGES = ("French", "Italian", "Japanese", "Swahili", "Welsh")


async def greet(provider: ProviderConfig) -> None:
    async with SelfHealingEngine({"anthropic": provider}) as engine:
        started = time.perf_counter()
        calls = [engine.call(f"Say good morning in {language}.") for language in LANGUAGES]
        for result in await asyncio.gather(*calls):
            print(result)
        print(f"{len(calls)} answers in {time.perf_counter() - started:.2f} s")

        # A call can be bounded like any other awaitable.
        try:
            await asyncio.wait_for(engine.call("And in Klingon?"), timeout=0.1)
        except asyncio.TimeoutError:
            print("no answer within 0.1 s")


def main() -> None:
    # The simulated provider takes 0.3 seconds for each answer.
    slow = Reply(delay=0.3)
    with rehearsal(), ProviderSimulator(default=slow) as simulated:
        asyncio.run(greet(ProviderConfig("anthropic", simulated.base_url, "any-key")))


if __name__ == "__main__":
    main()
