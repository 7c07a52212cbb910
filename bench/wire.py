"""What an exchange costs on the wire, beside bare httpx as it is installed by itself

Both sides run in processes of their own and take turns. CPU time is that of the whole process.
"""

import asyncio
import importlib.machinery
import json
import subprocess
import sys
from collections.abc import Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from time import process_time
from typing import Any

import httpx
from measuring import rounds_of
from table import Row

from tarvomeldric import APIError, Bulkhead, ProviderConfig, RateLimiter, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Reply

PROVIDER = "openai"


def _wide_open(url: str) -> ProviderConfig:
    """A provider that takes all requests that come; this also runs where nothing else is at hand."""
    limiter = RateLimiter(max_tokens=10**9, refill_rate=1e9, _tokens=1e9)
    return ProviderConfig(PROVIDER, url, "bench-key", rate_limiter=limiter, bulkhead=Bulkhead(1000))


FORMS = (
    # blocking or awaited, at once, calls a round, the most CPU time as a ratio to bare httpx's
    ("awaited", 1, 256, 0.80),
    ("awaited", 64, 512, 0.30),
    ("awaited", 512, 1024, None),
    ("blocking", 1, 256, None),
    ("blocking", 64, 512, 1.0),
)
BURSTS = (("blocking", 32, 160), ("awaited", 32, 160))  # at a server that takes 50 ms
MOST_CONNECTIONS = 40
FAILURES = (APIError, RuntimeError, httpx.HTTPError)


def measure(quick: bool) -> Iterator[Row]:
    with ProviderSimulator(process=True) as provider:
        sides = {side: Side(side, provider.base_url) for side in ("engine", "bare")}
        for form, at_once, calls, most in FORMS:
            work = (form, at_once, calls)
            rounds = [
                {name: side.run(*work) for name, side in sides.items()}
                for _ in (None, *rounds_of(quick))
            ]
            yield row(f"{form}, {at_once} at once", rounds[1:], calls, most)
        for side in sides.values():
            side.end()
    with ProviderSimulator(default=Reply(delay=0.05), process=True) as provider:
        for burst in BURSTS:
            opened = {}
            for name in ("engine", "bare"):
                side = Side(name, provider.base_url)
                opened[name] = side.run(*burst)["connections"]
                side.end()
            what = f"{burst[0]}, connections of {burst[2]} calls, {burst[1]} at once"
            ratio = opened["engine"] / opened["bare"]
            yield Row(what, [opened["engine"]], "", None, MOST_CONNECTIONS, ratio, "bare")


def row(what: str, rounds: Sequence[dict[str, Any]], calls: int, most: float | None) -> Row:
    ratios = [one["engine"]["cpu"] / one["bare"]["cpu"] for one in rounds]
    for name in ("engine", "bare"):
        failed = sum(one[name]["failed"] for one in rounds)
        what += f", {name} failed {failed}" if failed else ""
    return Row(what, ratios, "of bare", None, most)


class Side:
    """A process that makes calls when it is told to."""

    def __init__(self, name: str, url: str) -> None:
        command = [sys.executable, __file__, name, url]
        pipe = subprocess.PIPE
        self._process = subprocess.Popen(command, stdin=pipe, stdout=pipe, text=True)

    def run(self, form: str, at_once: int, calls: int) -> Any:
        assert self._process.stdin
        assert self._process.stdout
        print(json.dumps([form, at_once, calls]), file=self._process.stdin, flush=True)
        return json.loads(self._process.stdout.readline())

    def end(self) -> None:
        self._process.communicate()


def serve(name: str, url: str) -> None:
    """What such a process does."""
    connections = 0

    def watch(event: str, _: object) -> None:
        nonlocal connections
        connections += event == "socket.connect"

    blocking, awaited = engine_at(url) if name == "engine" else bare_at(url)
    sys.addaudithook(watch)
    loop = asyncio.new_event_loop()

    async def work(count: int) -> int:
        failed = 0
        for _ in range(count):
            try:
                await awaited()
            except FAILURES:
                failed += 1
        return failed

    async def together(at_once: int, each: int) -> int:
        return sum(await asyncio.gather(*(work(each) for _ in range(at_once))))

    def work_blocking(count: int) -> int:
        failed = 0
        for _ in range(count):
            try:
                blocking()
            except FAILURES:
                failed += 1
        return failed

    for line in sys.stdin:
        form, at_once, calls = json.loads(line)
        connections, start = 0, process_time()
        if form == "awaited":
            failed = loop.run_until_complete(together(at_once, calls // at_once))
        else:
            with ThreadPoolExecutor(at_once) as pool:
                failed = sum(pool.map(work_blocking, [calls // at_once] * at_once))
        told = {"cpu": process_time() - start, "failed": failed, "connections": connections}
        print(json.dumps(told), flush=True)


def engine_at(url: str) -> Any:
    engine = SelfHealingEngine({PROVIDER: _wide_open(url)})
    request = {"prompt": "Why is the sky blue?", "model": "gpt-4o-mini"}
    return lambda: engine.call_sync(**request), lambda: engine.call(**request)


def bare_at(url: str) -> Any:
    """The same exchanges, by clients with the same limits."""
    without_sniffio()
    body = {
        "model": "gpt-4o-mini",
        "messages": [{"role": "user", "content": "Why is the sky blue?"}],
    }
    headers = {"Authorization": "Bearer bench-key", "Content-Type": "application/json"}
    post: dict[str, Any] = {"json": body, "headers": headers, "timeout": 8.0}
    limits = {"keepalive_expiry": 30.0}
    client = httpx.Client(
        limits=httpx.Limits(max_connections=50, max_keepalive_connections=10, **limits)
    )
    awaited = httpx.AsyncClient(
        limits=httpx.Limits(max_connections=100, max_keepalive_connections=20, **limits)
    )

    async def call() -> object:
        return (await awaited.post(url + "/chat/completions", **post)).json()

    return lambda: client.post(url + "/chat/completions", **post).json(), call


def without_sniffio() -> None:
    """Importing it fails from now on, and costs what an import that fails does cost."""

    class Finder(importlib.machinery.PathFinder):
        @classmethod
        def find_spec(cls, name: str, path: Any = None, target: Any = None) -> Any:
            return super().find_spec("no_" + name if name == "sniffio" else name, path, target)

    sys.modules.pop("sniffio", None)
    at = sys.meta_path.index(importlib.machinery.PathFinder)
    sys.meta_path[at] = Finder


if __name__ == "__main__":
    serve(*sys.argv[1:])
