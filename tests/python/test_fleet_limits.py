"""A limit that processes have in common: what they are admitted together, whatever becomes of Redis."""

from __future__ import annotations

import copy
import pickle
import socket
import sys
import threading
import time
from pathlib import Path
from typing import Any

import pytest
import redis

from support import RedisServer, engine_with, provider, run_child, tireless, until
from tarvomeldric import APIError, CallPolicy, CallRefused, FleetRateLimiter
from tarvomeldric.simulator import ProviderSimulator, Reply

sys.path.append(str(Path(__file__).parents[2] / "bench"))
import fleet_limits as bench

GOOD: dict[str, Any] = {"name": "n", "requests_per_minute": 600, "redis_url": "redis://localhost"}


def limiter(name: str = "a", a_minute: float = 6000, **more: Any) -> FleetRateLimiter:
    made = FleetRateLimiter(name, requests_per_minute=a_minute, **more)
    until(made.acquire)
    return made


TYPES = [{"name": 5}, {"requests_per_minute": True}, {"burst": 1.5}, {"share_retry_after": 1}]
VALUES: list[Any] = [{"name": ""}, {"name": "a{b}"}, {"burst": 0}, {"redis_url": None}]
VALUES += [{"requests_per_minute": 0}, {"requests_per_minute": float("nan")}]
VALUES += [{"redis_url": "http://x:secret@y"}, {"redis_url": "redis://:secret@["}]


@pytest.mark.parametrize("wrong", [*TYPES, *VALUES], ids=str)
def test_a_wrong_argument_is_named(wrong: Any, monkeypatch: Any) -> None:
    error = TypeError if wrong in TYPES else ValueError
    monkeypatch.delenv("TARVOMELDRIC_REDIS_URL", raising=False)
    with pytest.raises(error, match=f"^{next(iter(wrong))} must be") as caught:
        FleetRateLimiter(**{**GOOD, **wrong})
    assert "secret" not in str(caught.value)


@pytest.mark.once
@pytest.mark.parametrize("happens", [bench.stopped, bench.restarted, bench.killed])
def test_a_fleet_is_admitted_its_limit_and_no_more(
    happens: Any, server: RedisServer, tmp_path: Path
) -> None:
    members, rate, burst = 3, 50.0, 10
    log, _, _ = bench.run_fleet(server, tmp_path, 3, members, rate, burst, happens(server, 1))
    assert log.worst_excess(rate) <= burst + members * 2
    assert bench.violations(log.draws, rate, burst) == 0
    assert len(log.admissions) > 20  # how much of it is used, a busy machine decides


@pytest.mark.once
def test_gateways_send_a_provider_their_limit_and_no_more(server: RedisServer) -> None:
    members, rate, burst = 3, 50.0, 30
    log, start, end = bench.run_gateways(server, 2, members, rate, burst)
    assert log.worst_excess(rate) <= burst + members * 2
    assert log.used(rate, start, end) > 0.5


@pytest.mark.once
def test_what_was_spent_is_not_there_again_before_it_was_paid_for(server: RedisServer) -> None:
    members = [limiter(a_minute=3000, burst=30) for _ in range(3)]
    time.sleep(1.2)  # all of them still have leases of ten, and the bucket fills up
    admitted, start = 0, time.monotonic()
    while time.monotonic() < start + 0.2:
        admitted += sum(member.acquire() for member in members)
    assert admitted <= 30 + 3 * 2 + 50 * (time.monotonic() - start)


def test_copies_are_members_of_their_own(server: RedisServer) -> None:
    first = limiter(burst=7, share_retry_after=False)
    others = [copy.copy(first), pickle.loads(pickle.dumps(first))]
    assert [first, first] == others
    assert first != limiter("b")
    assert repr(first) == (
        "FleetRateLimiter(name='a', requests_per_minute=6000, burst=7, share_retry_after=False)"
    )
    until(lambda: others[1].fleet["members"] == 3)
    record = provider(rate_limiter=first)
    assert record.rate_limiter is first


@pytest.mark.once
def test_every_request_is_charged(server: RedisServer) -> None:
    shared = FleetRateLimiter("a", requests_per_minute=40, burst=1)
    until(lambda: shared.fleet["holding"] == 1)
    with ProviderSimulator(default=500) as simulator:
        record = tireless(base_url=simulator.base_url, rate_limiter=shared)
        with engine_with(record) as engine, pytest.raises(CallRefused):
            engine.with_policy(CallPolicy(initial_backoff=0.01)).call_sync("Hi")
        assert simulator.request_count <= 2
    assert shared.to_dict()["rejected"] > 0


@pytest.mark.once
def test_what_a_provider_asked_for_is_known_to_all(server: RedisServer) -> None:
    told, hearing, deaf = limiter(), limiter(), limiter(share_retry_after=False)
    records = [provider(rate_limiter=each) for each in (told, hearing, deaf)]
    with ProviderSimulator(default="answer") as simulator:
        simulator.script(Reply(status=429, headers={"Retry-After": "100"}))
        records[0].base_url = simulator.base_url
        policy = CallPolicy(max_attempts=1, retry_after=True)
        until(lambda: told.acquire(0) and told.fleet["holding"] > 1)
        with engine_with(records[0]) as engine, pytest.raises(APIError, match="429"):
            engine.with_policy(policy).call_sync("Hi")
    until(lambda: records[1]._left_alone_s() > 90)
    until(deaf.acquire)
    assert records[2]._left_alone_s() == 0


FORKING = """
import os, sys, time, warnings
warnings.simplefilter("ignore", DeprecationWarning)  # newer Pythons warn of a fork among threads
from support import until
from tarvomeldric import FleetRateLimiter
limiter = FleetRateLimiter("a", requests_per_minute=6000, burst=50)
until(limiter.acquire)
until(lambda: limiter.acquire(0) and limiter.fleet["holding"] > 9)
pid = os.fork()
if not pid:
    held = limiter.to_dict()["tokens_remaining"]
    until(limiter.acquire)
    until(lambda: limiter.fleet["members"] == 2)
    os._exit(held != 0)
assert os.waitpid(pid, 0) == (pid, 0)
until(limiter.acquire)
"""


def test_a_forked_child_is_a_member_of_its_own(server: RedisServer) -> None:
    run_child(FORKING, strict=False)


@pytest.mark.once
def test_scripts_and_buckets_may_be_lost_and_keys_be_spoilt(server: RedisServer) -> None:
    shared, client = limiter(), redis.Redis.from_url(server.url)
    key = "tarvomeldric:limit:a"
    client.script_flush()
    until(shared.acquire)
    for spoilt in ({"tat": "nan"}, {"held": "x", "in_need": "1e999"}, {"tat": "9" * 30}):
        client.hset(key, mapping=spoilt)
        client.hset(key, mapping={"m:": "1", "m:x": "9 9", "swept": "0"})
        time.sleep(0.1)
        until(lambda: shared.acquire() and shared.fleet["connected"])
        if "9" * 30 in spoilt.values():
            client.delete(key)
    client.set(key, "of somebody else")
    until(lambda: shared.acquire(0) and "WRONGTYPE" in shared.fleet["error"])
    assert not shared.fleet["connected"]
    client.delete(key)
    until(lambda: shared.acquire() and shared.fleet["connected"])
    client.close()


ODD = [b"*1\r\n:5\r\n", b":5\r\n", b"*8\r\n" + b":999999999999\r\n" * 8, b"-READONLY no\r\n"]
ODD += [b"*8\r\n" + b":-1\r\n" * 8, b"*8\r\n" + b"$3\r\nnan\r\n" * 8, b"*-1\r\n", b"xyz\r\n"]


@pytest.mark.parametrize("reply", ODD)
def test_an_odd_reply_grants_no_more_than_was_asked_for(reply: bytes) -> None:
    def serve() -> None:
        client, _ = listener.accept()
        with client:
            while asked := client.recv(65536):
                client.sendall(b"+PONG\r\n" if b"PING" in asked else reply)

    def use(url: str) -> None:
        shared = FleetRateLimiter("a", requests_per_minute=60, burst=5, redis_url=url)
        until(lambda: shared.fleet["connected"] or bool(shared.fleet["error"]))
        assert sum(shared.acquire() for _ in range(9)) <= 1

    with socket.create_server(("127.0.0.1", 0)) as listener:
        threading.Thread(target=serve, daemon=True).start()
        use(f"redis://127.0.0.1:{listener.getsockname()[1]}")
    until(lambda: "fleet limits" not in {thread.name for thread in threading.enumerate()})
