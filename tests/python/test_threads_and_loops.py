"""What becomes of an engine's clients as event loops come and go, and when they are closed."""

from __future__ import annotations

import asyncio
from collections.abc import Iterator
from typing import Any

import httpx
import pytest

from support import engine_on, run_child
from tarvomeldric.simulator import ProviderSimulator


@pytest.fixture(scope="module")
def simulator() -> Iterator[ProviderSimulator]:
    with ProviderSimulator(default="answer") as simulator:
        yield simulator


# The ways in which a program leaves its loop, each of them free of complaints.
RUN = "loop = make(); loop.run_until_complete(main()); "
LEAVE = {
    "asyncio.run": "asyncio.run(main())",
    "uvloop.run": "import uvloop; uvloop.run(main())",
    "closed": RUN + "loop.close()",
    "left open": RUN + "keep.append(loop)",
    "closed by the engine": RUN + "engine.close_sync(); loop.close()",
    "closed too late": RUN + "loop.close(); engine.close_sync()",
    "closed elsewhere": RUN + "asyncio.run(close(loop))",
    "forgotten": RUN + "engine._http_pool.clear(); loop.close()",
}
PROGRAM = """
import asyncio, gc, logging, sys
logging.getLogger("asyncio").setLevel(logging.ERROR)  # this machine may be slow
from support import engine_with, provider
engine, make, keep = engine_with(provider(sys.argv[1])), asyncio.new_event_loop, []
async def main():
    for result in await asyncio.gather(*(engine.call("Hi") for _ in range(3))):
        assert result.text == "answer"
async def close(loop):
    await engine.close()
    assert not engine._http_pool
    loop.close()
for _ in range(int(sys.argv[2])):
    LEAVE
    gc.collect()
for loop in keep: loop.close()
if sys.argv[3] == "collected": del engine; gc.collect()
"""


@pytest.mark.parametrize("leave", LEAVE)
def test_loops_come_and_go_without_a_complaint(simulator: ProviderSimulator, leave: str) -> None:
    for how in (("3", "collected"), ("1", "left")):
        run_child(PROGRAM.replace("LEAVE", LEAVE[leave]), simulator.base_url, *how)


CLOSED_MEANWHILE = """
import asyncio, logging, sys, threading
logging.getLogger("asyncio").setLevel(logging.ERROR)  # this machine may be slow
from support import engine_with, provider
engine = engine_with(provider(sys.argv[1]))
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
        async with engine:
            await asyncio.gather(*(engine.call("Hi") for _ in range(3)))
            assert engine._http_pool == {"mine": placed}

    sent: list[str] = []
    engine, placed = engine_on(simulator), httpx.AsyncClient(event_hooks={"request": [note]})
    engine._http_pool["mine"] = placed
    asyncio.run(main())
    assert (sent, placed.is_closed) == (["POST"] * 3, True)


def test_closing_ends_clients_and_leaves_the_engine_usable(simulator: ProviderSimulator) -> None:
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

    engine = engine_on(simulator)
    engine.close_sync()
    for _ in range(2):
        assert [client.is_closed for client in asyncio.run(one_life())] == [True] * 3
