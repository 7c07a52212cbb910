"""Rules on their way through a real Redis: what is sent and taken in, and what failures cost."""

from __future__ import annotations

import asyncio
import gc
import json
import signal
import socket
import subprocess
import sys
import time
import weakref
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest
import redis
from helpers import engine_on, run_child, start_child, until

from tarvomeldric import FlywheelLearner, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator

pytestmark = pytest.mark.once
CHANNEL, HASH = "tarvomeldric:flywheel", "tarvomeldric:flywheel:rules"


class Server:
    """A redis-server without persistence on a free loopback port."""

    def __init__(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        self.url = f"redis://127.0.0.1:{self.port}"
        self.client = redis.Redis.from_url(self.url, decode_responses=True)
        self.start()

    def start(self) -> None:
        options = ["--port", str(self.port), "--bind", "127.0.0.1", "--save", ""]
        self.process = subprocess.Popen(["redis-server", *options], stdout=subprocess.DEVNULL)
        until(lambda: socket.socket().connect_ex(("127.0.0.1", self.port)) == 0)

    def stop(self) -> None:
        self.process.kill()
        self.process.wait()

    def rules(self) -> dict[str, Any]:
        return {key: json.loads(text) for key, text in self.client.hgetall(HASH).items()}

    def subscribers(self) -> Any:
        return self.client.pubsub_numsub(CHANNEL)[0][1]


@pytest.fixture(scope="session")
def shared() -> Iterator[Server]:
    server = Server()
    yield server
    server.stop()


@pytest.fixture
def server(shared: Server, monkeypatch: pytest.MonkeyPatch) -> Server:
    shared.client.flushall()
    shared.client.execute_command("CLIENT KILL TYPE pubsub")  # of tests that failed
    until(lambda: shared.subscribers() == 0)
    monkeypatch.setenv("TARVOMELDRIC_REDIS_URL", shared.url)
    return shared


def learned(learner: Any) -> dict[str, Any]:
    return {f"{rule.pattern}:{rule.action}": rule.to_dict() for rule in learner.get_rules()[84:]}


def test_what_is_sent_is_fixed_to_the_letter(server: Server, monkeypatch: Any) -> None:
    monkeypatch.delenv("HOSTNAME", raising=False)
    learner = FlywheelLearner()
    with server.client.pubsub(ignore_subscribe_messages=True) as heard:
        heard.subscribe(CHANNEL)
        assert heard.get_message(timeout=5) is None
        for source in ("local", "café 1"):
            learner.record("tïmeout:\U0001f600", "a:b", True, 0.3)
            ((key, rule),) = learned(learner).items()
            assert server.client.hget(HASH, key) == json.dumps(rule)
            message = {"key": key, "rule": rule, "source": source}
            assert heard.get_message(timeout=5)["data"] == json.dumps(message)
            monkeypatch.setenv("HOSTNAME", "café 1")


JUNK = [b"", b"{", b"\xff\xfe", b"5", b"[]", b"null", b"[" * 100_000, b'{"pattern": "p"}']
JUNK += [b'{"pattern": "p", "action": 5}', b'{"pattern": "p", "action": "a", "confidence": "1"}']


def test_taking_in_the_hash_and_the_channel(server: Server) -> None:
    def rule(confidence: float) -> dict[str, Any]:
        now = time.time()
        return {"pattern": "p", "action": "a", "confidence": confidence, "last_seen": now, "new": 1}

    def say(key: Any, confidence: float) -> None:
        server.client.publish(CHANNEL, json.dumps({"key": key, "rule": rule(confidence)}))

    for number, junk in enumerate(JUNK):
        server.client.hset(HASH, f"junk {number}", junk)
    for name in (b"odd \xff", b"rate_limit:retry:wait"):
        server.client.hset(HASH, name, json.dumps(rule(0.2)))
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
    assert learner._rules["p:a"].confidence == 0.5
    assert learner.match("p") is None
    say("p:a", 0.6)
    until(lambda: learner._rules["p:a"].confidence == 0.6)


CONVERGING = """
import json
from helpers import until
from tarvomeldric import SelfHealingEngine
learner = SelfHealingEngine({})._learner
until(lambda: "parent:act" in learner._rules)
for number in range(10): learner.record("child", str(number), number % 2 == 0)
print(json.dumps({key: rule.to_dict() for key, rule in list(learner._rules.items())[84:]}))
"""


def test_engines_in_two_processes_converge(server: Server) -> None:
    engine: Any = SelfHealingEngine({})
    child = start_child(CONVERGING)
    until(lambda: server.subscribers() == 2)
    engine._learner.record("parent", "act", True)
    out, err = child.communicate(timeout=30)
    assert err == ""
    until(lambda: "child:9" in engine._learner._rules)
    assert len(server.rules()) == 11
    assert learned(engine._learner) == json.loads(out) == server.rules()


def test_a_server_that_comes_back_gets_the_latest_state(request: Any) -> None:
    server = Server()
    request.addfinalizer(lambda: server.stop())
    learner: Any = FlywheelLearner(redis_url=server.url)
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


def test_a_learner_that_is_gone_is_no_subscriber(server: Server) -> None:
    learner: Any = FlywheelLearner()
    until(lambda: server.subscribers() == 1)
    thread, gone = learner._redis_sub_thread, weakref.ref(learner)
    del learner
    gc.collect()
    assert gone() is None
    until(lambda: not thread.is_alive() and server.subscribers() == 0)


BUSY = """
import sys, threading, time
from tarvomeldric import FlywheelLearner
learners = [FlywheelLearner(), FlywheelLearner()]
def use():
    while True: learners[0].record("p", "a", True)
threading.Thread(target=use, daemon=True).start()
time.sleep(float(sys.argv[1]))
"""


def test_a_program_ends_quietly_under_its_subscribers(server: Server) -> None:
    for number in range(10):
        run_child(BUSY, str(0.1 + number * 0.007), strict=False)


def test_threads_and_coroutines_share_a_learner(server: Server) -> None:
    def use(name: int) -> None:
        for number in range(60):
            learner.record(f"p {name}", str(number % 5), True, 1.0)
            learner.match("p:x"), learner.get_stats(), learner.get_rules()

    async def call() -> None:
        await asyncio.gather(*(engine.call("Hi", bulkhead_timeout=30) for _ in range(40)))

    with ProviderSimulator(default="answer") as simulator, ThreadPoolExecutor(6) as threads:
        engine: Any = engine_on(simulator)
        learner, other = engine._learner, FlywheelLearner()
        work = [threads.submit(use, name) for name in range(6)]
        asyncio.run(call())
        assert [done.result(60) for done in work] == [None] * 6
    assert learner.get_stats()["total_records"] == 6 * 60 + 40
    assert server.rules() == learned(learner)
    until(lambda: learned(other).keys() == learned(learner).keys())


def test_the_loop_goes_on_while_rules_are_shared(server: Server) -> None:
    async def worst_pause(work: Any) -> float:
        task, worst, last = asyncio.ensure_future(work), 0.0, time.perf_counter()
        while not task.done():
            await asyncio.sleep(0.001)
            worst, last = max(worst, time.perf_counter() - last), time.perf_counter()
        await task
        return worst

    async def calls(healthy: bool) -> None:
        for _ in range(5):
            await asyncio.gather(*(engine.call("Hi") for _ in range(4)))
            if healthy:
                assert await asyncio.to_thread(server.rules) == learned(engine._learner)

    async def pauses() -> None:
        await engine.call("Hi")
        bare, healthy = await worst_pause(asyncio.sleep(1)), await worst_pause(calls(True))
        server.process.send_signal(signal.SIGSTOP)
        stalled = await worst_pause(calls(False))
        print(f"worst pause: bare {bare:.4f}, healthy {healthy:.4f}, stalled {stalled:.4f} s")
        assert max(healthy, stalled) < 0.05 + 5 * bare

    with ProviderSimulator(default="answer", process=True) as simulator:
        engine: Any = engine_on(simulator)
        try:
            asyncio.run(pauses())
        finally:
            server.process.send_signal(signal.SIGCONT)
    assert engine._learner.get_stats()["total_records"] == 41


FORKING = """
import os, signal, sys, threading, time
import redis
from helpers import engine_with, provider, until
engine = engine_with(provider(sys.argv[1]))
engine.call_sync("Hi")
record, learner, pool = engine._providers["mine"], engine._learner, {**engine._sync_client_pool}
def live(mode):
    assert engine._sync_client_pool == {} and engine.call_sync("Hi").text == "answer"
    learner.record("child", mode, True)
    assert learner.get_stats()["sync_mode"] == mode
    client, message = redis.Redis.from_url(learner._redis_url), '{"key": "k", "rule": %s}'
    message %= '{"pattern": "p", "action": "a"}'
    if mode == "redis":
        until(lambda: client.publish(learner._redis_channel, message) and "k" in learner._rules)
def fork(mode):
    pid, patience = os.fork(), 800
    if not pid:
        try: live(mode)
        finally: os._exit(sys.exc_info()[0] is not None)
    while (ended := os.waitpid(pid, os.WNOHANG)) == (0, 0) and (patience := patience - 1):
        time.sleep(0.01)
    if not patience: os.kill(pid, signal.SIGKILL)
    assert ended == (pid, 0), (mode, ended)
holders = [engine, learner, engine._metrics, engine._diagnoser, record.bulkhead, record.rate_limiter]
for lock in (holder._lock for holder in holders):
    lock.acquire()
    threading.Thread(target=lambda: (lock.acquire(), lock.release())).start()
    time.sleep(0.05)
    fork("redis")
    lock.release()
def use():
    while use: learner.record("parent", "act", True)
thread = threading.Thread(target=use)
thread.start()
for _ in range(10): fork("redis")
use = None
thread.join()
assert engine._sync_client_pool == pool and engine.call_sync("Hi").text == "answer"
assert learner._redis_sub_thread.is_alive()
os.kill(int(sys.argv[2]), signal.SIGKILL)
fork("local")
"""


def test_a_forked_child_starts_afresh(monkeypatch: Any, request: Any) -> None:
    server = Server()
    request.addfinalizer(server.stop)
    monkeypatch.setenv("TARVOMELDRIC_REDIS_URL", server.url)
    with ProviderSimulator(default="answer") as simulator:
        run_child(FORKING, simulator.base_url, str(server.process.pid), strict=False)
