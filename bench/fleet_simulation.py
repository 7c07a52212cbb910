"""What a limit is worth to fleets of up to a thousand members: the table in docs/fleet.md.

The members are the package's own limiters on a clock that is moved by hand, and the bucket is its own
script in a Redis, told the time; only the calls are made up. `python bench/fleet_simulation.py`
"""

from __future__ import annotations

import argparse
import random
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from heapq import heappop, heappush
from pathlib import Path
from typing import Any, NamedTuple

sys.path.append(str(Path(__file__).resolve().parent.parent / "tools"))  # the support package

import redis

from support import RedisServer
from tarvomeldric._engine import _FleetRateLimiter, _SimulatedClock
from tarvomeldric._fleet_limits import SCRIPT

TOLD = "{math.floor(ARGV[#ARGV] / 1000000), ARGV[#ARGV] % 1000000}"
EPOCH = 1_700_000_000.0  # seconds
ON_THE_WAY = 0.001  # seconds to Redis


@dataclass(frozen=True)
class Fleet:
    members: int
    a_minute: float
    demand: float  # calls, as a share of the limit
    skewed: bool  # whether a fifth of the members gets four fifths of the calls
    seconds: float

    @property
    def rate(self) -> float:
        return self.a_minute / 60

    @property
    def burst(self) -> int:
        return max(1, int(self.a_minute / 10))

    def asked(self, chance: random.Random) -> int:
        """The member that the next call comes to."""
        few = max(1, self.members // 5)
        if self.skewed and few < self.members:
            chosen = range(few) if chance.random() < 0.8 else range(few, self.members)
            return chance.choice(chosen)
        return chance.randrange(self.members)


class Outcome(NamedTuple):
    used: float  # of the limit
    refused: float  # of the calls
    refused_beside_tokens: float  # of the calls, while another member or the bucket had some
    exchanges: float  # a second


class Simulation:
    def __init__(self, fleet: Fleet, client: Any) -> None:
        client.flushall()
        self._fleet = fleet
        self._script = client.register_script(SCRIPT.replace("redis.call('TIME')", TOLD))
        self._client = client
        self._clock = _SimulatedClock()
        self._chance = random.Random(1)
        self._rung: set[int] = set()
        self._limiters = [self._member(number) for number in range(fleet.members)]
        self._due: list[tuple[float, int, int]] = []
        self._newest = [0] * fleet.members
        for number in range(fleet.members):
            heappush(self._due, (self._chance.random(), number, 0))

    def _member(self, number: int) -> _FleetRateLimiter:
        rung, fleet = self._rung, self._fleet
        return _FleetRateLimiter(
            fleet.rate, fleet.burst, True, lambda: rung.add(number), self._clock
        )

    def run(self) -> Outcome:
        fleet, warm = self._fleet, warm_up(self._fleet)
        calls = admitted = beside = exchanges = 0
        at = 0.0
        while at < warm + fleet.seconds:
            at += self._chance.expovariate(fleet.rate * fleet.demand)
            counts = at > warm
            exchanges += self._exchange_until(at) * counts
            self._clock.now = at
            number = fleet.asked(self._chance)
            taken = self._limiters[number].acquire()
            if self._rung:
                self._rung.clear()
                self._schedule(number, at + ON_THE_WAY)
            calls, admitted = calls + counts, admitted + (taken and counts)
            beside += counts and not taken and self._has_tokens()
        return Outcome(
            admitted / (fleet.rate * fleet.seconds),
            1 - admitted / calls,
            beside / calls,
            exchanges / fleet.seconds,
        )

    def _schedule(self, number: int, at: float) -> None:
        self._newest[number] += 1
        heappush(self._due, (at, number, self._newest[number]))

    def _exchange_until(self, end: float) -> int:
        count = 0
        while self._due and self._due[0][0] <= end:
            at, number, version = heappop(self._due)
            if version != self._newest[number]:
                continue
            self._clock.now = at
            limiter = self._limiters[number]
            told = [number, *limiter._ask(), round((EPOCH + at) * 1e6)]
            limiter._settle(*self._script(["bucket"], told)[:7])
            self._schedule(number, at + max(limiter._due(), ON_THE_WAY))
            count += 1
        return count

    def _has_tokens(self) -> bool:
        now = (EPOCH + self._clock.now) * 1e6
        if now - float(self._client.hget("bucket", "tat")) >= 60e6 / self._fleet.a_minute:
            return True
        return any(limiter._figures()["holding"] for limiter in self._limiters)


def warm_up(fleet: Fleet) -> float:
    """Seconds until members and bucket have what they will have; a big fleet is not waited for."""
    return max(20.0, min(120.0, 2 * (fleet.burst + fleet.members) / fleet.rate))


def rows(client: Any, seconds: float) -> Iterator[str]:
    for a_minute in (60, 500, 6000):
        for members in (1, 8, 50, 200, 1000):
            cells = []
            for skewed in (False, True):
                busy, calm = (
                    Simulation(Fleet(members, a_minute, demand, skewed, seconds), client).run()
                    for demand in (1.5, 0.5)
                )
                cells += [f"{busy.used:.0%}", f"{busy.exchanges:.0f}"]
                cells += [f"{calm.refused:.1%}", f"{calm.exchanges:.0f}"]
            yield f"| {a_minute:,} | {members:,} | {' | '.join(cells)} |"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=float, default=60.0, help="of each fleet, simulated")
    options = parser.parse_args()
    with RedisServer() as server, redis.Redis.from_url(server.url) as client:
        for row in rows(client, options.seconds):
            print(row, flush=True)


if __name__ == "__main__":
    main()
