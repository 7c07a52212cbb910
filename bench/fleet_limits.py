"""Whether a fleet keeps to its limit, uses it, and pays nothing for that on the call path.

Processes share one `FleetRateLimiter` on a Redis of their own, while that Redis is well, stopped,
restarted, and while one of them is killed. Every admission of every process and every draw is
logged; afterwards the logs are held against the bound: over every window of time at most

    limit x time + burst + a slice a member

Then three gateways share a limit by their files, and what arrives at the provider is held against the
same bound.

It takes `redis-server`, and about three minutes: `python bench/fleet_limits.py`.
"""

from __future__ import annotations

import argparse
import json
import signal
import sys
import time
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from itertools import chain
from operator import itemgetter
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any

import httpx

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "tools"))  # the support package

from gateway import ASKED, running  # noqa: E402

from support import RedisServer, start_child, until  # noqa: E402
from tarvomeldric import FleetRateLimiter, RateLimiter  # noqa: E402
from tarvomeldric.simulator import ProviderSimulator, rehearsal  # noqa: E402

WARM_UP = 2.0  # seconds in which members take what idle ones keep
SLACK = 0.5  # tokens, for the clock of Redis and ours

GATEWAY = """
[providers.only]
base_url = "{base_url}"

[providers.only.fleet]
name = "bench"
requests_per_minute = {a_minute}
burst = {burst}
redis_url = "${{REDIS_URL}}"

[policy]
base = "none"

[[routes]]
name = "fast"
providers = {{ only = "any-model" }}
"""

# One process of the fleet: asks all the time, and says when it was admitted and what it drew. The
# moments are from before and after `acquire`, for what is between them has no order.
MEMBER = """
import json, os, sys, time
from tarvomeldric import FleetRateLimiter, _fleet_limits
url, rate, burst, seconds, pause, path, go = sys.argv[1], *map(float, sys.argv[2:6]), *sys.argv[6:]
limiter = FleetRateLimiter("bench", requests_per_minute=rate * 60, burst=int(burst), redis_url=url)
ask, settle, asked, draws = limiter._ask, _fleet_limits._settle, [], []
def log_request():
    asked[:] = [ask()]
    return asked[0]
def log_reply(_, reply):
    if isinstance(reply, list) and asked: draws.append([reply[7], reply[5], asked[0][5], reply[0]])
    settle(_, reply)
limiter._ask, _fleet_limits._settle = log_request, log_reply
file = open(path, "w", buffering=1)
print("ready", flush=True)
while not os.path.exists(go): time.sleep(0.01)
end, tries = time.monotonic() + seconds, 0
while time.monotonic() < end:
    before, cpu = time.monotonic(), time.perf_counter_ns()
    admitted = limiter.acquire()
    took = time.perf_counter_ns() - cpu
    if admitted: file.write(f"{before!r} {time.monotonic()!r}\\n")
    tries += 1
    time.sleep(pause)
print(json.dumps({"draws": draws, "tries": tries, "fleet": limiter.fleet}))
"""


class Log:
    """What a fleet did: admissions as (before, after), oldest first, and its draws.

    A draw has its moment on the clock of Redis, when the bucket was made, what was given back to it,
    and what was granted. Times of Redis are in microseconds.
    """

    def __init__(self, admissions: list[tuple[float, float]], draws: list[list[int]]) -> None:
        self.admissions = sorted(admissions)
        self.draws = sorted(draws)

    def worst_excess(self, rate: float) -> float:
        """The most admissions of any window of time, less what the rate gives in it."""
        return worst_excess(self.admissions, rate)

    def used(self, rate: float, start: float, end: float) -> float:
        count = sum(start <= after <= end for _, after in self.admissions)
        return count / (rate * (end - start))


def worst_excess(admissions: list[tuple[float, float]], rate: float) -> float:
    """The most that were surely admitted within a window of time, less what the rate gives in it."""
    by_end = sorted(admissions, key=itemgetter(1))
    worst = 0.0
    for start, _ in admissions:
        ends = (after for before, after in by_end if before >= start)
        worst = max(worst, *(n - rate * (end - start) for n, end in enumerate(ends, 1)))
    return worst


def violations(draws: list[list[int]], rate: float, burst: int) -> int:
    """How many draws took more than a bucket of that rate and burst held, which was empty at first."""
    level, at, bucket, wrong = 0.0, 0, 0, 0
    for now, born, returned, granted in draws:
        if born != bucket:
            level, at, bucket = 0.0, born, born
        level = min(float(burst), level + rate * (now - at) / 1e6 + returned) - granted
        at = now
        wrong += level < -SLACK
    return wrong


def run_fleet(
    server: RedisServer,
    folder: Path,
    seconds: float,
    members: int = 8,
    rate: float = 50.0,
    burst: int = 10,
    meanwhile: Callable[[list[Any]], None] = lambda _: None,
) -> tuple[Log, float, float]:
    """Runs the members side by side; the log, and when they began and ended."""
    paths = [folder / f"{number}.log" for number in range(members)]
    go = folder / "go"
    go.unlink(missing_ok=True)
    figures = [*map(str, (rate, burst, seconds, 0.002))]
    children = [start_child(MEMBER, server.url, *figures, str(path), str(go)) for path in paths]
    draws: list[list[int]] = []
    try:
        for child in children:
            assert child.stdout is not None
            assert child.stdout.readline() == "ready\n"
        time.sleep(WARM_UP)
        start = time.monotonic()
        go.touch()
        meanwhile(children)
        for child in children:
            out, err = child.communicate(timeout=seconds + 60)
            assert child.returncode in (0, -signal.SIGKILL), err
            if out:
                draws += json.loads(out)["draws"]
    finally:
        for child in children:
            child.kill()
            child.wait()
    lines = chain.from_iterable(path.read_text().splitlines(True) for path in paths)
    pairs = (line.split() for line in lines if line.endswith("\n"))
    admissions = [(float(before), float(after)) for before, after in pairs]
    return Log(admissions, draws), start, start + seconds


def run_gateways(
    server: RedisServer, seconds: float, members: int = 3, rate: float = 50.0, burst: int = 10
) -> tuple[Log, float, float]:
    """Keeps gateways busy side by side; what arrived at their provider, and when they began and ended.

    An admission is somewhere between its client's request and its arrival; bodies tell the former.
    """
    program = [sys.executable, "-m", "tarvomeldric", "gateway"]
    with ExitStack() as stack:
        provider = stack.enter_context(ProviderSimulator(process=True))
        config = GATEWAY.format(base_url=provider.base_url, a_minute=rate * 60, burst=burst)
        gateways = [running(program, config, "toml", REDIS_URL=server.url) for _ in range(members)]
        urls = [stack.enter_context(gateway)[0] for gateway in gateways]
        clients = [
            stack.enter_context(httpx.Client(base_url=url, timeout=60, trust_env=False))
            for url in urls
        ]

        def answers(client: httpx.Client) -> bool:
            body = {**ASKED, "user": repr(time.monotonic())}
            return client.post("/chat/completions", json=body).status_code == 200

        def keep_asking(client: httpx.Client) -> None:
            while time.monotonic() < end:
                answers(client)
                time.sleep(0.005)

        for client in clients:  # its first request is a slow one
            until(lambda client=client: answers(client), patience=60)
        time.sleep(WARM_UP / 2)  # all of them still have leases, and the bucket fills up
        provider.clear()
        start = time.monotonic()
        end = start + seconds
        with ThreadPoolExecutor(members) as threads:
            list(threads.map(keep_asking, clients))
        arrived = [(float(each.body["user"]), each.arrived) for each in provider.requests]
    return Log(arrived, []), start, end


Happening = Callable[[list[Any]], None]


def well(_server: RedisServer, _seconds: float) -> Happening:
    return lambda _: None


def stopped(server: RedisServer, seconds: float) -> Happening:
    def act(_: list[Any]) -> None:
        time.sleep(seconds)
        server.pause()
        time.sleep(seconds)
        server.resume()

    return act


def restarted(server: RedisServer, seconds: float) -> Happening:
    def act(_: list[Any]) -> None:
        time.sleep(seconds)
        server.stop()
        time.sleep(seconds / 3)
        server.start()

    return act


def killed(_: RedisServer, seconds: float) -> Happening:
    def act(children: list[Any]) -> None:
        time.sleep(seconds)
        children[0].kill()

    return act


def measure_fleets(folder: Path, seconds: float) -> Iterator[str]:
    members, rate, burst = 8, 50.0, 10
    room = burst + members * max(1, int(rate / 20))
    for happens in (well, stopped, restarted, killed):
        with RedisServer() as server:
            log, start, end = run_fleet(
                server, folder, seconds, members, rate, burst, happens(server, 3)
            )
        excess, used = log.worst_excess(rate), log.used(rate, start, end)
        wrong = violations(log.draws, rate, burst)
        yield (
            f"{happens.__name__:<10} admitted {len(log.admissions):>5}, used {used:6.1%}, "
            f"worst window {excess:5.1f} above limit x time of {room} allowed, "
            f"{len(log.draws)} draws, {wrong} of them too large"
        )


def measure_gateways(seconds: float) -> Iterator[str]:
    members, rate, burst = 3, 50.0, 10
    room = burst + members * int(rate / 20)
    with RedisServer() as server:
        log, start, end = run_gateways(server, seconds, members, rate, burst)
    arrivals = worst_excess([(at, at) for _, at in log.admissions], rate)
    yield (
        f"{members} gateways: {len(log.admissions):>4} arrived, used {log.used(rate, start, end):6.1%}, "
        f"worst window {log.worst_excess(rate):5.1f} above limit x time of {room} allowed "
        f"({arrivals:.1f} with what delayed the first of them on its way)"
    )


def measure_acquire(tries: int = 20_000) -> Iterator[str]:
    """What `acquire` takes, in turns with a plain limiter, while Redis is well and while it is stopped."""
    plain = RateLimiter(max_tokens=50, refill_rate=100.0)
    with RedisServer() as server:
        shared = FleetRateLimiter("bench", requests_per_minute=6000, burst=50, redis_url=server.url)
        until(shared.acquire)
        for state in ("well", "stopped"):
            if state == "stopped":
                server.pause()
                until(lambda: not shared.fleet["connected"])
            taken: dict[str, list[int]] = {"plain": [], "fleet": []}
            turns = [("plain", plain), ("fleet", shared)]
            for _ in range(tries):
                turns.reverse()  # the first one pays for the pause
                for name, limiter in turns:
                    began = time.perf_counter_ns()
                    limiter.acquire()
                    taken[name].append(time.perf_counter_ns() - began)
                time.sleep(0.0001)
            figures = {name: sorted(each) for name, each in taken.items()}
            for share, called in (0.5, "p50"), (0.99, "p99"):
                own, other = (
                    figures[name][int(tries * share)] / 1e3 for name in ("fleet", "plain")
                )
                yield (
                    f"acquire, Redis {state:<8} {called} {own:6.2f} us, "
                    f"{own / other:.2f} of a plain limiter's {other:.2f} us"
                )
        server.resume()


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawTextHelpFormatter
    )
    parser.add_argument("--seconds", type=float, default=10.0, help="of each run")
    parser.add_argument("--gateways", action="store_true", help="nothing but the gateways")
    options = parser.parse_args()
    with TemporaryDirectory() as folder, rehearsal():
        lines = measure_gateways(options.seconds)
        if not options.gateways:
            fleets = measure_fleets(Path(folder), options.seconds)
            lines = chain(measure_acquire(), fleets, lines)
        for line in lines:
            print(line, flush=True)


if __name__ == "__main__":
    main()
