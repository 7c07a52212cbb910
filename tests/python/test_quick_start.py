"""`run` and its probe, against a simulator in place of the providers."""

from __future__ import annotations

import asyncio
import os
import signal
import subprocess
import sys
import threading
from typing import Any

import pytest
from helpers import KEY, providers_at, run_child, start_child, until

import tarvomeldric
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


@pytest.fixture
def fresh_loop() -> Any:
    """A loop of this thread's own: what was current before belongs to other tests."""
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    yield loop
    asyncio.set_event_loop(None)
    loop.close()


def test_run_probes_every_provider_with_a_key_and_says_what_it_found(
    fresh_loop: Any, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
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
    assert [one.header("Authorization") for one in sent[:3]] == [
        f"Bearer {KEY}",
        "Bearer sk-environment",
        f"Bearer {KEY}",
    ]
    assert [request.header("Host") for request in sent[:3]] == [
        "api.deepseek.com",
        "api.openai.com",
        "api.anthropic.com",
    ]
    assert {request.path for request in sent} == {"/v1/chat/completions"}
    assert sent[1].body == {
        "model": "gpt-4o-mini",
        "messages": [{"role": "user", "content": "Hi"}],
        "max_tokens": 3,
    }
    for made in (engine, silent):
        # The environment's come first: they were there before the keys of the argument.
        records = made._providers
        assert list(records) == ["openai", "anthropic", "deepseek"]
        assert [one.healthy for one in records.values()] == [True, False, True]
        assert [one.api_key for one in records.values()] == ["sk-environment", KEY, KEY]
        assert records["openai"].models == _engine._MODEL_PROVIDERS["openai"]


def test_without_any_key_nobody_is_asked(
    fresh_loop: Any, capsys: pytest.CaptureFixture[str]
) -> None:
    engine = tarvomeldric.run()
    banner = REPORT[REPORT.index("\n\n") + 1 :].replace("3 provider(s) | 2", "0 provider(s) | 0")
    assert capsys.readouterr().out == banner
    assert dict(engine._providers) == {}


def test_an_address_that_does_not_exist_is_down(
    fresh_loop: Any, capsys: pytest.CaptureFixture[str]
) -> None:
    engine = tarvomeldric.run({"azure": KEY})
    assert capsys.readouterr().out.startswith("  [DOWN] azure: https://")
    assert engine.get_available_providers() == []


@pytest.mark.parametrize(
    ("reply", "healthy"),
    [
        (Reply(body="nothing but a status", status=200), True),
        (201, False),
        (401, False),
        (Fault.RESET, False),
        (Fault.STALL, False),
    ],
)
def test_a_provider_is_healthy_when_its_status_is_200(
    reply: Any, healthy: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(_quick_start, "_TIMEOUT", 0.3)
    with ProviderSimulator(reply) as simulator:
        probe = _engine._check_provider("a name nobody knows", simulator.base_url, KEY)
        assert asyncio.run(probe) is healthy
        assert simulator.requests[0].body["model"] == "deepseek-chat"


@pytest.mark.parametrize(
    ("arguments", "named"),
    [
        ((["openai"],), "api_keys"),
        (({"openai": 7},), "openai"),
    ],
)
def test_an_argument_of_the_wrong_type_is_named(arguments: Any, named: str) -> None:
    with pytest.raises(TypeError, match=named):
        tarvomeldric.run(*arguments)


@pytest.mark.parametrize("at", [0, 1, 2])
def test_the_probe_names_an_argument_of_the_wrong_type(at: int) -> None:
    arguments: list[Any] = ["openai", "http://127.0.0.1:9/v1", KEY]
    arguments[at] = None
    with pytest.raises(TypeError, match=["name", "base_url", "api_key"][at]):
        _engine._check_provider(*arguments)


def in_a_running_loop() -> Any:
    async def inside() -> Any:
        return tarvomeldric.run({"openai": KEY}, False)

    return asyncio.run(inside())


def after_a_loop_has_run() -> Any:
    asyncio.run(asyncio.sleep(0))
    return tarvomeldric.run({"openai": KEY}, False)


def in_another_thread() -> Any:
    made = []
    thread = threading.Thread(target=lambda: made.append(tarvomeldric.run({"openai": KEY}, False)))
    thread.start()
    thread.join()
    return made[0]


def on_a_closed_loop() -> Any:
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    loop.close()
    try:
        return tarvomeldric.run({"openai": KEY}, False)
    finally:
        asyncio.set_event_loop(None)


def on_a_loop_that_another_thread_runs() -> Any:
    loop = asyncio.new_event_loop()
    thread = threading.Thread(target=loop.run_forever)
    thread.start()
    asyncio.set_event_loop(loop)
    try:
        return tarvomeldric.run({"openai": KEY}, False)
    finally:
        asyncio.set_event_loop(None)
        loop.call_soon_threadsafe(loop.stop)
        thread.join()
        loop.close()


@pytest.mark.parametrize(
    "make",
    [
        in_a_running_loop,
        after_a_loop_has_run,
        in_another_thread,
        on_a_closed_loop,
        on_a_loop_that_another_thread_runs,
    ],
)
def test_where_no_loop_can_run_every_key_counts_as_good(make: Any) -> None:
    with ProviderSimulator(default=401) as simulator, providers_at(simulator.base_url):
        assert make()._providers["openai"].healthy
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


PROMPT = """
import asyncio, logging, sys, tarvomeldric
from helpers import providers_at
logging.getLogger("asyncio").setLevel(logging.ERROR)  # how slow this machine is does not matter
def loop_found():
    try:
        loop = asyncio.get_event_loop()
    except Exception as error:
        return type(error).__name__
    else:
        found = type(loop).__name__, loop.is_running(), loop.is_closed()
        loop.close()
        return found

def engine():
    with providers_at(sys.argv[1]):
        return tarvomeldric.run({"openai": "sk-key"}, verbose=False)

if len(sys.argv) > 2: print(engine()._providers["openai"].healthy, engine()._providers["openai"].healthy)

print(loop_found())
"""


@pytest.mark.parametrize("entered", [False, True])
def test_at_a_prompt_it_probes_and_leaves_no_loop_behind(entered: bool) -> None:
    with ProviderSimulator(default=401) as simulator:

        def at_prompt(*arguments: str) -> list[str]:
            words = [simulator.base_url, *arguments]
            if not entered:
                return run_child(PROMPT, *words).split("\n")
            prompt = subprocess.run(
                [sys.executable, "-X", "dev", "-W", "error", "-i", "-q", "-", *words],
                input=PROMPT,
                capture_output=True,
                text=True,
                timeout=60,
                env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
            )
            complaints = prompt.stderr.replace(">>> ", "").replace("... ", "")
            assert (prompt.returncode, complaints.strip()) == (0, "")
            return prompt.stdout.strip().split("\n")

        untouched = at_prompt()
        assert at_prompt("run") == ["False False", *untouched]
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
    assert (out, err) == ("ready\ninterrupted\n", "")
