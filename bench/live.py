"""Calls of an engine whose live page somebody looks at, beside one without"""

import asyncio
import io
from collections.abc import Iterator
from contextlib import contextmanager, redirect_stdout
from functools import partial

from calls import CALLS, PROVIDER, REQUEST, StubbedEngine
from measuring import row, take_turns
from table import Row

from support import engine_on, provider, start_child
from tarvomeldric import SelfHealingEngine, serve_dashboard
from tarvomeldric.simulator import ProviderSimulator

EXCHANGES = 2_000
READER = """
import sys, time, urllib.request
while True:
    urllib.request.urlopen(sys.argv[1]).read()
    time.sleep(2)
"""


def measure(quick: bool) -> Iterator[Row]:
    loop = asyncio.new_event_loop()
    plain, watched = (StubbedEngine({PROVIDER: provider(name=PROVIDER)}) for _ in range(2))
    with looked_at(watched):
        for name, its_loop in {"call_sync": None, "call": loop}.items():
            ways = {"plain": plain, "call": watched}
            calls = {way: partial(getattr(one, name), **REQUEST) for way, one in ways.items()}
            rounds = take_turns(quick, CALLS, its_loop, **calls)
            yield row(rounds, f"{name} of a stub, less without", less="plain")
            yield row(rounds, f"{name} of a stub, mean, less without", figure="mean", less="plain")
    with (
        ProviderSimulator(process=True, keep=0) as simulator,
        engine_on(simulator, name=PROVIDER) as plain,
        engine_on(simulator, name=PROVIDER) as watched,
        looked_at(watched),
    ):
        calls = {"plain": partial(plain.call_sync, **REQUEST)}
        rounds = take_turns(quick, EXCHANGES, call=partial(watched.call_sync, **REQUEST), **calls)
        yield row(rounds, "call_sync over loopback", beside="plain")
        yield row(rounds, "call_sync over loopback, mean", figure="mean", beside="plain")
    loop.close()


@contextmanager
def looked_at(engine: SelfHealingEngine) -> Iterator[None]:
    """Serves the page to a program that reads its figures as often as a browser does."""
    with redirect_stdout(io.StringIO()):
        server = serve_dashboard(engine, "127.0.0.1", 0, live=True)
    reader = start_child(READER, f"http://127.0.0.1:{server.server_port}/live.json")
    try:
        yield
    finally:
        reader.kill()
        reader.communicate()
        server.server_close()
