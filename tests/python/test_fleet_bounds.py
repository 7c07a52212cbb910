"""What a Redis that misbehaves, or is full of other people's rules, can cost a program at most."""

from __future__ import annotations

import contextlib
import json
import socket
import statistics
import threading
import time
from collections.abc import Callable, Iterable, Iterator
from itertools import chain, cycle, repeat
from typing import Any

import pytest
import redis

from support import RedisServer, engine_with, run_child, until

pytestmark = pytest.mark.once
CHANNEL = "tarvomeldric:flywheel"
Reply = Callable[[], Iterable[bytes]]
PROPER = {
    b"AUTH": b"+OK\r\n",
    b"PING": b"+PONG\r\n",
    b"HGETALL": b"*0\r\n",
    b"HSET": b":1\r\n:0\r\n",  # and the PUBLISH that comes with it
    b"SUBSCRIBE": b"*3\r\n$9\r\nsubscribe\r\n$1\r\nc\r\n:1\r\n",
}


@contextlib.contextmanager
def odd_redis(command: bytes, reply: Reply) -> Iterator[str]:
    """The URL of one that answers one command in a way of its own."""

    def serve() -> None:
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=answer, args=listener.accept()[:1], daemon=True).start()

    def answer(client: socket.socket) -> None:
        with client, contextlib.suppress(OSError):
            while asked := client.recv(65536):
                name = asked.split(b"\r\n")[2]
                for piece in reply() if name == command else [PROPER[name]]:
                    client.sendall(piece)

    with socket.create_server(("127.0.0.1", 0)) as listener:
        threading.Thread(target=serve, daemon=True).start()
        yield f"redis://:secret@127.0.0.1:{listener.getsockname()[1]}"
        listener.shutdown(socket.SHUT_RDWR)


def dripping() -> Iterator[bytes]:
    for byte in chain(b"*99\r\n", cycle(b"$1\r\na\r\n")):
        yield bytes([byte])
        time.sleep(0.3)


def endless(start: bytes, rest: bytes) -> Reply:
    return lambda: chain([start], repeat(rest * (65536 // len(rest))))


REPLIES: dict[str, Reply] = {
    "a byte now and then": dripping,
    "a gigabyte": endless(b"$1000000000\r\n", b"x"),
    "a billion of nothing": endless(b"*1000000000\r\n", b"$0\r\n\r\n"),
    "a list in a list": endless(b"", b"*1\r\n"),
    "a line without an end": endless(b"+", b"x"),
    "no reply at all": endless(b"", bytes(range(256))),
    "a number": lambda: [b":5\r\n"],
    "an error": lambda: [b"-WRONGTYPE no\r\n"],
}

BOUNDED = """
import resource, sys, threading, time
from concurrent.futures import ThreadPoolExecutor
from tarvomeldric import FlywheelLearner
def took(work, *arguments):
    start = time.monotonic()
    work(*arguments)
    return time.monotonic() - start
def use(url):
    making = took(lambda: learners.append(FlywheelLearner(redis_url=url)))
    learner = learners[-1]
    record = threading.Thread(target=learner.record, args=("p", "a", True))
    recording = took(lambda: (record.start(), asking.append(took(learner.get_stats)), record.join()))
    assert making < 5 and recording < 2 and max(asking) < 2, (making, recording, asking)
    assert learner.match("p").success_count == 1
def peak(): return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss // 1024
FlywheelLearner(redis_url="redis://127.0.0.1:1")
learners, asking, before = [], [], peak()
with ThreadPoolExecutor(len(sys.argv)) as threads:
    for learner in [threads.submit(use, url) for url in sys.argv[1:]]: learner.result()
assert peak() - before < 200, (before, peak())
print(time.monotonic())
"""


@pytest.mark.uninstrumented
@pytest.mark.parametrize("reply", REPLIES.values(), ids=REPLIES)
def test_an_odd_reply_costs_its_bounds_and_nothing_else(reply: Reply) -> None:
    with contextlib.ExitStack() as stack:
        urls = [stack.enter_context(odd_redis(command, reply)) for command in PROPER]
        over = float(run_child(BOUNDED, *urls))
        assert time.monotonic() - over < 3


ENDING = """
import asyncio, os, signal, sys, threading, time
from support import engine_with
from tarvomeldric import _fleet
_fleet._TIMEOUT_S = 60
engine = engine_with()
async def answer(*_, **__): return "answer"
engine._execute = answer
async def call():
    calls = [asyncio.ensure_future(engine.call("Hi")) for _ in range(3)]
    await asyncio.sleep(0.3)  # the worker waits for the Redis, two wait for the worker
    await engine.close()
os.kill(int(sys.argv[1]), signal.SIGSTOP)
asyncio.run(call())
threading.Thread(target=engine._learner.record, args=("p", "a", True), daemon=True).start()
engine.close_sync()
print(time.monotonic())
"""


def test_the_end_of_a_program_waits_for_no_redis(server: RedisServer) -> None:
    over = float(run_child(ENDING, str(server.pid), strict=False))
    assert time.monotonic() - over < 5


@pytest.mark.uninstrumented
def test_a_flood_of_rules_fills_the_table_no_further(server: RedisServer) -> None:
    def rule(number: int) -> str:
        return json.dumps({"pattern": f"p{number}", "action": "a", "confidence": 0.9})

    def call_ms() -> float:
        start = time.thread_time()
        assert engine.call_sync("Hi").text == "answer"
        return (time.thread_time() - start) * 1e3

    def message(key: str, rule: str) -> str:
        return f'{{"key": "{key}", "rule": {rule}}}'

    count, known = 10_500, "rate_limit:retry:wait"
    client = redis.Redis.from_url(server.url, decode_responses=True)
    shared = {f"p{number}:a": rule(number) for number in range(count)}
    huge = json.dumps({"pattern": "x" * 5000, "action": "a"})
    client.hset(f"{CHANNEL}:rules", mapping={"huge": huge, **shared, known: rule(0)})
    engine: Any = engine_with()
    engine._execute_sync = lambda *_, **__: "answer"
    learner = engine._learner
    assert (len(learner._rules), "huge" in learner._rules) == (10_000, False)
    assert learner._rules[known].pattern == "p0"
    assert learner.rules_passed_over == count + 84 - 10_000
    until(lambda: client.pubsub_numsub(CHANNEL)[0][1] == 1)
    sent = client.pipeline(transaction=False)
    for number in range(count):
        sent.publish(CHANNEL, message(f"q{number}:a", rule(number)))
    sent.publish(CHANNEL, message(known, rule(1).replace("0.9", "1.0")))
    sent.execute()
    times = [call_ms() for _ in range(100)]
    until(lambda: learner._rules[known].pattern == "p1")
    assert learner.rules_passed_over == 2 * count + 84 - 10_000
    times += [call_ms() for _ in range(100)]
    assert statistics.median(times) < 1
    assert len(learner._rules) == 10_001  # with one of its own
    client.close()
