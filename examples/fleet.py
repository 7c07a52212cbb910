"""Three processes share what they learn through Redis.

One finds out that requests for a model family go well with another provider; from then on the
calls of all three take that road. The Redis is that of TARVOMELDRIC_REDIS_URL, else one of our own.
"""

from __future__ import annotations

import multiprocessing
import os
import socket
import subprocess
import time
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from typing import Any

import redis
from redis.backoff import ConstantBackoff
from redis.retry import Retry

from tarvomeldric import FlywheelLearner, ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal

CHANNEL = f"tarvomeldric:fleet-example:{os.getpid()}"
MODEL, PATTERN, ACTION = "gpt-4o", "model_request:openai", "failover:anthropic"


def main() -> None:
    spawn = multiprocessing.get_context("spawn")
    with ExitStack() as stack:
        url = stack.enter_context(fleet())
        places = {}
        for name in ("openai", "anthropic"):
            simulator = stack.enter_context(ProviderSimulator(default=f"{name} here."))
            places[name] = simulator.base_url
        fixed = (url, CHANNEL, places, spawn.Barrier(3))
        for name in ("Lisbon", "Oslo", "Turin"):
            spawn.Process(target=live, args=(name, *fixed)).start()
        for member in multiprocessing.active_children():
            member.join()


@contextmanager
def fleet() -> Iterator[str]:
    """The URL of a Redis; what was shared there is removed at the end."""
    server, url = None, os.environ.get("TARVOMELDRIC_REDIS_URL", "")
    if not url:
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = str(free.getsockname()[1])
        command = ["redis-server", "--port", port, "--bind", "127.0.0.1", "--save", ""]
        server = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        url = f"redis://127.0.0.1:{port}"
        print(f"TARVOMELDRIC_REDIS_URL is not set: started a Redis of our own at {url}\n")
    client = redis.Redis.from_url(url, retry=Retry(ConstantBackoff(0.05), 100))
    try:
        client.ping()  # it may still be starting
        yield url
        client.delete(f"{CHANNEL}:rules")
    finally:
        if server:
            server.terminate()
            server.wait()


def live(name: str, url: str, channel: str, places: dict[str, str], turns: Any) -> None:
    with rehearsal(), SelfHealingEngine({}) as engine:
        engine._learner = learner = FlywheelLearner(None, url, channel)
        for provider, base_url in places.items():
            engine.add_provider(ProviderConfig(provider, base_url, "any-key"))
        ask(name, engine)
        turns.wait()
        if name == "Lisbon":
            print(f"\n{name} learns: {PATTERN} goes well with {ACTION}\n\n", end="", flush=True)
            for _ in range(5):
                learner.record(PATTERN, ACTION, True, 20.0)
        else:
            deadline = time.monotonic() + 10
            while learner.match_best_action(PATTERN) != ACTION and time.monotonic() < deadline:
                time.sleep(0.01)
        ask(name, engine)


def ask(name: str, engine: SelfHealingEngine) -> None:
    result = engine.call_sync("Who is there?", MODEL)
    print(f"{name}: {result.text} (heal_level {result.heal_level!r})\n", end="", flush=True)


if __name__ == "__main__":
    main()
