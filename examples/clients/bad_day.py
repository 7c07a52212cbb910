"""Two simulated providers for the examples beside this file: the first fails, the second is well."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any

from tarvomeldric import CallPolicy, EngineView, ProviderConfig, SelfHealingEngine
from tarvomeldric.clients import Route
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply, ReplyLike, rehearsal

ROUTES = [Route("house", {"first": "house-large", "second": "house-small"})]
TROUBLES: dict[str, ReplyLike] = {
    "is down": 503,
    "is silent": Fault.STALL,
    "breaks off before the first word": Reply(stream=[{"choices": []}, Fault.RESET]),
    "refuses its key": 401,
}
POLICY = CallPolicy.interactive().replace(attempt_timeout=0.5)


def bad_days(answers: Mapping[str, ReplyLike]) -> Iterator[EngineView]:
    """An engine for each trouble of the first provider; the second one's answers, by prompt."""
    for trouble, reply in TROUBLES.items():
        print(f"The first provider {trouble}:")
        with (
            rehearsal(),
            ProviderSimulator(default=reply) as first,
            ProviderSimulator(rules=answers) as second,
            SelfHealingEngine({}) as engine,
        ):
            for name, simulator in {"first": first, "second": second}.items():
                record = ProviderConfig(name, simulator.base_url, "any-key")
                record.circuit_breaker.failure_threshold = 100  # each call is to meet the trouble
                engine.add_provider(record)
            yield engine.with_policy(POLICY)


def tell(response: Any) -> None:
    """Prints what the headers of an answer say: a hook for the clients of httpx2."""
    told = {
        name: response.headers.get(f"x-tarvomeldric-{name}")
        for name in ("provider", "model", "attempts", "heal", "fault")
    }
    print("  " + ", ".join(f"{name} {value}" for name, value in told.items()))


async def tell_awaited(response: Any) -> None:
    tell(response)
