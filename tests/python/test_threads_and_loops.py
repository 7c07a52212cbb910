"""What becomes of an engine's clients as event loops come and go, and when they are closed."""

from __future__ import annotations

import asyncio
from collections.abc import Iterator
from typing import Any

import httpx
import pytest

from support import engine_on, engine_with, run_child, tireless
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


def test_closing_ends_clients_and_leaves_the_engine_usable(simulator: ProviderSimulator) -> None:
    async def one_life() -> list[Any]:
        async with engine as entered:
            assert entered is engine
            await engine.call("Hi")
            first = engine._http_pool["mine"]
            await engine.call("Hi")
            assert engine._http_pool["mine"] is first
            with engine:
                engine.call_sync("Hi")
                clients = [*engine._http_pool.values(), *engine._sync_client_pool.values()]
            assert engine._http_pool == {}
            assert engine._sync_client_pool == {}
            await engine.call("Hi")
            engine._http_pool["placed"] = httpx.AsyncClient()
            clients += engine._http_pool.values()
        await engine.close()
        return clients

    engine = engine_on(simulator)
    engine._http_pool["placed"] = placed = httpx.AsyncClient()
    engine.close_sync()
    assert placed.is_closed
    for _ in range(2):
        assert [client.is_closed for client in asyncio.run(one_life())] == [True] * 4


def test_every_loop_has_clients_of_its_own_for_every_provider() -> None:
    with ProviderSimulator(default="answer") as simulator:
        records = [tireless(base_url=simulator.base_url, name=name) for name in ("x", "y")]
        engine = engine_with(*records)

        async def ask_both() -> list[str]:
            return [await engine._execute(record, "Hi", "m") for record in records]

        for _ in range(3):
            assert asyncio.run(ask_both()) == ["answer", "answer"]
        engine.close_sync()
