"""What the engine has learned shows in the road a call takes.

A learner that knows where a model family is served better sends its requests there at once
("l4_learned"); one that knows who healed a kind of fault asks that provider first. Every act has a
fresh engine, so that only the lessons make the difference.
"""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from typing import Any

from tarvomeldric import ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal

NAMES = ("openai", "anthropic", "google")
MODEL = "gpt-4o"


def main() -> None:
    with ExitStack() as stack:
        simulators = {
            name: stack.enter_context(ProviderSimulator(default=f"{name} here.")) for name in NAMES
        }

        print("Before any lesson: the model's own provider answers")
        with fresh_engine(simulators) as engine:
            ask(engine)

        print("\nLesson: requests for this model family went well with anthropic")
        with fresh_engine(simulators) as engine:
            teach(engine, "model_request:openai", "failover:anthropic")
            ask(engine)

        print("\nBefore any lesson: a refused key; equals are asked in their order")
        with fresh_engine(simulators) as engine:
            refuse(engine, simulators["openai"])

        print("\nLesson: refused keys were healed by google")
        with fresh_engine(simulators) as engine:
            teach(engine, "auth_error", "failover:google")
            refuse(engine, simulators["openai"])


@contextmanager
def fresh_engine(simulators: dict[str, ProviderSimulator]) -> Iterator[SelfHealingEngine]:
    with rehearsal(), SelfHealingEngine({}) as engine:
        for name, simulator in simulators.items():
            engine.add_provider(ProviderConfig(name, simulator.base_url, "any-key"))
        yield engine


def teach(engine: SelfHealingEngine, pattern: str, action: str) -> None:
    """Let the engine live through the same success again and again."""
    learner: Any = engine._learner
    for _ in range(200):
        learner.record(pattern, action, True, 20.0)


def ask(engine: SelfHealingEngine) -> None:
    result = engine.call_sync("Who is there?", MODEL)
    print(f"  {result!r}")
    road = f"{result.original_provider}, then {result.provider}"
    print(f"  picked {road}; heal_level {result.heal_level!r}")


def refuse(engine: SelfHealingEngine, openai: ProviderSimulator) -> None:
    """Let the next request be refused, and show in which order the others are candidates."""
    scores = {name: engine._provider_priority(name, "auth_error") for name in NAMES[1:]}
    order = sorted(scores, key=lambda name: -scores[name])
    print("  candidates:", ", ".join(f"{name} {scores[name]:.1f}" for name in order))
    openai.script(401)
    ask(engine)


if __name__ == "__main__":
    main()
