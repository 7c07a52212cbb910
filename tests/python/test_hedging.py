"""A second provider is asked while the first takes long: on real servers, in every way of waiting."""

from __future__ import annotations

import asyncio
import contextlib
import random
import socket
import threading
import time
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import httpx
import pytest

import tarvomeldric as tm
from support import KEY, Slots, engine_with, run_child, slots_of, tireless, until
from tarvomeldric import CallPolicy
from tarvomeldric.simulator import ProviderSimulator, Reply

PATIENCE = 0.1
LONG = 5.0  # what the first one takes: far more than a busy machine adds
POLICY = CallPolicy(hedge_after=PATIENCE, hedge_burst=1e6)


def blocking(view: Any, prompt: str = "Hi") -> Any:
    return view.call_sync(prompt, model="gpt-4o")


async def awaited(view: Any, prompt: str = "Hi") -> Any:
    return await view.call(prompt, model="gpt-4o")


def streamed(view: Any, prompt: str = "Hi") -> Any:
    with view.stream_sync(prompt, model="gpt-4o") as stream:
        assert "".join(stream.text) == "Yes."
    return stream.result


async def awaited_stream(view: Any, prompt: str = "Hi") -> Any:
    async with view.stream(prompt, model="gpt-4o") as stream:
        assert "".join([word async for word in stream.text]) == "Yes."
    return stream.result


@pytest.fixture(params=[blocking, awaited, streamed, awaited_stream], ids=lambda it: it.__name__)
def ask(request: pytest.FixtureRequest) -> Callable[..., Any]:
    form = request.param
    if not asyncio.iscoroutinefunction(form):
        return form  # type: ignore[no-any-return]

    async def main(view: Any) -> Any:
        async with view.engine:
            result = await form(view)
            until_closed = [task for task in asyncio.all_tasks() if "_race" in repr(task)]
            await asyncio.wait_for(asyncio.gather(*until_closed, return_exceptions=True), 1)
            return result

    return lambda view: asyncio.run(main(view))


@pytest.fixture
def second() -> Iterator[ProviderSimulator]:
    with ProviderSimulator(default="Yes.") as simulator:
        yield simulator


class Mute:
    """A provider that takes a connection, or does not even do that, and never says a word."""

    def __init__(self, connects: bool, words: bytes = b"") -> None:
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=0)
        self.base_url = f"http://127.0.0.1:{self.listener.getsockname()[1]}/v1"
        self.open = 0  # connections
        self.queue: list[socket.socket] = []
        if connects:
            threading.Thread(target=self.serve, args=(words,), daemon=True).start()
        else:
            for _ in range(4):  # no more fit into the line
                waiting = socket.socket()
                waiting.setblocking(False)
                waiting.connect_ex(self.listener.getsockname())
                self.queue.append(waiting)

    def serve(self, words: bytes) -> None:
        # It may not be asked at all, or hear of the end by a reset.
        with contextlib.suppress(OSError), self.listener.accept()[0] as connection:
            self.open += 1
            with contextlib.suppress(OSError):
                connection.sendall(words)
                while connection.recv(65536):
                    pass
            self.open -= 1

    def __enter__(self) -> Mute:
        return self

    def __exit__(self, *_: object) -> None:
        socket.socket.shutdown(self.listener, socket.SHUT_RDWR)
        for each in (self.listener, *self.queue):
            each.close()


HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 99\r\n\r\n {"


@pytest.mark.parametrize("trouble", ["silent", "half an answer", "no connection"])
def test_whatever_the_first_one_hangs_in_the_second_one_answers(
    trouble: str, second: ProviderSimulator, ask: Any
) -> None:
    words = HEAD if trouble == "half an answer" else b""
    with Mute(trouble != "no connection", words) as first:
        engine = engine_with(
            tireless(name="openai", base_url=first.base_url),
            tireless(name="groq", base_url=second.base_url),
        )
        start = time.monotonic()
        result = ask(engine.with_policy(POLICY))
        assert time.monotonic() - start < LONG / 2
        assert (result.provider, result.hedged, result.heal_level) == ("groq", True, "")
        assert [attempt.fault for attempt in result.attempts] == ["hedge_lost", None]
        until(lambda: not first.open)
        states = {name: slots_of(record) for name, record in engine._providers.items()}
        assert states == {"openai": Slots(free=10), "groq": Slots(free=10)}
        engine.close_sync()


def test_the_loser_among_two_that_answer_is_ended(ask: Any) -> None:
    late = Reply("Yes.", delay=2 * PATIENCE)
    with ProviderSimulator(default=late) as first, Mute(True) as second:
        engine = engine_with(
            tireless(name="openai", base_url=first.base_url),
            tireless(name="groq", base_url=second.base_url),
        )
        result = ask(engine.with_policy(POLICY))
        assert (result.provider, result.hedged) == ("openai", True)
        assert [attempt.fault for attempt in result.attempts] == ["hedge_lost", None]
        until(lambda: not second.open)
        assert slots_of(engine._providers["groq"]) == Slots(free=10)
        assert "hedge_won" not in engine.get_metrics().get_all()["counters"]
        engine.close_sync()


def test_an_answer_is_held_against_its_contract_once_and_a_broken_one_does_not_win(
    second: ProviderSimulator,
) -> None:
    answers = Reply('{"a": 1}', delay=3 * PATIENCE)
    with ProviderSimulator(default=answers) as first:
        engine = engine_with(
            tireless(name="openai", base_url=first.base_url, models=["m"]),
            tireless(name="groq", base_url=second.base_url, models=["m"]),
        )
        strict = tm.Contract(output_schema={"required": ["a"]})
        view = engine.with_policy(POLICY.replace(validate="all", exact_model=True))
        asked = {"model": "m", "task_type": "extraction", "contract": strict}
        result = view.call_sync("Hi", **asked)
        assert (result.text, result.hedged) == ('{"a": 1}', True)
        assert result.contract_result["passed"]
        assert asyncio.run(view.call("Hi", **asked)).contract_result["passed"]
        assert second.request_count == 2
        engine.close_sync()


@pytest.mark.parametrize("form", ["threads", "coroutines"])
def test_the_budget_is_exact_among_many_calls(form: str, second: ProviderSimulator) -> None:
    at_once = 64 if form == "threads" else 512
    with ProviderSimulator(default=Reply("Yes.", delay=0.5)) as first:
        engine = engine_with(
            tireless(name="openai", base_url=first.base_url, slots=at_once),
            tireless(name="groq", base_url=second.base_url, slots=at_once),
        )
        view = engine.with_policy(POLICY.replace(hedge_ratio=0.125, hedge_burst=4.0))

        async def many() -> None:
            async with engine:
                await asyncio.gather(*(awaited(view) for _ in range(at_once)))

        if form == "threads":
            with ThreadPoolExecutor(at_once) as pool:
                list(pool.map(blocking, [view] * at_once))
        else:
            asyncio.run(many())
        counters = engine.get_metrics().get_all()["counters"]
        assert 4 <= counters["hedge_sent"] <= 4 + at_once / 8
        requests = first.request_count + second.request_count
        assert at_once <= requests <= at_once + counters["hedge_sent"]
        engine.close_sync()


def test_who_cannot_be_ended_from_outside_is_not_raced(second: ProviderSimulator) -> None:
    class Replaced(tm.SelfHealingEngine):
        def _execute_sync(self, *_: Any, **__: Any) -> str:
            time.sleep(2 * PATIENCE)
            return "late"

    slow = httpx.MockTransport(lambda _: time.sleep(2 * PATIENCE) or httpx.Response(500))
    for engine in (Replaced({}), engine_with()):
        engine._providers.clear()
        for name in ("openai", "groq"):
            engine.add_provider(tm.ProviderConfig(name, second.base_url, KEY))
        engine._sync_client_pool["openai"] = httpx.Client(transport=slow)
        policy = POLICY.replace(order="failover_first")
        assert not engine.with_policy(policy).call_sync("Hi", model="gpt-4o").hedged
        engine.close_sync()


def test_nothing_is_left_of_races_that_are_broken_off(second: ProviderSimulator) -> None:
    """Cancelled at any moment; the state is what it was, and nobody is blamed."""
    before = threading.active_count()
    chance = random.Random(7)
    with ProviderSimulator(default=Reply("Yes.", delay=0.05)) as first:
        engine = engine_with(
            tireless(name="openai", base_url=first.base_url, slots=64),
            tireless(name="groq", base_url=second.base_url, slots=64),
        )
        view = engine.with_policy(POLICY.replace(hedge_after=0.01))

        async def cancelled(form: Any) -> None:
            task = asyncio.ensure_future(form(view))
            await asyncio.sleep(chance.random() * 0.06)
            task.cancel()
            await asyncio.wait({task})

        async def main() -> None:
            async with engine:
                for _ in range(10):
                    await asyncio.gather(*(cancelled(awaited) for _ in range(16)))
                    await asyncio.gather(*(cancelled(awaited_stream) for _ in range(16)))
                await asyncio.sleep(0.1)
                assert len(asyncio.all_tasks()) == 1

        asyncio.run(main())
        for record in engine._providers.values():
            assert slots_of(record) == Slots(free=64)
            assert record.fail_count == 0
        engine.close_sync()
    until(lambda: threading.active_count() <= before + 2)  # that wait for more races


ENDED = """
import asyncio, os, sys, threading, time
import tarvomeldric as tm
engine = tm.SelfHealingEngine({})
for name, url in zip(("openai", "groq"), sys.argv[2:4]):
    engine.add_provider(tm.ProviderConfig(name, url, "sk-0123456789abcdef"))
view = engine.with_policy(tm.CallPolicy(hedge_after=0.1))
how = sys.argv[1]
if how == "daemon":
    threading.Thread(target=view.call_sync, args=("Hi",), daemon=True).start()
    time.sleep(0.2)
elif how == "interrupt":
    import signal
    signal.setitimer(signal.ITIMER_REAL, float(sys.argv[4]))
    signal.signal(signal.SIGALRM, signal.default_int_handler)
    try:
        view.call_sync("Hi")
    except KeyboardInterrupt:
        print("interrupted")
    time.sleep(0.2)
elif how == "loop":
    loop = asyncio.new_event_loop()
    task = loop.create_task(view.call("Hi"))
    loop.run_until_complete(asyncio.sleep(0.2))
    task.cancel()
    loop.run_until_complete(asyncio.wait({task}))
    loop.run_until_complete(engine.close())
    loop.close()
else:
    threading.Thread(target=view.call_sync, args=("Hi",), daemon=True).start()
    time.sleep(0.2)
    if os.fork() == 0:
        free = [record.bulkhead._semaphore._permits for record in engine._providers.values()]
        os._exit(0 if free == [10, 10] and threading.active_count() == 1 else 1)
    print(os.wait()[1])
"""


@pytest.mark.parametrize(
    ("how", "after"),
    [("daemon", 0), ("interrupt", 0.05), ("interrupt", 0.2), ("loop", 0), ("fork", 0)],
)
def test_a_program_ends_amid_a_race(how: str, after: float) -> None:
    with Mute(True) as first, Mute(True) as second:
        told = run_child(ENDED, how, first.base_url, second.base_url, str(after))
    assert told == {"interrupt": "interrupted", "fork": "0"}.get(how, "")


def test_wrong_values_are_refused_by_name() -> None:
    for name, value in {"hedge_after": 0, "hedge_ratio": -1, "hedge_burst": float("nan")}.items():
        with pytest.raises(ValueError, match=name):
            CallPolicy(**{name: value})  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="hedge_after must be seconds or 'p95'"):
        CallPolicy(hedge_after="p99")  # type: ignore[arg-type]
    assert CallPolicy(hedge_after="p95") == CallPolicy().replace(hedge_after="p95") != CallPolicy()
