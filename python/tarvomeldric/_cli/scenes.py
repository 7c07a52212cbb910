"""A bad day, scene by scene: one for every way in which a call can end."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from tarvomeldric import Contract, RateLimiter, SelfHealingEngine
from tarvomeldric.simulator import Fault, ReplyLike

PROVIDERS = ("openai", "anthropic", "google")
MODEL = "gpt-4o"
INVOICE = '{"invoice": 7, "total": 12.5}'
PROSE = "The total of invoice 7 is 12.50."
AS_JSON = Contract(output_schema={"required": ["invoice", "total"]})
EXTRACT = {"task_type": "extraction", "contract": AS_JSON}  # must be exact
REWRITE = {"task_type": "rewriting"}  # may differ a little


@dataclass
class Scene:
    """What happens, what the providers reply (then they answer), and how the call is made."""

    title: str
    ends: str  # a heal level, or the type of an error
    openai: tuple[ReplyLike, ...] = ()
    anthropic: tuple[ReplyLike, ...] = ()
    google: tuple[ReplyLike, ...] = ()
    prompt: str = "What is the total of invoice 7?"
    options: dict[str, Any] = field(default_factory=dict)
    before: Callable[[SelfHealingEngine], None] = lambda engine: None


def busy(*names: str) -> Callable[[SelfHealingEngine], None]:
    """Use up the request rate of the providers."""

    def prepare(engine: SelfHealingEngine) -> None:
        for name in names:
            engine._providers[name].rate_limiter = RateLimiter(1, refill_rate=0.0, _tokens=0.0)

    return prepare


def alone(engine: SelfHealingEngine) -> None:
    busy("openai")(engine)
    for name in PROVIDERS[1:]:
        engine._providers.pop(name)


def down(engine: SelfHealingEngine) -> None:
    for provider in engine._providers.values():
        provider.healthy = False


def learned(engine: SelfHealingEngine) -> None:
    learner: Any = engine._learner
    learner.record("model_request:openai", "failover:anthropic", True)


# fmt: off
SCENES = [
    Scene("A quiet moment: the first attempt succeeds", ""),
    Scene("L4: a learned rule sends the call elsewhere", "l4_learned", before=learned),
    Scene("L1: too many requests; the same provider is tried again", "l1_retry", openai=(429,)),
    Scene("L1: the connection is reset twice", "l1_retry", openai=(Fault.RESET, Fault.RESET)),
    Scene("L2: the model is gone; a cheaper one answers", "l2_downgrade", openai=(404,)),
    Scene("L3: the key is refused; another provider answers", "l3_failover", openai=(401,)),
    Scene("L3: five retries in vain, and the next provider fails, too", "l3_failover",
          openai=(429,) * 6, anthropic=(503,)),
    Scene("Healed, and the contract holds", "l3_failover", openai=(Fault.GARBAGE,),
          anthropic=(INVOICE,), options=EXTRACT),
    Scene("Healed, and the contract is broken where that is tolerated", "l1_retry",
          openai=(429, PROSE), options={**REWRITE, "contract": AS_JSON}),
    Scene("An exact task: the retry's answer breaks its contract", "ContractViolationError",
          openai=(429, PROSE), options=EXTRACT),
    Scene("An exact task: the cheaper model's answer breaks it", "ContractViolationError",
          openai=(404, PROSE), options=EXTRACT),
    Scene("An exact task: the other provider's answer breaks it", "ContractViolationError",
          openai=(401,), anthropic=(PROSE,), options=EXTRACT),
    Scene("A tolerant task, but the declared structure is gone", "ContractViolationError",
          openai=(401,), anthropic=(PROSE,), options={**REWRITE, "contract": AS_JSON}),
    Scene("An open-ended task must not be healed", "SemanticBoundaryViolationError", openai=(503,),
          prompt="Tell me a story.", options={"task_type": "storytelling"}),
    Scene("Every provider fails: the last error is the caller's", "APIError",
          openai=(401,), anthropic=(402,), google=(403,)),
    Scene("A refused key, and nobody else has room", "RuntimeError", openai=(401,),
          before=busy("anthropic", "google")),
    Scene("The only provider is busy", "RuntimeError", before=alone),
    Scene("Two providers are busy; no third is asked", "RuntimeError",
          before=busy("openai", "anthropic")),
    Scene("Every provider is out of service", "RuntimeError", before=down),
]
# fmt: on
