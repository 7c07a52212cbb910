"""A bad day, scene by scene: every way in which a call can end, what a policy changes, and streams."""

from __future__ import annotations

import math
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from tarvomeldric import CallPolicy, Contract, RateLimiter, RetryBudget, SelfHealingEngine
from tarvomeldric.simulator import Fault, Reply, ReplyLike

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
    policy: CallPolicy | None = None
    streamed: bool = False
    before: Callable[[SelfHealingEngine], None] = lambda engine: None

    @property
    def deadline(self) -> float:
        return math.inf if self.policy is None else self.policy.deadline or math.inf


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


def nearly_open(engine: SelfHealingEngine) -> None:
    breaker = engine._providers["openai"].circuit_breaker
    for _ in range(breaker.failure_threshold - 1):
        breaker.record_failure()


def back_in(seconds: str) -> Reply:
    return Reply(status=429, headers={"Retry-After": seconds})


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
    Scene("deadline, attempt_timeout: all providers stall", "DeadlineExceeded",
          openai=(Fault.STALL,), anthropic=(Fault.STALL,), google=(Fault.STALL,),
          policy=CallPolicy(deadline=1.5, attempt_timeout=0.6)),
    Scene("order: another provider is asked before anybody waits", "l3_failover", openai=(503,),
          policy=CallPolicy(order="failover_first")),
    Scene("retry_after, jitter: the provider says when to come back", "l1_retry",
          openai=(back_in("0.8"),), policy=CallPolicy(retry_after=True, jitter=True)),
    Scene("retry_after_cap: that is too long to be waited for", "l3_failover",
          openai=(back_in("90"),), policy=CallPolicy(retry_after=True, retry_after_cap=30.0)),
    Scene("max_retries, initial_backoff: fewer and quicker retries", "l3_failover",
          openai=(503,) * 3, policy=CallPolicy(max_retries=2, initial_backoff=0.1)),
    Scene("validate: an empty answer is asked for again, at once", "l1_retry", openai=("",),
          policy=CallPolicy(validate="all")),
    Scene("validate: a first answer that breaks its contract is none", "l3_failover",
          openai=(PROSE, PROSE), anthropic=(INVOICE,), options=EXTRACT,
          policy=CallPolicy(validate="all")),
    Scene("max_attempts: two requests, and no third", "APIError", openai=(401,), anthropic=(401,),
          policy=CallPolicy(max_attempts=2)),
    Scene("retry_budget: others have spent the retries", "APIError", openai=(401,),
          policy=CallPolicy(retry_budget=RetryBudget(0.0, 0.0, burst=0.0))),
    Scene("providers, exact_model: these two, in this order, and no cheaper model", "l3_failover",
          google=(404,), policy=CallPolicy(providers=["google", "openai"], exact_model=True)),
    Scene("respect_breakers: the breaker opens, which ends the retries", "l3_failover",
          openai=(503,), policy=CallPolicy(respect_breakers=True), before=nearly_open),
    Scene("hedge_after, hedge_ratio, hedge_burst: a slow provider gets company, and loses", "",
          openai=(Reply(INVOICE, delay=3.0),),
          policy=CallPolicy(hedge_after=0.3, hedge_ratio=0.05, hedge_burst=10.0)),
    Scene("CallPolicy.interactive(): a reset, an empty answer, and the third is good",
          "l3_failover", openai=(Fault.RESET,), anthropic=("",), policy=CallPolicy.interactive()),
    Scene("A stream is silent before its first word; another provider answers", "l3_failover",
          openai=(Reply(stream=[Fault.STALL]),), options={"first_token_timeout": 0.5},
          policy=CallPolicy.interactive(), streamed=True),
    Scene("A stream breaks off in the middle: what came is kept, and nothing is said twice",
          "StreamInterrupted", openai=(Reply(stream=["The total ", 0.3, "is ", 0.1, Fault.RESET]),),
          streamed=True),
]
# fmt: on
