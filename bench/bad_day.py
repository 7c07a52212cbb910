"""One simulated bad day for this engine and for what engineers would use instead, as a table.

Each contestant lives through it in a process of its own; the providers are simulators in further
processes. Scenes are hours apart: simulators start afresh, breakers have closed. Requests that meet
a closed port are counted where they are made, all others where they arrive. A few minutes for each.
"""

import argparse
import asyncio
import json
import multiprocessing
import os
import platform
import sys
from collections import Counter
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from pkgutil import resolve_name
from time import perf_counter, process_time
from typing import Any

from bad_day_contestants import CONTESTANTS, Contestant
from bad_day_scenes import SCENES, Endpoint, Scene, providers

from tarvomeldric.simulator import rehearsal

ROOT = Path(__file__).resolve().parent.parent
RESULTS = ROOT / "build" / "bad_day.json"
AT_ONCE = 8
PATIENCE_S = 60.0  # of the caller, as of many a proxy; what is not answered then is lost
MODELS = {
    "openai": "gpt-4o",
    "anthropic": "claude-3-5-haiku-20241022",
    "google": "gemini-2.0-flash",
}


@dataclass
class Tally:
    """What came of the calls of a scene, or of the whole day."""

    ms: list[float] = field(default_factory=list)
    good: int = 0
    wrong: int = 0  # answers taken for good
    lost: int = 0  # no answer
    requests: int = 0
    wasted: int = 0  # requests to a provider that is dead
    cpu: float = 0.0  # seconds
    errors: Counter[str] = field(default_factory=Counter)

    def __add__(self, other: "Tally") -> "Tally":
        return Tally(*(value + getattr(other, name) for name, value in vars(self).items()))

    def figures(self) -> dict[str, float]:
        ordered, calls = sorted(self.ms), len(self.ms)
        return {
            "good": 100 * self.good / calls,
            "wrong": self.wrong,
            "lost": self.lost,
            **{f"p{share}": ordered[calls * share // 100] for share in (50, 95, 99)},
            "requests": self.requests / calls,
            "wasted": self.wasted,
            "cpu": 1000 * self.cpu / calls,
        }


Day = dict[str, Tally]  # by scene
COLUMNS = [
    ("good", "{:.1f} %", ["good"]),
    ("wrong answers taken for good", "{:.0f}", ["wrong"]),
    ("lost", "{:.0f}", ["lost"]),
    ("p50 / p95 / p99 ms", "{:,.0f}", ["p50", "p95", "p99"]),
    ("requests a call", "{:.2f}", ["requests"]),
    ("requests wasted on a dead provider", "{:.0f}", ["wasted"]),
    ("CPU s a thousand calls", "{:.1f}", ["cpu"]),
]


def main() -> None:
    parser = argparse.ArgumentParser(description=str(__doc__).partition("\n")[0])
    parser.add_argument("contestants", nargs="*", help=f"any of: {', '.join(CONTESTANTS)}")
    parser.add_argument("--rounds", type=int, default=1, help="days for each (default: 1)")
    parser.add_argument("--quick", action="store_true", help="fewer calls, rougher figures")
    parser.add_argument("--scenes", action="store_true", help="tell of each scene, too")
    options = parser.parse_args()
    if unknown := set(options.contestants) - set(CONTESTANTS):
        parser.error(f"no contestant {', '.join(sorted(unknown))}")
    calls = 16 if options.quick else 60
    machine = f"Python {platform.python_version()}, {os.cpu_count()} processors"
    print(f"{machine}, load {os.getloadavg()[0]:.1f}; {calls} calls a scene, {AT_ONCE} at once")
    sys.path.append(str(ROOT / "tools"))  # the support package
    names = list(present(options.contestants or CONTESTANTS))
    days: dict[str, list[Day]] = {name: [] for name in names}
    for name in names * options.rounds:
        with multiprocessing.get_context("spawn").Pool(1) as fresh_process:
            days[name].append(fresh_process.apply(live_through, (name, calls)))
    if options.scenes:
        print_table(
            (f"{scene.name}, {name}", [day[scene.name] for day in rounds])
            for scene in SCENES
            for name, rounds in days.items()
        )
    print_table(
        (CONTESTANTS[name].title, [whole(day) for day in rounds]) for name, rounds in days.items()
    )
    RESULTS.parent.mkdir(exist_ok=True)
    results = {name: [report(day) for day in rounds] for name, rounds in days.items()}
    about = {"machine": machine, "calls": calls, "at_once": AT_ONCE}
    RESULTS.write_text(json.dumps({**about, "contestants": results}, indent=1) + "\n")
    print(f"\nwritten to {os.path.relpath(RESULTS)}")


def present(names: Iterable[str]) -> Iterator[str]:
    for name in names:
        try:
            resolve_name(CONTESTANTS[name].made_with)
        except (ImportError, AttributeError) as error:
            print(f"{name} is skipped: {error}")
        else:
            yield name


def live_through(name: str, calls: int) -> Day:
    """What became of the calls of one contestant; to be run in a process of its own."""
    from support import free_port

    endpoints = [Endpoint(provider, model, free_port()) for provider, model in MODELS.items()]
    connects = 0

    def watch(event: str, arguments: Any) -> None:
        nonlocal connects
        connects += event == "socket.connect" and arguments[1][1] == endpoints[0].port

    async def day() -> Day:
        contestant, tallies = CONTESTANTS[name](endpoints), {}
        for scene in (SCENES[0], *SCENES):  # what a program does but once belongs to no scene
            contestant.let_hours_pass()
            with providers(scene, endpoints, calls) as simulators:
                before = connects
                tallies[scene.name] = tally = await play(scene, calls, contestant)
                counts = [it.request_count if it else connects - before for it in simulators]
            tally.requests, tally.wasted = sum(counts), counts[0] if scene.dead else 0
        return tallies

    sys.addaudithook(watch)
    with rehearsal():
        return asyncio.run(day())


async def play(scene: Scene, calls: int, contestant: Contestant) -> Tally:
    tally, questions = Tally(), iter(scene.questions(calls))

    async def ask() -> None:
        for question in questions:
            start = perf_counter()
            try:
                answer = await asyncio.wait_for(contestant.ask(question.prompt, scene), PATIENCE_S)
            except Exception as error:
                tally.lost += 1
                tally.errors[f"{type(error).__name__}: {error}"[:100]] += 1
            else:
                tally.good += answer == question.answer
                tally.wrong += answer != question.answer
            tally.ms.append(1000 * (perf_counter() - start))

    start = process_time()
    await asyncio.gather(*(ask() for _ in range(AT_ONCE)))
    tally.cpu = process_time() - start
    return tally


def print_table(rows: Iterable[tuple[str, list[Tally]]]) -> None:
    print(f"\n| | {' | '.join(heading for heading, *_ in COLUMNS)} |")
    print("|---" * (len(COLUMNS) + 1) + "|")
    for title, rounds in rows:
        figures = [tally.figures() for tally in rounds]
        cells = [
            " / ".join(spread(form, [one[key] for one in figures]) for key in keys)
            for _, form, keys in COLUMNS
        ]
        print(f"| {title} | {' | '.join(cells)} |")


def spread(form: str, values: Sequence[float]) -> str:
    """The range of the rounds, as one figure where it is one."""
    return " to ".join(dict.fromkeys(form.format(it) for it in (min(values), max(values))))


def whole(day: Day) -> Tally:
    return sum(day.values(), Tally())


def report(day: Day) -> dict[str, Any]:
    scenes = {name: {**tally.figures(), "errors": tally.errors} for name, tally in day.items()}
    return {**whole(day).figures(), "scenes": scenes}


if __name__ == "__main__":
    main()
