"""One engine on several threads and event loops, and what becomes of its clients."""

from __future__ import annotations

import asyncio
import threading
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import httpx
import pytest
import uvloop
from helpers import engine_on, run_child, state_of

from tarvomeldric.simulator import ProviderSimulator


@pytest.fixture(scope="module")
def simulator() -> Iterator[ProviderSimulator]:
    with ProviderSimulator(default="answer") as simulator:
        yield simulator


def test_two_threads_with_a_loop_each_and_blocking_ones_share_an_engine(
    simulator: ProviderSimulator,
) -> None:
    engine = engine_on(simulator, slots=4)
    meeting = threading.Barrier(3)

    async def many() -> tuple[Any, set[str]]:
        await asyncio.get_running_loop().run_in_executor(None, meeting.wait)
        texts = set()
        for _ in range(10):
            calls = (engine.call("Hi", bulkhead_timeout=20) for _ in range(10))
            texts |= {result.text for result in await asyncio.gather(*calls)}
            client = await engine._get_session("mine")
            assert client is await engine._get_session("mine")
        return client, texts

    def blocking() -> tuple[Any, set[str]]:
        meeting.wait()
        texts = {engine.call_sync("Hi", bulkhead_timeout=20).text for _ in range(50)}
        return engine._get_sync_client("mine"), texts

    with ThreadPoolExecutor(3) as threads:
        work = [threads.submit(run, many()) for run in (asyncio.run, uvloop.run)]
        work.append(threads.submit(blocking))
        (first, a), (second, b), (third, c) = (done.result(60) for done in work)
    assert a == b == c == {"answer"}
    assert len({id(client) for client in (first, second, third)}) == 3
    assert state_of(engine._providers["mine"]) == (4, 0, 0)
    engine.close_sync()
    assert third.is_closed


# The ways in which a program leaves its loop, each of them free of complaints.
LEAVE = {
    "asyncio.run": "asyncio.run(main())",
    "uvloop.run": "import uvloop; uvloop.run(main())",
    "closed": "loop = make(); loop.run_until_complete(main()); loop.close()",
    "left open": "loop = make(); loop.run_until_complete(main()); keep.append(loop)",
    "closed by the engine": (
        "loop = make(); loop.run_until_complete(main()); engine.close_sync(); loop.close()"
    ),
    "closed too late": (
        "loop = make(); loop.run_until_complete(main()); loop.close(); engine.close_sync()"
    ),
    "closed elsewhere": "loop = make(); loop.run_until_complete(main()); asyncio.run(close(loop))",
    "forgotten": (
        "loop = make(); loop.run_until_complete(main()); engine._http_pool.clear(); loop.close()"
    ),
}
PROGRAM = """
import asyncio, gc, logging, sys
logging.getLogger("asyncio").setLevel(logging.ERROR)  # this machine may be slow
from tarvomeldric import ProviderConfig, SelfHealingEngine
engine = SelfHealingEngine({})
engine.add_provider(ProviderConfig("mine", sys.argv[1], "any-key"))
make, keep = asyncio.new_event_loop, []
async def main():
    results = await asyncio.gather(*(engine.call("Hi") for _ in range(3)))
    keep.extend(result.text for result in results)
async def close(loop):
    await engine.close()
    assert not engine._http_pool
    loop.close()
for _ in range(ROUNDS):
    LEAVE
    gc.collect()
assert [text for text in keep if isinstance(text, str)] == ["answer"] * 3 * ROUNDS
for loop in keep:
    if not isinstance(loop, str): loop.close()
if END: del engine; gc.collect()
print("done")
"""


@pytest.mark.parametrize("leave", LEAVE)
def test_loops_come_and_go_without_a_complaint(simulator: ProviderSimulator, leave: str) -> None:
    program = PROGRAM.replace("LEAVE", LEAVE[leave])
    for rounds, end in ((3, "True"), (1, "False")):
        code = program.replace("ROUNDS", str(rounds)).replace("END", end)
        assert run_child(code, simulator.base_url) == "done"


CLOSED_MEANWHILE = """
import asyncio, logging, sys, threading
logging.getLogger("asyncio").setLevel(logging.ERROR)  # this machine may be slow
from tarvomeldric import ProviderConfig, RateLimiter, SelfHealingEngine
limiter = RateLimiter(1000, _tokens=1000.0)
record = ProviderConfig("mine", sys.argv[1], "any-key", rate_limiter=limiter)
engine = SelfHealingEngine({"mine": record})
called, closed = threading.Semaphore(0), threading.Semaphore(0)
async def main(pause):
    results = await asyncio.gather(*(engine.call("Hi", bulkhead_timeout=5) for _ in range(3)))
    assert [result.text for result in results] == ["answer"] * 3
    called.release()
    await asyncio.sleep(pause)
def run_and_close(work):
    loop = asyncio.new_event_loop()
    loop.run_until_complete(work)
    loop.close()
def use():
    for number in range(40):
        (asyncio.run, run_and_close)[number % 2](main(number // 2 % 4 / 4000))
        closed.acquire()
threading.Thread(target=use, daemon=True).start()
for _ in range(40):
    assert called.acquire(timeout=20)
    engine.close_sync()
    closed.release()
"""


def test_closing_meets_the_end_of_another_threads_loop(simulator: ProviderSimulator) -> None:
    run_child(CLOSED_MEANWHILE, simulator.base_url)


def test_clients_that_the_host_placed_are_used_as_they_are(simulator: ProviderSimulator) -> None:
    async def note(request: httpx.Request) -> None:
        sent.append(request.method)

    async def main() -> None:
        await asyncio.gather(*(engine.call("Hi") for _ in range(3)))
        assert engine._http_pool == {"mine": placed}
        await engine.close()

    sent: list[str] = []
    engine, placed = engine_on(simulator), httpx.AsyncClient(event_hooks={"request": [note]})
    engine._http_pool["mine"] = placed
    asyncio.run(main())
    assert sent == ["POST"] * 3
    assert placed.is_closed


def test_closing_ends_clients_and_leaves_the_engine_usable(simulator: ProviderSimulator) -> None:
    engine = engine_on(simulator)
    engine.close_sync()

    async def one_life() -> list[Any]:
        async with engine as entered:
            assert entered is engine
            await engine.call("Hi")
            with engine:
                engine.call_sync("Hi")
                clients = [*engine._http_pool.values(), *engine._sync_client_pool.values()]
            assert engine._http_pool == engine._sync_client_pool == {}
            await engine.call("Hi")
            clients += engine._http_pool.values()
        await engine.close()
        return clients

    for _ in range(2):
        clients = asyncio.run(one_life())
        assert [client.is_closed for client in clients] == [True] * 3
