"""A bad day: one scene for every way in which a call can end, and numbers that add up.

The providers are simulators in processes of their own, reached over real HTTP; every wait is real.
Each scene has a fresh engine and a rehearsal of its own: no key is needed, and nothing that is
learned here outlives the scene.
"""

from __future__ import annotations

import os
import sys
import time
from collections import Counter
from collections.abc import Callable, Mapping
from contextlib import ExitStack
from dataclasses import dataclass, field
from itertools import pairwise
from typing import Any
from unittest import mock

from tarvomeldric import (
    APIError,
    CallResult,
    Contract,
    ContractViolationError,
    ProviderConfig,
    RateLimiter,
    SelfHealingEngine,
    SemanticBoundaryViolationError,
)
from tarvomeldric.simulator import Fault, ProviderSimulator, ReplyLike, rehearsal

PROVIDERS = ("openai", "anthropic", "google")
MODEL = "gpt-4o"
INVOICE = '{"invoice": 7, "total": 12.5}'
PROSE = "The total of invoice 7 is 12.50."
AS_JSON = Contract(output_schema={"required": ["invoice", "total"]})
EXTRACT = {"task_type": "extraction", "contract": AS_JSON}  # must be exact
REWRITE = {"task_type": "rewriting"}  # may differ a little
ERRORS = (APIError, ContractViolationError, SemanticBoundaryViolationError, RuntimeError)
COLOURS = {"bold": 1, "dim": 2, "red": 31, "green": 32, "cyan": 36}


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


class Day:
    """Plays scenes, and adds up what the callers saw and what the engines counted."""

    def __init__(self, simulators: Mapping[str, ProviderSimulator]) -> None:
        self.simulators = simulators
        self.seen: Counter[str] = Counter()
        self.counted: Counter[str] = Counter()
        self.attempts = {name: Counter[str]() for name in simulators}
        self.mapek: dict[str, Counter[str]] = {}
        self.surprises = 0

    def play(self, number: int, scene: Scene) -> None:
        title(f"{number}. {scene.title}")
        for name, simulator in self.simulators.items():
            simulator.script(*getattr(scene, name))
        with rehearsal(), SelfHealingEngine({}) as engine:
            for name, simulator in self.simulators.items():
                engine.add_provider(ProviderConfig(name, simulator.base_url, "demo-key"))
            scene.before(engine)
            print(f"  {paint('bold', scene.prompt)}")
            ending = self.call(engine, scene)
            self.add_up(engine)
        self.seen[ending] += 1
        if ending != scene.ends:
            self.surprises += 1
            print(paint("red", f"  expected {scene.ends or 'a first-attempt success'}"))

    def call(self, engine: SelfHealingEngine, scene: Scene) -> str:
        """Make the call of a scene, show what became of it, and return how it ended."""
        try:
            result = engine.call_sync(scene.prompt, MODEL, **scene.options)
        except ERRORS as error:
            print(f"  {paint('red', f'✗ {type(error).__name__}')}: {error}")
            return type(error).__name__
        show(result)
        return result.heal_level

    def add_up(self, engine: SelfHealingEngine) -> None:
        self.counted.update(engine._read_counters())
        for name, record in engine._providers.items():
            self.attempts[name].update(ok=record.success_count, failed=record.fail_count)
        for heading in ("heal_cascade", "contract_validation", "semantic_boundaries"):
            self.mapek.setdefault(heading, Counter()).update(engine.get_mapek_stats()[heading])

    def report(self) -> bool:
        """Print the day's numbers; return whether they add up."""
        title("Statistics of the day")
        sums = [self.surprises == 0]
        print("  provider    received =  ok + failed")
        for name, simulator in self.simulators.items():
            received, ok, failed = simulator.request_count, *self.attempts[name].values()
            sums.append(received == ok + failed)
            print(f"  {name:<10} {received:>9} = {ok:>3} + {failed}")

        levels = {level: self.seen[level] for level in ("l1_retry", "l2_downgrade", "l3_failover")}
        at_once, healed = self.seen[""] + self.seen["l4_learned"], sum(levels.values())
        failed = sum(count for name, count in self.seen.items() if name.endswith("Error"))
        calls, heals = self.counted["call_count"], self.counted["heal_count"]
        # An engine also counts the failover whose answer then broke an exact contract.
        broken = self.counted["l3_failover_count"] - levels["l3_failover"]
        sums += [calls == at_once + healed + failed == len(SCENES), heals == healed + broken]
        print(f"\n  calls {calls} = at once {at_once} + healed {healed} + failed loudly {failed}")
        print(f"  healed {healed}: {listed(levels)}")
        print(f"  heals counted {heals} = healed {healed} + broken after L3 {broken}")
        for heading, counts in self.mapek.items():
            print(f"  {heading.replace('_', ' ')}: {listed(counts)}")
        right = all(sums)
        print(paint("green", "  It adds up.") if right else paint("red", "  It does not add up."))
        return right


def main() -> int:
    with ExitStack() as stack:
        simulators = {
            name: stack.enter_context(ProviderSimulator(default=f"12.50 ({name})", process=True))
            for name in PROVIDERS
        }
        print("Three simulated providers, each in a process of its own:", *PROVIDERS)
        stack.enter_context(mock.patch("time.sleep", announced(time.sleep)))
        day, start = Day(simulators), time.monotonic()
        for number, scene in enumerate(SCENES, 1):
            day.play(number, scene)
        right = day.report()
        print(f"\n  {time.monotonic() - start:.0f} seconds, most of them waited in earnest")
    return 0 if right else 1


def announced(sleep: Callable[[float], None]) -> Callable[[float], None]:
    """Say how long the engine is about to wait."""

    def wait(seconds: float) -> None:
        print(paint("dim", f"  … waits {seconds:g} s and tries again"), flush=True)
        sleep(seconds)

    return wait


def show(result: CallResult) -> None:
    """Print the summary of an answer, and where the time went."""
    print(f"  {paint('green', repr(result))}")
    if result.fault is not None:
        print(paint("dim", f"  fault {result.fault.sub_category}, contract {verdict(result)}"))
    trace = result.mapek_trace or {}
    steps = [f"{name} {took:.0f}" for name, took in phase_times(trace)]
    loop = f"whole loop {trace.get('total_loop_us', 0.0):.0f} us"
    print(f"  {paint('dim', ', '.join([*steps, loop]))}")


def verdict(result: CallResult) -> str:
    words = {None: "none", True: "held", False: "broken, and tolerated"}
    return words[result.validation_passed]


def phase_times(trace: Mapping[str, Any]) -> list[tuple[str, float]]:
    """Return the phases with the microseconds spent in each, oldest first."""
    phases = list(trace.get("phases", ()))
    times = [(name, end - start) for (name, start), (_, end) in pairwise(phases)]
    if phases:
        # Nothing marks the end of the last phase but the end of the loop.
        spent = sum(took for _, took in times)
        times.append((phases[-1][0], max(0.0, trace["total_loop_us"] - spent)))
    return times


def listed(counts: Mapping[str, int]) -> str:
    return ", ".join(f"{name} {count}" for name, count in counts.items())


def title(text: str) -> None:
    print(f"\n{paint('cyan', text)}", flush=True)


def paint(colour: str, text: str) -> str:
    """Return ``text`` in colour when a person is looking at a terminal."""
    if not sys.stdout.isatty() or "NO_COLOR" in os.environ:
        return text
    return f"\x1b[{COLOURS[colour]}m{text}\x1b[0m"


if __name__ == "__main__":
    sys.exit(main())
