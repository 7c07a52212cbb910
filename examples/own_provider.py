"""Use a provider of your own: any server that speaks the OpenAI-compatible dialect."""

import json

from tarvomeldric import ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal


def main() -> None:
    with rehearsal(), ProviderSimulator() as simulated:
        house = ProviderConfig(
            name="house",
            base_url=simulated.base_url,  # such as "http://llm.intranet:8000/v1"
            api_key="house-key",
            models=["house-large", "house-small"],
        )
        with SelfHealingEngine({}) as engine:
            engine.add_provider(house)
            # Options the engine does not know itself go to the provider as they are.
            result = engine.call_sync("Which way is north?", model="house-small", temperature=0.2)
            print(result)

            vector = engine.call_sync("north", model="house-embed", api_type="embeddings")
            print("embedding:", json.loads(vector.text))

        for request in simulated.requests:
            print("\nthe provider received", request.method, request.path)
            print("  Authorization:", request.header("Authorization"))
            print("  body:", json.dumps(request.body))


if __name__ == "__main__":
    main()
