"""Programs that end at an awkward moment, which they must do quietly."""

from __future__ import annotations

import random
import signal
import time

from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

from .programs import run_child, start_child
from .waiting import until

_DAEMONS = """
import asyncio, contextlib, sys, threading, time
from support import engine_with, provider
engine = engine_with(provider(sys.argv[1], slots=4))
def use():
    while True:
        with contextlib.suppress(Exception): engine.call_sync("Hi", bulkhead_timeout=5)
async def call():
    while True:
        await asyncio.gather(*(engine.call("Hi") for _ in range(4)), return_exceptions=True)
def learn():
    while True: engine._learner.record("p", "a", True)
# Some are in the exchange when the program ends, some in the line, some in between.
for work in (*[use] * 8, learn, lambda: asyncio.run(call())):
    threading.Thread(target=work, daemon=True).start()
time.sleep(float(sys.argv[2]))
"""


def end_under_daemon_threads(times: int) -> None:
    with ProviderSimulator(default=Reply(delay=0.01), process=True) as simulator:
        for _ in range(times):
            moment = str(random.uniform(0.2, 0.5))
            run_child(_DAEMONS, simulator.base_url, moment, strict=False)


_WAITING = """
import asyncio, sys
from support import Slots, engine_with, provider, slots_of
from tarvomeldric import RateLimiter
record = provider(sys.argv[1], slots=1, rate_limiter=RateLimiter(60, 0.0))
engine, waits = engine_with(record), {"bulkhead_timeout": 60, "timeout": 60}
taken = sys.argv[2] == "slot" and record.can_accept()
tokens = record.rate_limiter._tokens
print("ready", flush=True)
try:
    asyncio.run(engine.call("Hi", **waits)) if sys.argv[3] == "call" else engine.call_sync("Hi", **waits)
except KeyboardInterrupt:
    print("interrupted")
if taken:
    assert record.rate_limiter._tokens == tokens  # it was never used
    record.release_slot()
print(slots_of(record) == Slots(free=1), record.fail_count, engine.call_sync("Hi").text)
"""


def interrupt(stage: str, form: str) -> None:
    """Ctrl-C during the wait for a slot or for the answer gives everything back."""
    with ProviderSimulator(default="answer") as simulator:
        simulator.script(*[Fault.STALL] * (stage == "answer"))
        child = start_child(_WAITING, simulator.base_url, stage, form, strict=False)
        assert child.stdout is not None
        assert child.stdout.readline() == "ready\n"
        until(lambda: simulator.request_count == (stage == "answer"))
        # At rest: before Python 3.11 an interrupt that strikes in the loop's own bookkeeping is lost.
        time.sleep(0.3)
        child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=20)
    assert err == ""
    assert out.split("\n") == ["interrupted", "True 0 answer", ""]
