"""`run` and its probe, against a simulator in place of the providers."""

from __future__ import annotations

import asyncio
import signal
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from typing import Any

import pytest
from helpers import providers_at

import tarvomeldric
from support import KEY, NOWHERE, run_child, start_child, until
from tarvomeldric import _engine, _quick_start
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

REPORT = f"""\
  [OK] deepseek: https://api.deepseek.com/v1 (models: 3)
  [OK] openai: https://api.openai.com/v1 (models: 3)
  [DOWN] anthropic: https://api.anthropic.com/v1 (models: 2)

  TarvoMeldric v{tarvomeldric.__version__} | 3 provider(s) | 2 healthy
  MAPE-K: Monitor->Analyze->Plan->Execute->Knowledge
  HA: CircuitBreaker + RateLimiter + Bulkhead per provider
  Semantic: Strong/Tau/OOB three-domain topology
  Flywheel: 84 rules loaded

  Async:  engine.call('Hello')
  Sync:   engine.call_sync('Hello')
  Model:  engine.call('Hello', model='gpt-4o')
  Task:   engine.call('Hello', task_type='classification')
"""


@contextmanager
def current(loop: asyncio.AbstractEventLoop) -> Iterator[asyncio.AbstractEventLoop]:
    """A loop of this thread's own: what was current before belongs to other tests."""
    asyncio.set_event_loop(loop)
    try:
        yield loop
    finally:
        asyncio.set_event_loop(None)
        loop.close()


@pytest.fixture
def fresh_loop() -> Iterator[asyncio.AbstractEventLoop]:
    with current(asyncio.new_event_loop()) as loop:
        yield loop


@pytest.mark.usefixtures("fresh_loop")
def test_run_probes_every_provider_with_a_key_and_says_what_it_found(
    monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    monkeypatch.setenv("OPENAI_API_KEY", "sk-environment")
    monkeypatch.setenv("ANTHROPIC_API_KEY", "sk-overridden")
    keys = {"groq": KEY, "anthropic": KEY, "openai": "", "deepseek": KEY}
    refused = {"claude-3-5-haiku-20241022": Reply(status=401)}
    with ProviderSimulator(rules=refused) as simulator, providers_at(simulator.base_url):
        engine = tarvomeldric.run(keys)
        assert capsys.readouterr().out == REPORT
        silent = tarvomeldric.run(keys, verbose=False)
        assert capsys.readouterr().out == ""
        sent = simulator.requests
    assert [(one.header("Host"), one.header("Authorization")) for one in sent[:3]] == [
        ("api.deepseek.com", f"Bearer {KEY}"),
        ("api.openai.com", "Bearer sk-environment"),
        ("api.anthropic.com", f"Bearer {KEY}"),
    ]
    assert {request.path for request in sent} == {"/v1/chat/completions"}
    said = [{"role": "user", "content": "Hi"}]
    assert sent[1].body == {"model": "gpt-4o-mini", "messages": said, "max_tokens": 3}
    for made in (engine, silent):
        # The environment's come first: they were there before the keys of the argument.
        assert [(name, one.healthy, one.api_key) for name, one in made._providers.items()] == [
            ("openai", True, "sk-environment"),
            ("anthropic", False, KEY),
            ("deepseek", True, KEY),
        ]
        assert made._providers["openai"].models == _engine._MODEL_PROVIDERS["openai"]


PROBED: list[Any] = [(Reply(body="nothing but a status"), True), (201, False), (401, False)]
PROBED += [(Fault.RESET, False), (Fault.STALL, False)]


@pytest.mark.parametrize(("reply", "healthy"), PROBED)
def test_a_provider_is_healthy_when_its_status_is_200(
    reply: Any, healthy: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(_quick_start, "_TIMEOUT_S", 1.0)
    with ProviderSimulator(reply) as simulator:
        probe = _engine._check_provider("a name nobody knows", simulator.base_url, KEY)
        assert asyncio.run(probe) is healthy
        assert simulator.requests[0].body["model"] == "deepseek-chat"


def test_an_argument_of_the_wrong_type_is_named() -> None:
    wrong: list[tuple[Any, tuple[Any, ...], str]] = [
        (tarvomeldric.run, (["openai"],), "api_keys"),
        (tarvomeldric.run, ({"openai": 7},), "openai"),
        (_engine._check_provider, (None, NOWHERE, KEY), "name"),
        (_engine._check_provider, ("openai", None, KEY), "base_url"),
        (_engine._check_provider, ("openai", NOWHERE, None), "api_key"),
    ]
    for function, arguments, named in wrong:
        with pytest.raises(TypeError, match=rf"\b{named}\b"):
            function(*arguments)


async def inside(act: Any) -> Any:
    return act()


def on_a_closed_loop(act: Any) -> Any:
    with current(asyncio.new_event_loop()) as loop:
        loop.close()
        return act()


def on_a_loop_that_another_thread_runs(act: Any) -> Any:
    with current(asyncio.new_event_loop()) as loop, ThreadPoolExecutor(1) as other:
        other.submit(loop.run_forever)
        try:
            return act()
        finally:
            loop.call_soon_threadsafe(loop.stop)


PLACES: dict[str, Any] = {
    "in a running loop": lambda act: asyncio.run(inside(act)),
    "after a loop has run": lambda act: [asyncio.run(asyncio.sleep(0)), act()][1],
    "on a closed loop": on_a_closed_loop,
    "on a loop that another thread runs": on_a_loop_that_another_thread_runs,
}


@pytest.mark.parametrize("place", PLACES)
def test_where_no_loop_can_run_every_key_counts_as_good(place: str) -> None:
    with ProviderSimulator(default=401) as simulator, providers_at(simulator.base_url):
        engine = PLACES[place](lambda: tarvomeldric.run({"openai": KEY}, False))
        assert engine._providers["openai"].healthy
        assert simulator.request_count == 0


def test_the_threads_own_loop_is_used_and_stays_usable(fresh_loop: Any) -> None:
    seen = []
    fresh_loop.set_task_factory(
        lambda loop, coro, **options: seen.append(loop) or asyncio.Task(coro, loop=loop, **options)
    )
    with ProviderSimulator(default=401) as simulator, providers_at(simulator.base_url):
        assert not tarvomeldric.run({"openai": KEY}, False)._providers["openai"].healthy
    assert set(seen) == {fresh_loop}
    assert fresh_loop.run_until_complete(asyncio.sleep(0, "usable")) == "usable"


FRESH = """
import asyncio, logging, sys, tarvomeldric
from helpers import providers_at
logging.getLogger("asyncio").setLevel(logging.ERROR)  # how slow this machine is does not matter
def loop_found():
    try: loop = asyncio.get_event_loop()
    except Exception as error: return type(error).__name__
    found = type(loop).__name__, loop.is_closed()
    loop.close()
    return found

def is_healthy():
    with providers_at(sys.argv[1]):
        return tarvomeldric.run({"openai": "sk-key"}, verbose=False)._providers["openai"].healthy

if len(sys.argv) > 2: print(is_healthy(), is_healthy())

print(loop_found())
"""


def test_where_there_never_was_a_loop_it_probes_and_leaves_none_behind() -> None:
    with ProviderSimulator(default=401) as simulator:
        untouched = run_child(FRESH, simulator.base_url)
        assert run_child(FRESH, simulator.base_url, "run") == f"False False\n{untouched}"
        assert simulator.request_count == 2


INTERRUPTED = """
import logging, sys, tarvomeldric
from helpers import providers_at
logging.getLogger("asyncio").setLevel(logging.ERROR)
with providers_at(sys.argv[1]):
    print("ready", flush=True)
    try:
        tarvomeldric.run({"openai": "sk-key"})
    except KeyboardInterrupt:
        print("interrupted")
"""


def test_ctrl_c_during_a_probe_ends_it_at_once() -> None:
    with ProviderSimulator(default=Fault.STALL) as simulator:
        child = start_child(INTERRUPTED, simulator.base_url)
        until(lambda: simulator.request_count == 1)
        child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=5)
    assert err == ""
    assert out == "ready\ninterrupted\n"
