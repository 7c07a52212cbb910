"""Policies on real servers: a call ends in time, asks who is well, and its result tells what happened."""

from __future__ import annotations

import asyncio
import copy
import gc
import pickle
import threading
import time
import weakref
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from datetime import datetime, timedelta, timezone
from email.utils import format_datetime
from functools import partial
from typing import Any

import pytest

import tarvomeldric as tm
from support import NOWHERE, Slots, engine_with, provider, run_child, slots_of, tireless
from tarvomeldric import CallPolicy
from tarvomeldric._http import retry_after
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

BUSY = 1.0  # seconds that a busy machine may add; what is to be caught takes far longer
INTERACTIVE = CallPolicy.interactive()
STALL = Fault.STALL


@pytest.fixture(params=["blocking", "awaited"])
def ask(request: pytest.FixtureRequest) -> Any:
    def blocking(view: Any, prompt: str = "Hi", **options: Any) -> Any:
        return view.call_sync(prompt, **options)

    def awaited(view: Any, prompt: str = "Hi", **options: Any) -> Any:
        async def main() -> Any:
            async with getattr(view, "engine", view):
                return await view.call(prompt, **options)

        return asyncio.run(main())

    return blocking if request.param == "blocking" else awaited


@pytest.fixture
def serving() -> Iterator[Any]:
    """Makes an engine on simulators that play these scripts, one each; None is a dead address."""
    engines: list[Any] = []
    with ExitStack() as servers:

        def make(*scripts: Any, engine: Any = None) -> Any:
            engine = engine or engine_with(provider(name="unused"))
            engines.append(engine)
            engine._providers.clear()
            for at, script in enumerate(scripts):
                simulator = None
                if script is not None:
                    script = (
                        script
                        if isinstance(script, ProviderSimulator)
                        else ProviderSimulator(default=script)
                    )
                    simulator = servers.enter_context(script)
                url = simulator.base_url if simulator else NOWHERE
                engine.add_provider(provider(url, name=f"p{at}"))
            return engine

        yield make
        for engine in engines:
            engine.close_sync()


def timed(call: Callable[[], Any]) -> tuple[Any, float]:
    start = time.monotonic()
    try:
        result = call()
    except Exception as error:
        result = error
    return result, time.monotonic() - start


@pytest.mark.parametrize("first", [503, STALL, None], ids=["refuses", "stalls", "is dead"])
def test_a_healthy_second_provider_answers_at_once(first: Any, serving: Any, ask: Any) -> None:
    view = serving(first, "Yes.").with_policy(INTERACTIVE.replace(attempt_timeout=0.5))
    result, seconds = timed(lambda: ask(view))
    assert (result.text, result.heal_level) == ("Yes.", "l3_failover")
    assert seconds < 0.2 + 0.5 + BUSY
    assert [each.provider for each in result.attempts] == ["p0", "p1"]


def test_a_provider_is_asked_again_when_it_said_and_not_before(serving: Any, ask: Any) -> None:
    busy = ProviderSimulator(Reply(status=429, headers={"Retry-After": "1"}), default="Yes.")
    view = serving(busy).with_policy(INTERACTIVE)
    result, seconds = timed(lambda: ask(view))
    assert (result.text, result.heal_level) == ("Yes.", "l1_retry")
    assert result.attempts[1].start - result.attempts[0].duration >= 1.0
    assert seconds < 1.1 + 0.5


@pytest.mark.parametrize(
    "trouble", ["stall", "drip", "back-off", "bulkhead", "replaced", "Retry-After"]
)
def test_a_deadline_is_not_overrun(trouble: str, serving: Any, ask: Any) -> None:
    class Sleepy(tm.SelfHealingEngine):
        async def _execute(self, *_: Any, **__: Any) -> str:
            await asyncio.sleep(9)
            return "late"

        def _execute_sync(self, *_: Any, **__: Any) -> str:
            raise tm.APIError("HTTP 503", 503)  # nothing interrupts one that blocks

    reply: Any = {"stall": STALL, "Retry-After": Reply(status=503, headers={"Retry-After": "9"})}
    drip = Reply(stream=["x", 0.1] * 100)
    engine = serving(
        {"drip": drip, **reply}.get(trouble, 503),
        engine=Sleepy({}) if trouble == "replaced" else None,
    )
    record = engine._providers["p0"]
    if trouble == "bulkhead":
        for _ in range(10):
            assert record.can_accept()
    view = engine.with_policy(CallPolicy(deadline=0.6, retry_after=True))
    error, seconds = timed(lambda: ask(view, bulkhead_timeout=9.0))
    assert type(error) is tm.DeadlineExceeded
    assert (str(error), error.status_code) == ("Deadline of 0.6s exceeded", 408)
    assert seconds < 0.6 + 0.1 + BUSY
    cut = trouble in ("stall", "drip")
    assert not cut or (record.fail_count, len(error.attempts)) == (0, 1)
    assert trouble == "bulkhead" or slots_of(record) == Slots(free=10)


def test_requests_are_counted_exactly_by_each_of_many_calls() -> None:
    with ProviderSimulator(default=503) as refusing:
        same = {"base_url": refusing.base_url, "slots": 100}
        engine = engine_with(*(tireless(name=name, **same) for name in "abc"))
        view = engine.with_policy(CallPolicy(max_attempts=2, order="failover_first"))
        with ThreadPoolExecutor(50) as threads:
            errors = list(threads.map(lambda _: timed(lambda: view.call_sync("Hi"))[0], range(100)))
        assert {type(error) for error in errors} == {tm.APIError}
        assert [len(error.attempts) for error in errors] == [2] * 100
        assert len(refusing.requests) == 200
        engine.close_sync()


def test_one_call_at_a_time_tests_a_half_open_provider(serving: Any) -> None:
    engine = serving(ProviderSimulator(default=Reply("Yes.", delay=0.3)))
    record = engine._providers["p0"]
    record.bulkhead = tm.Bulkhead(100)
    breaker = record.circuit_breaker
    breaker._trip()
    breaker.cooldown_seconds = 0.0
    view = engine.with_policy(CallPolicy(respect_breakers=True))

    async def cancelled() -> None:
        call = asyncio.ensure_future(view.call("Hi"))
        await asyncio.sleep(0.1)
        call.cancel()
        await asyncio.gather(call, return_exceptions=True)
        await engine.close()

    asyncio.run(cancelled())
    start = threading.Barrier(50)
    with ThreadPoolExecutor(50) as threads:
        ends = list(
            threads.map(
                lambda _: (start.wait(), timed(lambda: view.call_sync("Hi"))[0])[1], range(50)
            )
        )
    kinds = [type(end).__name__ for end in ends]
    assert (kinds.count("CallResult"), kinds.count("ProvidersBusy")) == (1, 49)
    assert breaker._state.value == "closed"


CALL = {"type": "function", "id": "c1", "function": {"name": "f", "arguments": "{}"}}
CHOICE = {"message": {"content": None, "tool_calls": [CALL]}, "finish_reason": "tool_calls"}
TOOLS = Reply(body={"choices": [CHOICE], "usage": {"total_tokens": 7}})


@pytest.mark.parametrize("level", ["", "l1_retry", "l2_downgrade", "l3_failover"])
@pytest.mark.parametrize("replaced", [False, True])
def test_a_result_tells_what_the_provider_sent(
    level: str, replaced: bool, serving: Any, ask: Any
) -> None:
    class Through(tm.SelfHealingEngine):
        async def _execute(self, *given: Any, **options: Any) -> Any:
            return await asyncio.create_task(super()._execute(*given, **options))

        def _execute_sync(self, *given: Any, **options: Any) -> Any:
            return super()._execute_sync(*given, **options)

    first = {"": [], "l1_retry": [503], "l2_downgrade": [404], "l3_failover": [401]}[level]
    engine = serving(
        ProviderSimulator(*first, default=TOOLS), TOOLS, engine=Through({}) if replaced else None
    )
    engine._providers = {"openai": engine._providers["p0"], "other": engine._providers["p1"]}
    result = ask(
        engine.with_policy(INTERACTIVE.replace(initial_backoff=0.01, order="retry_first")),
        model="gpt-4o",
    )
    for told in (result, copy.copy(result), pickle.loads(pickle.dumps(result))):
        assert (told.heal_level, told.text, told.tool_calls) == (level, None, [CALL])
        assert (told.finish_reason, told.usage) == ("tool_calls", {"total_tokens": 7})
        assert told.response == TOOLS.body
        assert [each.status for each in told.attempts] == [*first, 200]
        assert told == result
    with pytest.raises(AttributeError):
        result.usage = None


def test_concurrent_calls_keep_their_own_results(serving: Any) -> None:
    class Through(tm.SelfHealingEngine):
        async def _execute(self, *given: Any, **options: Any) -> Any:
            await asyncio.sleep(0.01)
            return await asyncio.shield(super()._execute(*given, **options))

    rules: Any = {
        f"<{n}>": Reply(body={"choices": [{"message": {"content": f"{n}"}}], "usage": n})
        for n in range(60)
    }
    engine = serving(ProviderSimulator(rules=rules), engine=Through({}))
    engine._providers["p0"].bulkhead = tm.Bulkhead(100)

    async def main() -> list[Any]:
        async with engine:
            return await asyncio.gather(*(engine.call(f"<{n}>") for n in range(60)))

    for n, result in enumerate(asyncio.run(main())):
        assert (result.text, result.usage, len(result.attempts)) == (f"{n}", n, 1)


def test_a_result_is_not_that_of_another_engine_or_of_a_loser(serving: Any) -> None:
    class Doubtful(tm.SelfHealingEngine):
        async def _execute(self, *given: Any, **options: Any) -> Any:
            asked = [
                asyncio.ensure_future(super(Doubtful, self)._execute(*given, **options))
                for _ in "ab"
            ]
            await asyncio.wait(asked, return_when=asyncio.FIRST_COMPLETED)
            answer = next(each.result() for each in asked if each.done())
            for each in asked:
                each.cancel()
            await asyncio.gather(*asked, return_exceptions=True)
            await judge.call("Is that so?")
            return answer

    engine = serving(
        ProviderSimulator(TOOLS, default=Reply("late", delay=0.5)), engine=Doubtful({})
    )
    judge = serving("Yes.")

    async def main() -> Any:
        async with engine, judge:
            return await engine.with_policy(CallPolicy(validate="all")).call("Hi")

    result = asyncio.run(main())
    assert (result.heal_level, result.tool_calls, result.usage) == ("", [CALL], {"total_tokens": 7})


def test_cycles_through_a_result_are_collected(serving: Any) -> None:
    class Marker(dict[str, Any]):
        pass

    engine = serving("Yes.")
    result = engine.call_sync("Hi")
    engine._last_raw_response = None
    result.response["result"], result.response["marker"] = result, Marker()
    gone = weakref.ref(result.response["marker"])
    del result
    gc.collect()
    assert gone() is None


def test_whoever_waits_as_long_as_the_policy_is_heard(serving: Any) -> None:
    class Slow(tm.SelfHealingEngine):
        async def _execute(self, *_: Any, **__: Any) -> str:
            await asyncio.sleep(9)
            return "late"

    view = serving("Yes.", engine=Slow({})).with_policy(CallPolicy(attempt_timeout=0.2))

    async def main() -> None:
        for _ in range(5):
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(view.call("Hi"), 0.2)

    asyncio.run(main())


FIRST_CALLS = """
import threading
from support import engine_with, provider
from tarvomeldric import SelfHealingEngine
class Replaced(SelfHealingEngine):
    def _execute_sync(self, *_, **__):
        return "answer"
engine = Replaced({"mine": provider()})
together = threading.Barrier(8)
def ask():
    together.wait()
    print(engine.call_sync("Hi").text)
threads = [threading.Thread(target=ask) for _ in range(8)]
[thread.start() for thread in threads]
[thread.join() for thread in threads]
"""


def test_first_calls_at_the_same_moment_all_come_back() -> None:
    for _ in range(4):
        assert run_child(FIRST_CALLS).count("answer") == 8


def test_refusals_through_a_view_have_types_of_their_own(serving: Any, ask: Any) -> None:
    engine = serving(401)
    view = engine.with_policy(CallPolicy())
    for seen, type_ in ((engine, RuntimeError), (view, tm.AllProvidersFailed)):
        error, _ = timed(partial(ask, seen))
        assert (type(error), str(error)) == (type_, "All providers failed")
        assert isinstance(error.__cause__, tm.APIError)
    assert error.attempts[0].fault == "auth_error"
    engine._providers["p0"].rate_limiter = tm.RateLimiter(1, 0.0, _tokens=0.0)
    assert type(timed(lambda: ask(view))[0]) is tm.ProvidersBusy
    engine._providers["p0"].healthy = False
    assert type(timed(lambda: ask(view))[0]) is tm.NoProviderAvailable


def test_listeners_hear_what_happens_and_do_no_harm(serving: Any, ask: Any) -> None:
    engine = serving(ProviderSimulator(503, default="Yes."))
    engine._providers["p0"].circuit_breaker.failure_threshold = 1
    heard: list[Any] = []

    def bad(_: Any) -> None:
        raise ValueError

    with engine.observe(bad), engine.observe(heard.append) as handle:
        ask(engine.with_policy(CallPolicy(initial_backoff=0.01)), request_id="mine")
    assert [type(event).__name__ for event in heard] == [
        "AttemptEvent", "BreakerEvent", "FaultEvent", "SleepEvent", "AttemptEvent", "HealEvent", "EndEvent",
    ]  # fmt: skip
    assert {event.call_id for event in heard} == {"mine"}
    assert (heard[1].before, heard[1].after, heard[-1].outcome) == ("closed", "open", "answered")
    handle.close()
    with pytest.raises(TypeError, match="listener"):
        engine.observe(None)

    async def coroutine(_: Any) -> None: ...

    with pytest.raises(TypeError, match="listener"):
        engine.observe(coroutine)
    with (
        engine.observe(lambda _: (_ for _ in ()).throw(KeyboardInterrupt)),
        pytest.raises(KeyboardInterrupt),
    ):
        engine.call_sync("Hi")


def test_a_call_that_is_dropped_or_cancelled_ends_once(serving: Any) -> None:
    engine = serving(STALL)
    heard: list[Any] = []
    engine.observe(heard.append)

    async def main(end: Callable[[Any], Any]) -> None:
        engine._providers["p0"].rate_limiter = tm.RateLimiter(1, 0.0, _tokens=0.0)
        engine.add_provider(provider(engine._providers["p0"].base_url, name="next"))
        call = engine.call("Hi")
        call.send(None)
        end(call)
        del call
        await engine.close()

    for end in (lambda call: call.close(), lambda call: None):
        heard.clear()
        asyncio.run(main(end))
        assert [type(event).__name__ for event in heard] == ["RefusalEvent", "EndEvent"]
        assert heard[-1].outcome == "abandoned"
        assert all(each.bulkhead.to_dict()["active"] == 0 for each in engine._providers.values())


LATER = datetime.now(timezone.utc) + timedelta(hours=5)
SOON = format_datetime(LATER, usegmt=True)
TOLD: Any = [
    ({"Retry-After": "2"}, 2.0), ({"Retry-After": " 1.5 "}, 1.5), ({"retry-after-ms": "250", "retry-after": "9"}, 0.25),
    ({"retry-after-ms": "x", "retry-after": "9"}, 9.0), ({"Retry-After": SOON}, pytest.approx(18_000, abs=9_000)),
    ({"Retry-After": LATER.strftime("%a %b %d %H:%M:%S %Y")}, pytest.approx(18_000, abs=9_000)),
    ({"Retry-After": "Wed, 21 Oct 2015 07:28:00 GMT"}, None), ({"Retry-After": "Fri, 99 Foo 2015"}, None),
    *(({"Retry-After": bad}, None) for bad in ("", "0", "-1", "nan", "inf", "1e999", "soon", "2s")),
    ({}, None), (None, None),
]  # fmt: skip


@pytest.mark.parametrize(("headers", "seconds"), TOLD)
def test_when_a_provider_wants_to_be_asked_again(headers: Any, seconds: Any) -> None:
    import httpx

    assert retry_after(headers and httpx.Headers(headers)) == seconds


def test_a_policy_is_a_value(serving: Any) -> None:
    assert CallPolicy(deadline=3) == CallPolicy().replace(deadline=3.0) != CallPolicy()
    assert len({CallPolicy(providers=["a"]), CallPolicy(providers=("a",)), INTERACTIVE}) == 2
    assert pickle.loads(pickle.dumps(INTERACTIVE)) == copy.copy(INTERACTIVE) == INTERACTIVE
    with pytest.raises(AttributeError):
        INTERACTIVE.deadline = 1.0  # type: ignore[misc]
    wrong: Any = {
        "deadline": 0, "attempt_timeout": float("nan"), "max_attempts": 0, "max_retries": -1,
        "initial_backoff": float("inf"), "max_backoff": -1.0, "retry_after_cap": 0.0,
        "order": "last", "validate": "none", "providers": [],
    }  # fmt: skip
    for name, value in wrong.items():
        with pytest.raises(ValueError, match=name):
            CallPolicy(**{name: value})
        with pytest.raises(TypeError, match=name):
            INTERACTIVE.replace(**{name: object()})
    with pytest.raises(ValueError, match="burst"):
        tm.RetryBudget(burst=-1.0)
    budget = tm.RetryBudget(ratio=0.0, min_retries_per_second=0.0, burst=1.0)
    view = serving(503).with_policy(CallPolicy(retry_budget=budget, initial_backoff=0.01))
    with pytest.raises(tm.APIError) as raised:
        view.with_policy(view.policy).call_sync("Hi")
    assert (len(raised.value.attempts), budget.level) == (2, 0.0)
    assert view.engine.with_policy(INTERACTIVE).policy is INTERACTIVE
