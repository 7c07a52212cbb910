"""Show an answer while it is being written: healed before its first word, told when it breaks off later."""

import asyncio

from tarvomeldric import CallPolicy, ProviderConfig, SelfHealingEngine, StreamInterrupted
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply, rehearsal

SILENT = Reply(stream=[Fault.STALL])
WHOLE = Reply(stream=["Rain", 0.2, " is water", 0.2, " that fell", 0.2, " out with a cloud."])
BROKEN = Reply(stream=["Snow", 0.2, " is", Fault.RESET])


async def tell(engine: SelfHealingEngine, prompt: str) -> None:
    print(prompt)
    careful = engine.with_policy(CallPolicy.interactive().replace(providers=["first", "second"]))
    try:
        async with careful.stream(prompt, first_token_timeout=0.5, include_usage=True) as stream:
            async for text in stream.text:
                print(text, end="", flush=True)
        result = stream.result
        healed = ", ".join(f"{each.provider} {each.fault or 'ok'}" for each in result.attempts)
        print(f"\n  first word after {result.ttft_ms:.0f} ms: {healed}; {result.usage}")
    except StreamInterrupted as error:
        print(f" ...\n  {error.provider} broke off after {len(error.text)} characters: {error}")


async def main() -> None:
    with (
        rehearsal(),
        ProviderSimulator(SILENT, BROKEN) as first,
        ProviderSimulator(WHOLE) as second,
    ):
        providers = {
            name: ProviderConfig(name, simulated.base_url, "any-key")
            for name, simulated in (("first", first), ("second", second))
        }
        async with SelfHealingEngine(providers) as engine:
            await tell(engine, "What is rain?")
            await tell(engine, "What is snow?")


if __name__ == "__main__":
    asyncio.run(main())
