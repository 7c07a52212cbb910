"""Rules on their way through a real Redis: what is sent and taken in, and what failures cost."""

from __future__ import annotations

import asyncio
import gc
import json
import socket
import sys
import time
import weakref
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest
import redis

from support import RedisServer, engine_on, run_child, start_child, until, worst_pause
from support.exits import end_under_daemon_threads
from tarvomeldric import FlywheelLearner
from tarvomeldric.simulator import ProviderSimulator

pytestmark = pytest.mark.once
CHANNEL, HASH = "tarvomeldric:flywheel", "tarvomeldric:flywheel:rules"


class Server(RedisServer):
    """One with a client that looks at what is in it."""

    def __init__(self) -> None:
        super().__init__()
        self.client = redis.Redis.from_url(self.url, decode_responses=True)

    def rules(self) -> dict[str, Any]:
        return {key: json.loads(text) for key, text in self.client.hgetall(HASH).items()}

    def subscribers(self) -> Any:
        return self.client.pubsub_numsub(CHANNEL)[0][1]


@pytest.fixture
def server(monkeypatch: pytest.MonkeyPatch) -> Iterator[Server]:
    """One for each test, so that no learner of another one talks in between."""
    with Server() as server, server.client:
        monkeypatch.setenv("TARVOMELDRIC_REDIS_URL", server.url)
        yield server


def learned(learner: Any) -> dict[str, Any]:
    return {f"{rule.pattern}:{rule.action}": rule.to_dict() for rule in learner.get_rules()[84:]}


def test_what_is_sent_is_fixed_to_the_letter(server: Server, monkeypatch: Any) -> None:
    monkeypatch.delenv("HOSTNAME", raising=False)
    learner, heard = FlywheelLearner(), server.client.pubsub(ignore_subscribe_messages=True)
    heard.subscribe(CHANNEL)
    assert heard.get_message(timeout=5) is None
    for source in ("local", "café 1"):
        learner.record("tïmeout:\U0001f600", "a:b", True, 0.3)
        ((key, rule),) = learned(learner).items()
        assert server.client.hget(HASH, key) == json.dumps(rule)
        message = {"key": key, "rule": rule, "source": source}
        assert heard.get_message(timeout=5)["data"] == json.dumps(message)
        monkeypatch.setenv("HOSTNAME", "café 1")
    heard.close()


JUNK = [b"", b"{", b"\xff\xfe", b"5", b"[]", b"null", b"[" * 100_000, b'{"pattern": "p"}']
JUNK += [b'{"pattern": "p", "action": 5}', b'{"pattern": "p", "action": "a", "confidence": "1"}']


def test_taking_in_the_hash_and_the_channel(server: Server) -> None:
    def say(key: Any, confidence: float) -> None:
        message = {"key": key, "rule": {**rule, "confidence": confidence}}
        server.client.publish(CHANNEL, json.dumps(message))

    rule = {"pattern": "p", "action": "a", "confidence": 0.2, "last_seen": time.time(), "new": 1}
    good = dict.fromkeys([b"odd \xff", b"rate_limit:retry:wait"], json.dumps(rule))
    server.client.hset(HASH, mapping={**dict(enumerate(JUNK)), **good})
    learner: Any = FlywheelLearner()
    assert list(learner._rules)[84:] == ["odd \ufffd"]
    assert learner._rules["rate_limit:retry:wait"].confidence == 0.2
    assert not learner.get_stats()["bootstrap_rules_loaded"]
    until(lambda: server.subscribers() == 1)
    for junk in JUNK:
        server.client.publish(CHANNEL, junk)
        server.client.publish(CHANNEL, b'{"key": "p:junk", "rule": %s}' % junk)
    for key, confidence in (("", 1.0), (5, 1.0), (None, 1.0), ("p:a", 0.5), ("p:a", 0.4)):
        say(key, confidence)
    say("p:nan", float("nan"))
    until(lambda: "p:nan" in learner._rules)
    assert list(learner._rules)[85:] == ["p:a", "p:nan"]
    assert (learner._rules["p:a"].confidence, learner.match("p")) == (0.5, None)
    say("p:a", 0.6)
    until(lambda: learner._rules["p:a"].confidence == 0.6)


CONVERGING = """
import json
from support import engine_with, until
learner = engine_with()._learner
until(lambda: "parent 0:0" in learner._rules)
for number in range(10): learner.record("child", str(number), number % 2 == 0)
until(lambda: len(learner._rules) == 84 + 10 + 31)
print(json.dumps([*learner._rules]))
"""


def test_learners_of_threads_coroutines_and_processes_converge(server: Server) -> None:
    def use(name: int) -> None:
        for number in range(60):
            learner.record(f"parent {name}", str(number % 5), True, 1.0)
            learner.match("p:x"), learner.get_stats(), learner.get_rules()

    async def call() -> None:
        await asyncio.gather(*(engine.call("Hi", bulkhead_timeout=30) for _ in range(40)))

    child = start_child(CONVERGING)
    until(lambda: server.subscribers() == 1)
    with ProviderSimulator(default="answer") as simulator, ThreadPoolExecutor(6) as threads:
        engine: Any = engine_on(simulator)
        learner = engine._learner
        until(lambda: server.subscribers() == 2)
        work = [threads.submit(use, name) for name in range(6)]
        asyncio.run(call())
        assert [done.result(60) for done in work] == [None] * 6
    out, err = child.communicate(timeout=30)
    assert err == ""
    until(lambda: len(learned(learner)) == 41)
    assert learner.get_stats()["total_records"] == 6 * 60 + 40
    assert server.rules() == learned(learner)
    assert set(json.loads(out)) == set(learner._rules)


def test_a_server_that_comes_back_gets_the_latest_state(server: Server) -> None:
    learner: Any = FlywheelLearner()
    until(lambda: server.subscribers() == 1)
    server.stop()
    for number in range(30):
        learner.record("p", str(number % 3), True)
    server.start()
    until(lambda: learner.record("p", "0", True) or bool(server.rules()))
    assert server.rules() == learned(learner)
    assert server.rules()["p:1"]["success_count"] == 10
    until(lambda: not learner._redis_sub_thread.is_alive())
    assert (server.subscribers(), learner._sync_mode) == (0, "redis")


def test_a_fleet_that_cannot_be_joined_is_done_without(monkeypatch: Any) -> None:
    with socket.create_server(("127.0.0.1", 0)) as silent:
        address = f"redis://127.0.0.1:{silent.getsockname()[1]}"
        for url in (address, "redis://127.0.0.1:1", "nonsense", "redis://[", "unix:///nowhere"):
            start = time.monotonic()
            assert FlywheelLearner(redis_url=url).get_stats()["sync_mode"] == "local"
            assert time.monotonic() - start < 3
    monkeypatch.setitem(sys.modules, "redis", None)
    assert FlywheelLearner(redis_url=address).get_stats()["sync_mode"] == "local"


def test_subscribers_end_with_their_learner_or_program(server: Server) -> None:
    learner: Any = FlywheelLearner()
    until(lambda: server.subscribers() == 1)
    thread, gone = learner._redis_sub_thread, weakref.ref(learner)
    del learner
    gc.collect()
    assert gone() is None
    until(lambda: not thread.is_alive() and server.subscribers() == 0)
    end_under_daemon_threads(10)


@pytest.mark.uninstrumented
def test_the_loop_goes_on_while_rules_are_shared(server: Server) -> None:
    async def calls(healthy: bool) -> None:
        for _ in range(5):
            await asyncio.gather(*(engine.call("Hi") for _ in range(4)))
            if healthy:
                assert await asyncio.to_thread(server.rules) == learned(engine._learner)

    async def pauses() -> list[float]:
        await engine.call("Hi")
        bare, healthy = await worst_pause(asyncio.sleep(1)), await worst_pause(calls(True))
        server.pause()
        return [bare, healthy, await worst_pause(calls(False))]

    with ProviderSimulator(default="answer", process=True) as simulator:
        engine: Any = engine_on(simulator)
        bare, *shared = asyncio.run(pauses())
    # Whoever waited on the loop's thread for the stalled server would do so for half a second.
    assert max(shared) < bare + 0.4
    assert engine._learner.get_stats()["total_records"] == 41


FORKING = """
import os, signal, sys, threading, time
import redis
from support import engine_with, provider, until
engine = engine_with(provider(sys.argv[1]))
engine.call_sync("Hi")
record, learner, pool = engine._providers["mine"], engine._learner, {**engine._sync_client_pool}
message = '{"key": "k", "rule": {"pattern": "p", "action": "a"}}'
def live(mode):
    assert engine._sync_client_pool == {} and engine.call_sync("Hi").text == "answer"
    assert learner.get_stats()["sync_mode"] == mode
    client = redis.Redis.from_url(learner._redis_url)
    heard = lambda: client.publish(learner._redis_channel, message) and "k" in learner._rules
    if mode == "redis": until(heard)
def fork(mode):
    pid, patience = os.fork(), 800
    if not pid:
        try: live(mode)
        finally: os._exit(sys.exc_info()[0] is not None)
    while (ended := os.waitpid(pid, os.WNOHANG)) == (0, 0) and (patience := patience - 1):
        time.sleep(0.01)
    if not patience: os.kill(pid, signal.SIGKILL)
    assert ended == (pid, 0), (mode, ended)
def stand_in_line(lock):
    with lock: pass
holders = [engine, learner, engine._metrics, engine._diagnoser, record.bulkhead, record.rate_limiter]
for lock in (holder._lock for holder in holders):
    with lock:
        threading.Thread(target=stand_in_line, args=(lock,), daemon=True).start()
        time.sleep(0.05)
        fork("redis")
def use():
    while True: learner.record("parent", "act", True)
threading.Thread(target=use, daemon=True).start()
for _ in range(10): fork("redis")
assert engine._sync_client_pool == pool and engine.call_sync("Hi").text == "answer"
assert learner._redis_sub_thread.is_alive()
os.kill(int(sys.argv[2]), signal.SIGKILL)
fork("local")
"""


def test_a_forked_child_starts_afresh(server: Server) -> None:
    with ProviderSimulator(default="answer") as simulator:
        run_child(FORKING, simulator.base_url, str(server.pid), strict=False)
