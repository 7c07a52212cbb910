"""The soak itself: shifts in which everything goes on at once, and quiet moments in between.

One engine lives through all shifts. `run.py` starts this in a process of its own, and reads what
it writes to its standard error: nothing.
"""

import argparse
import gc
import os
import random
import sys
import threading
import time
from array import array
from collections.abc import Iterator
from concurrent.futures import FIRST_EXCEPTION, Future, ThreadPoolExecutor, wait
from contextlib import ExitStack
from pathlib import Path
from typing import Any

import fleet
import loops
import naps
import quiet
import report
import short_lives
import sums
import unruly
import uvloop
import visitors
import watch
import weather
from callers import Caller
from endings import Tally
from lost import Lost
from streams import Streamer
from unruly import UnrulyProvider

from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import rehearsal

_NAMES = ("openai", "anthropic", "google")
_THREADS, _LOOPS, _LIVES = 8, 3, 3
_LENGTH = 10.0  # seconds of a shift, about
_FEWEST = 3  # shifts
_EXTENSION = 30.0  # seconds of the last shift, when something has not happened yet
_HISTORY = 20_000  # more than is kept of anything


class Soak:
    """The engine that lives through it all, and everybody around it."""

    def __init__(self, seed: int, redis: fleet.Redis, providers: list[UnrulyProvider]) -> None:
        self.seed = seed
        self.redis = redis
        self.providers = providers
        self.tally, self.others = Tally(), Tally()
        self.records = [provider.record() for provider in providers]
        self.engine: Any = SelfHealingEngine({record.name: record for record in self.records})
        _fill_histories(self.engine)
        self.engine._learner.record("model_request:google", "failover:anthropic", True)
        self.times, self.resident = array("d"), array("d")  # takes no objects from the count
        self.shifts = 0
        self.moments: list[quiet.Moment] = []
        self.complaints: list[str] = []

    def shift(self, seconds: float, last: bool) -> None:
        """Everything at once, then a quiet moment."""
        over = threading.Event()
        with visitors.dashboard(self.engine) as port, ThreadPoolExecutor(32) as threads:
            work = [threads.submit(*job) for job in self._jobs(port, over)]
            end = time.monotonic() + seconds
            while not self._ended(work) and self._goes_on(end, last):
                self.times.append(time.monotonic())
                self.resident.append(watch.resident())
            over.set()
            for done in work:
                done.result()
        self._be_quiet()

    def _jobs(self, port: int, over: threading.Event) -> Iterator[Any]:
        self.shifts += 1
        chances = (random.Random(f"{self.seed} {self.shifts} {job}") for job in range(100))
        streamer = Streamer(self.engine, self.records, self.tally)
        caller = Caller(self.engine, self.tally)
        yield weather.change, self.records, self.tally, next(chances), over
        yield fleet.troubles, self.redis, next(chances), over
        yield unruly.outages, self.providers, next(chances), over
        yield visitors.scrape, self.engine, port, self.tally, next(chances), over
        for _ in range(_THREADS):
            yield _block_until, over, caller, next(chances)
        for _ in range(_LOOPS):
            yield loops.live_and_end, caller, streamer, next(chances), over
        for _ in range(_LIVES):
            yield short_lives.follow_each_other, self.providers, self.others, next(chances), over

    def _ended(self, work: list[Future[Any]]) -> bool:
        done, _ = wait(work, timeout=0.25, return_when=FIRST_EXCEPTION)
        return bool(done)

    def _goes_on(self, end: float, last: bool) -> bool:
        now = time.monotonic()
        return now < end or (last and now < end + _EXTENSION and bool(self.lacking()))

    def _be_quiet(self) -> None:
        self.engine.close_sync()
        self.engine._learner._redis_client.close()
        watch.settle(threads=2)  # this one, and the one that publishes what was learned
        moment = quiet.Moment(self.tally.calls + self.others.calls)
        self.moments = [*self.moments[: quiet.PRIMING], moment]
        self.complaints += sums.not_given_back(self.records)
        self.complaints += sums.disagreements(self.engine, self.tally)

    def together(self) -> Tally:
        both = Tally()
        both.add(self.tally)
        both.add(self.others)
        return both

    def lacking(self) -> list[str]:
        return sums.missing(self.engine, self.records, self.together())


def _fill_histories(engine: Any) -> None:
    """What is kept of the latest calls is kept from now on: it does not become more later."""
    metrics, diagnoser = engine.get_metrics(), engine._diagnoser
    for _ in range(_HISTORY):
        for name in ("latency_primary_ms", "latency_failover_ms", "fault_latency_us"):
            metrics.observe(name, 1.0)
        diagnoser.diagnose("HTTP 500")


def _block_until(over: threading.Event, caller: Caller, chance: random.Random) -> None:
    while not over.is_set():
        caller.block(chance)
        naps.sleep(0.002)


def soak(seconds: float, seed: int, home: Path) -> bool:
    """Whether all went well."""
    uvloop.new_event_loop().close()  # its library keeps two descriptors for good
    start = quiet.Moment(0)
    with ExitStack() as stack:
        redis = fleet.Redis()
        stack.callback(redis.stop)
        os.environ["TARVOMELDRIC_REDIS_URL"] = redis.url
        providers = [UnrulyProvider(name, random.Random(f"{seed} {name}")) for name in _NAMES]
        for provider in providers:
            provider.start()
            stack.callback(provider.stop)
        stack.enter_context(naps.short())
        lost = Lost()
        stack.enter_context(lost.counted())
        whole = Soak(seed, redis, providers)
        count = max(_FEWEST, round(seconds / _LENGTH))
        for number in range(1, count + 1):
            whole.shift(seconds / count, last=number == count)
            report.progress(number, count, whole.moments[-1], whole.together())
            if whole.complaints:
                break
    whole.complaints += [*_verdict(whole), *lost.complaints(whole.together().calls)]
    report.table(whole, start)
    print(f"connections that the HTTP library lost: {len(lost.connections)}")
    complaints = whole.complaints
    del whole
    complaints += _end(start, home)
    for complaint in complaints:
        print(f"not right: {complaint}")
    return not complaints


def _verdict(whole: Soak) -> Iterator[str]:
    together = whole.together()
    yield from (f"{count} times: {what}" for what, count in together.surprises.items())
    if lacking := whole.lacking():
        yield f"never happened: {', '.join(lacking)}"
    yield from quiet.complaints(whole.moments)


def _end(start: quiet.Moment, home: Path) -> Iterator[str]:
    """What is left when the engine is gone, too."""
    watch.settle(threads=start.threads)
    end = quiet.Moment(0)
    if end.threads > start.threads:
        yield f"threads left: {threading.enumerate()}"
    if more := end.descriptors - start.descriptors:
        yield f"open files left: {dict(more)}"
    if left := {name: end.objects[kind] for name, kind in quiet.HELD.items() if end.objects[kind]}:
        yield f"objects left: {left}"
    if gc.garbage:
        yield f"garbage left: {gc.garbage[:10]}"
    files = sorted(path.name for path in (home / ".tarvomeldric").iterdir())
    if files != ["flywheel_rules.json"]:
        yield f"files left: {files}"


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("seconds", type=float)
    parser.add_argument("seed", type=int)
    options = parser.parse_args()
    with rehearsal() as home:
        return 0 if soak(options.seconds, options.seed, home) else 1


if __name__ == "__main__":
    sys.exit(main())
