"""Ask a question from ordinary, blocking code."""

from tarvomeldric import APIError, ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal


def main() -> None:
    # A simulated provider stands in for the real one: no key, no bill, nothing learned from it.
    # With a real key in OPENAI_API_KEY, SelfHealingEngine() alone is all the set-up you need.
    with rehearsal(), ProviderSimulator("Paris.") as simulated:
        provider = ProviderConfig("openai", simulated.base_url, "any-key")
        with SelfHealingEngine({"openai": provider}) as engine:
            result = engine.call_sync("What is the capital of France?", model="gpt-4o")
            print("answer: ", result.text)
            print("summary:", result)
            print(f"latency: {result.latency_ms:.1f} ms")

            simulated.script(default=401)
            try:
                engine.call_sync("And of Italy?")
            except (APIError, RuntimeError) as error:  # the latter: no provider could take it
                print("failed: ", error)


if __name__ == "__main__":
    main()
