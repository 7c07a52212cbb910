"""Show an answer while it is being written, and what a broken stream looks like."""

import asyncio

from tarvomeldric import ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply, rehearsal

WHOLE = Reply(stream=["Rain", 0.2, " is water", 0.2, " that fell", 0.2, " out with a cloud."])
BROKEN = Reply(stream=["Snow", 0.2, " is", Fault.RESET])


async def tell(provider: ProviderConfig, *prompts: str) -> None:
    async with SelfHealingEngine({"openai": provider}) as engine:
        for prompt in prompts:
            print(prompt)
            async for event in engine._execute_stream(provider, prompt, model="gpt-4o"):
                if "recoverable" in event:  # the last item: nothing is raised, and nothing healed
                    again = "worth another try" if event["recoverable"] else "hopeless"
                    print(f" ... {event['error']}, {again}", end="")
                for choice in event.get("choices", ()):
                    print(choice["delta"].get("content", ""), end="", flush=True)
            print()


def main() -> None:
    with rehearsal(), ProviderSimulator(WHOLE, BROKEN) as simulated:
        provider = ProviderConfig("openai", simulated.base_url, "any-key")
        asyncio.run(tell(provider, "What is rain?", "What is snow?"))


if __name__ == "__main__":
    main()
