"""Say what a call may cost, and see what it took.

Bad moments, with and without a policy: `attempts` tells what was sent, of results and of errors.
"""

from __future__ import annotations

import time

from tarvomeldric import (
    APIError,
    CallPolicy,
    CallRefused,
    CallResult,
    EngineView,
    ProviderConfig,
    RetryBudget,
    SelfHealingEngine,
)
from tarvomeldric.simulator import Fault, ProviderSimulator, rehearsal

SPENT = RetryBudget(ratio=0.0, min_retries_per_second=0.0, burst=0.0)
INTERACTIVE = CallPolicy.interactive().replace(providers=["first", "second"])
HURRIED = INTERACTIVE.replace(deadline=0.8, attempt_timeout=0.5)
FRUGAL = INTERACTIVE.replace(retry_budget=SPENT)


def main() -> None:
    with rehearsal(), ProviderSimulator() as first, ProviderSimulator() as second:
        simulators = {"first": first, "second": second}
        records = {
            name: ProviderConfig(name, each.base_url, "any-key")
            for name, each in simulators.items()
        }
        with SelfHealingEngine(records) as engine:
            first.script(503)
            ask("Without a policy, the same provider is asked again:", engine)
            first.script(503)
            ask("interactive(): the other one, at once:", engine.with_policy(INTERACTIVE))
            first.script(Fault.STALL)
            second.script(Fault.STALL)
            ask("Nobody answers, and there is a deadline:", engine.with_policy(HURRIED))
            first.script(503)
            ask("Others have spent the retries:", engine.with_policy(FRUGAL))


def ask(title: str, engine: SelfHealingEngine | EngineView) -> None:
    print(title)
    started = time.monotonic()
    ending = answer(engine)
    for attempt in ending.attempts:
        print(f"  {attempt.start:.1f} s  {attempt.provider}: {attempt.fault or 'answered'}")
    print(f"  {time.monotonic() - started:.1f} s  {ending!r}\n")


def answer(engine: SelfHealingEngine | EngineView) -> CallResult | APIError | CallRefused:
    try:
        return engine.call_sync("What is a policy?", model="house-large")
    except (APIError, CallRefused) as error:
        return error


if __name__ == "__main__":
    main()
