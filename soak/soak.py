"""Uses one engine in rounds, in which everything goes on at once, and checks it in between.

`run.py` starts this, for so many seconds and with this seed, in a process of its own.
"""

import asyncio
import contextlib
import io
import os
import random
import sys
import threading
import time
from collections.abc import Iterator, Sequence
from concurrent.futures import FIRST_EXCEPTION, ThreadPoolExecutor, wait
from contextlib import ExitStack
from pathlib import Path
from typing import Any

import event_loops
import growth
import interventions
import invariants
import outages
import report
import scraper
import sleeps
import temporary_engines
import unclosed
import uvloop
from callers import Caller
from growth import Snapshot
from healed_streams import HealedStreamReader
from listener import Listener
from outcomes import Tally
from providers import SimulatedProvider
from streams import StreamReader

from support import RedisServer, engine_on, engine_with, use_one_arena
from tarvomeldric import serve_dashboard
from tarvomeldric.simulator import ProviderSimulator, rehearsal

_NAMES = ("openai", "anthropic", "google")
_THREADS, _LOOPS, _TEMPORARY = 8, 3, 3
_ROUND = 10.0  # seconds, about
_FEWEST = 3  # rounds
_EXTENSION = 30.0  # seconds of the last round, when something has not happened yet
_HISTORY = 20_000  # more than is kept of anything


class Soak:
    """The engine that is used all along, and what goes on around it."""

    def __init__(
        self, seed: int, redis: RedisServer, providers: Sequence[SimulatedProvider], warm_up: int
    ) -> None:
        self._seed = seed
        self._warm_up = warm_up
        self._redis = redis
        self._providers = providers
        self._tally, self._tally_of_others = Tally(), Tally()
        self._records = [provider.record() for provider in providers]
        self._rounds = 0
        self.engine: Any = engine_with(*self._records)
        self._listener = Listener(self.engine, self._tally)
        self.engine._learner.record("model_request:google", "failover:anthropic", True)
        _fill_histories(self.engine)
        self.snapshots: list[Snapshot] = []  # of the first round, the warm-up's end, the last round

    def round(self, seconds: float, last: bool) -> Iterator[str]:
        """Everything at once, then the checks: what was not right."""
        with self._listener.listening():
            self._work(seconds, last)
            self.engine.close_sync()
            self.engine._learner._redis_client.close()
            growth.settle(threads=2)  # this one, and the one that publishes what was learned
        yield from self._listener.complaints()
        kept = 1 if self._rounds <= self._warm_up else 2
        self.snapshots = [*self.snapshots[:kept], Snapshot(self.tally().calls)]
        yield from invariants.not_given_back(self._records)
        yield from invariants.disagreements(self.engine, self._tally)

    def _work(self, seconds: float, last: bool) -> None:
        over, end = threading.Event(), time.monotonic() + seconds
        with contextlib.redirect_stdout(io.StringIO()):
            server = serve_dashboard(self.engine, "127.0.0.1", 0)
        with server, ThreadPoolExecutor(32) as threads:
            work = [threads.submit(*job) for job in self._jobs(server, over)]
            ended = False
            while not ended and self._goes_on(end, last):
                ended = bool(wait(work, timeout=0.25, return_when=FIRST_EXCEPTION).done)
            over.set()
            for done in work:
                done.result()
        for record in self._records:
            interventions.test_half_open(self.engine, record, self._tally)

    def tally(self) -> Tally:
        """That of the engine and of the temporary ones together."""
        both = Tally()
        both.add(self._tally)
        both.add(self._tally_of_others)
        return both

    def missing(self) -> list[str]:
        return invariants.missing(self.engine, self._records, self.tally())

    def _jobs(self, server: Any, over: threading.Event) -> Iterator[Any]:
        self._rounds += 1
        chances = (random.Random(f"{self._seed} {self._rounds} {job}") for job in range(100))
        caller = Caller(self.engine, self._tally)
        healed = HealedStreamReader(self.engine, self._tally)
        readers = [StreamReader(self.engine, self._records, self._tally), healed]
        yield interventions.intervene, self._records, self._tally, next(chances), over
        yield outages.of_redis, self._redis, next(chances), over
        yield outages.of_providers, self._providers, next(chances), over
        yield scraper.scrape, self.engine, server, self._tally, next(chances), over
        for _ in range(_THREADS):
            yield _call_sync, caller, healed, next(chances), over
        for _ in range(_LOOPS):
            yield event_loops.run_and_end, caller, readers, next(chances), over
        for _ in range(_TEMPORARY):
            others = self._tally_of_others
            yield temporary_engines.use_in_turn, self._providers, others, next(chances), over

    def _goes_on(self, end: float, last: bool) -> bool:
        now = time.monotonic()
        return now < end or (last and now < end + _EXTENSION and bool(self.missing()))


def _fill_histories(engine: Any) -> None:
    """What is kept of the latest calls is kept from now on: it does not become more later."""
    metrics, diagnoser = engine.get_metrics(), engine._diagnoser
    for _ in range(_HISTORY):
        for name in ("latency_primary_ms", "latency_failover_ms", "fault_latency_us"):
            metrics.observe(name, 1.0)
        diagnoser.diagnose("HTTP 500")


def _call_sync(
    caller: Caller, reader: HealedStreamReader, chance: random.Random, over: threading.Event
) -> None:
    ways = [*[caller.call_sync] * 12, *reader.blocking_ways]
    while not over.is_set():
        chance.choice(ways)(chance)
        sleeps.sleep(0.002)


def _load() -> None:
    """The first calls of a process load modules, which would make them late."""
    with ProviderSimulator() as simulator:
        engine = engine_on(simulator)
        engine.call_sync("Hi")

        async def call() -> None:
            async with engine:
                await engine.call("Hi")

        asyncio.run(call())
        uvloop.run(call())


def soak(seconds: float, seed: int, home: Path) -> list[str]:
    """What was not right."""
    uvloop.new_event_loop().close()  # its library keeps two descriptors for good
    start = Snapshot(0)
    complaints: list[str] = []
    _load()
    with ExitStack() as stack:
        redis = stack.enter_context(RedisServer())
        os.environ["TARVOMELDRIC_REDIS_URL"] = redis.url
        providers = [SimulatedProvider(name, random.Random(f"{seed} {name}")) for name in _NAMES]
        for provider in providers:
            provider.start()
            stack.callback(provider.stop)
        stack.enter_context(sleeps.shortened())
        connections = stack.enter_context(unclosed.collected())
        count = max(_FEWEST, round(seconds / _ROUND))
        whole = Soak(seed, redis, providers, growth.warm_up(count))
        for number in range(1, count + 1):
            complaints += whole.round(seconds / count, last=number == count)
            report.progress(number, count, whole.snapshots[-1], whole.tally())
            if complaints:
                break
    tally, snapshots = whole.tally(), whole.snapshots
    complaints += [f"{count} times: {what}" for what, count in tally.unexpected.items()]
    complaints += [f"never happened: {name}" for name in whole.missing()]
    complaints += growth.increases(snapshots)
    complaints += unclosed.excess(connections, tally.calls)
    report.table(whole.engine, tally, [start, *snapshots])
    print(f"\nlatest after a deadline: {tally.worst_lateness:.3f} s")
    print(f"connections that the HTTP library lost: {len(connections)}")
    del whole
    complaints += growth.leftovers(start)
    files = sorted(path.name for path in (home / ".tarvomeldric").iterdir())
    if files != ["flywheel_rules.json"]:
        complaints.append(f"files left: {files}")
    return complaints


def main() -> int:
    use_one_arena()
    with rehearsal() as home:
        complaints = soak(float(sys.argv[1]), int(sys.argv[2]), home)
    for complaint in complaints:
        print(f"not right: {complaint}")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
