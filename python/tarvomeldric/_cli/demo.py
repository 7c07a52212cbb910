"""``demo``: a bad day against simulated providers, and numbers that add up.

The providers are simulators in processes of their own, reached over real HTTP; every wait is real.
Each scene has a fresh engine and a rehearsal of its own: no key is needed, and nothing that is
learned here outlives the scene.
"""

from __future__ import annotations

import argparse
import logging
import time
from collections import Counter
from collections.abc import Mapping
from contextlib import ExitStack
from itertools import pairwise
from typing import Any

from tarvomeldric import AttemptEvent, CallResult, EngineView, ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal
from tarvomeldric.telemetry import CallEvent, log_to

from .failures import FAILURES
from .scenes import MODEL, PROVIDERS, SCENES, Scene
from .terminal import announced_waits, paint, title

_CLOCK_SLACK_S = 0.01


class Day:
    """Plays scenes, and adds up what callers saw, what observers heard and what the engines counted."""

    def __init__(
        self, simulators: Mapping[str, ProviderSimulator], log: logging.Logger | None
    ) -> None:
        self.simulators = simulators
        self.log = log
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
            engine.observe(lambda event: self.hear(event, scene.deadline))
            if self.log:
                log_to(engine, self.log)
            ending = self.call(engine, scene)
            self.add_up(engine)
        self.seen[ending] += 1
        if ending != scene.ends:
            self.surprises += 1
            print(paint("red", f"  expected {scene.ends or 'a first-attempt success'}"))

    def hear(self, event: CallEvent, deadline: float) -> None:
        """Count requests, and those that a deadline or a faster one cut off: nobody is blamed."""
        if isinstance(event, AttemptEvent):
            late = event.start + event.duration > deadline - _CLOCK_SLACK_S
            cut = late or event.fault == "hedge_lost"
            self.attempts[event.provider].update(told=1, cut=int(cut))

    def call(self, engine: SelfHealingEngine, scene: Scene) -> str:
        """Make the call of a scene, show what became of it, and return how it ended."""
        asked = engine.with_policy(scene.policy) if scene.policy else engine
        try:
            make = streamed if scene.streamed else called
            result = make(asked, scene)
        except FAILURES as error:
            print(f"  {paint('red', f'✗ {type(error).__name__}')}: {error}")
            if scene.policy:
                print(paint("dim", f"  {road(error)}"))
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
        print("  provider    received = told =  ok + failed + cut off")
        for name, simulator in self.simulators.items():
            received, of = simulator.request_count, self.attempts[name]
            told, ok, failed, cut = of["told"], of["ok"], of["failed"], of["cut"]
            sums.append(received == told == ok + failed + cut)
            print(f"  {name:<10} {received:>9} = {told:>4} = {ok:>3} + {failed:>6} + {cut}")

        levels = {level: self.seen[level] for level in ("l1_retry", "l2_downgrade", "l3_failover")}
        at_once, healed = self.seen[""] + self.seen["l4_learned"], sum(levels.values())
        failed = sum(count for name, count in self.seen.items() if name[:1].isupper())
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


def main(options: argparse.Namespace) -> int:
    """Play every scene and print the statistics; return 1 when the numbers do not add up."""
    with ExitStack() as stack:
        simulators = {
            name: stack.enter_context(ProviderSimulator(default=f"12.50 ({name})", process=True))
            for name in PROVIDERS
        }
        print("Three simulated providers, each in a process of its own:", *PROVIDERS)
        stack.enter_context(
            announced_waits(lambda text: print(paint("dim", f"  {text}"), flush=True))
        )
        day, start = Day(simulators, printed_log() if options.log else None), time.monotonic()
        for number, scene in enumerate(SCENES, 1):
            day.play(number, scene)
        right = day.report()
        print(f"\n  {time.monotonic() - start:.0f} seconds, most of them waited in earnest")
    return 0 if right else 1


def called(asked: SelfHealingEngine | EngineView, scene: Scene) -> CallResult:
    return asked.call_sync(scene.prompt, MODEL, **scene.options)


def streamed(asked: SelfHealingEngine | EngineView, scene: Scene) -> CallResult:
    """Print the words as they come."""
    with asked.stream_sync(scene.prompt, MODEL, **scene.options) as stream:
        print("  ", end="")
        try:
            for text in stream.text:
                print(text, end="", flush=True)
        finally:
            print()
    return stream.result


def printed_log() -> logging.Logger:
    """Return a log that stands between the other lines; nobody else writes to it."""
    log = logging.Logger("demo", logging.INFO)
    log.addHandler(_Printer())
    return log


class _Printer(logging.Handler):
    def emit(self, record: logging.LogRecord) -> None:
        print(paint("dim", f"  {record.levelname:<7} {record.getMessage()}"), flush=True)


def show(result: CallResult) -> None:
    """Print the summary of an answer, whom it took, and where the time went."""
    print(f"  {paint('green', repr(result))}")
    if result.fault is not None:
        print(paint("dim", f"  {road(result)}; contract {verdict(result)}"))
    trace = result.mapek_trace or {}
    steps = [f"{name} {took:.0f}" for name, took in phase_times(trace)]
    loop = f"whole loop {trace.get('total_loop_us', 0.0):.0f} us"
    print(f"  {paint('dim', ', '.join([*steps, loop]))}")


def road(ending: Any) -> str:
    """Tell who was asked on the way to a result, or to an error that a view raised."""
    return "asked " + ", ".join(
        f"{each.provider} ({each.fault or 'ok'})" for each in ending.attempts
    )


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
