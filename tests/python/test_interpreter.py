"""What an interpreter may do to a call: interrupt it, raise where nobody expects it."""

from __future__ import annotations

import _thread
import asyncio
import gc
import itertools
import sys
import threading
import time
from collections.abc import Callable
from types import SimpleNamespace
from typing import Any
from unittest.mock import Mock

import pytest
from helpers import drive

import tarvomeldric._engine as native
from support import Slots, engine_with, provider, run_child, slots_of, tireless
from tarvomeldric import APIError, Diagnoser, FlywheelLearner, ProviderConfig, SelfHealingEngine

Ask = Callable[..., Any]


def test_ctrl_c_ends_a_wait_for_the_learner() -> None:
    engine = engine_with()
    engine._execute_sync = lambda *_, **__: "answer"  # type: ignore[method-assign]
    with engine._learner._lock:
        threading.Timer(0.2, _thread.interrupt_main).start()
        with pytest.raises(KeyboardInterrupt):
            engine.call_sync("Hi")
    assert engine.call_sync("Hi").text == "answer"
    assert slots_of(engine._providers["mine"]) == Slots(free=10)


def test_ctrl_c_ends_what_is_told_to_a_fleet() -> None:
    learner: Any = FlywheelLearner()
    learner._sync_mode = "redis"
    learner._redis_client = SimpleNamespace(pipeline=Mock(side_effect=KeyboardInterrupt))
    with pytest.raises(KeyboardInterrupt):
        learner.record("p", "a", True)
    assert not learner._lock.locked()
    learner._redis_client.pipeline = Mock(side_effect=OSError)
    learner.record("p", "a", True)  # what else goes wrong is nobody's failure
    assert learner.get_stats()["total_records"] == 2


ELSEWHERE = """
import sys
import threading
try:
    import _interpreters as interpreters
except ImportError:
    import _xxsubinterpreters as interpreters
import support
# One that shares as much as it can: others are refused by the import system itself.
other = interpreters.create(*["legacy"] * (sys.version_info >= (3, 13)))
failing = "try: import tarvomeldric\\nexcept ImportError as error: print(error, flush=True)"
assert interpreters.run_string(other, failing) is None
interpreters.destroy(other)
engine = support.engine_with()
engine._execute_sync = lambda *_, **__: "answer"
assert engine.call_sync("Hi").text == "answer"
"""


def test_another_interpreter_of_the_process_is_refused() -> None:
    assert "sub-interpreter" in run_child(ELSEWHERE, strict=False)


def driven(engine: SelfHealingEngine, *arguments: Any) -> Any:
    return drive(engine.call(*arguments))


class Healing(SelfHealingEngine):
    """Every other attempt fails, so that a call comes through as much Python as there is."""

    attempts = 0
    failure: Callable[..., BaseException] = APIError

    def _execute_sync(self, *_: Any, **__: Any) -> str:
        self.attempts += 1
        if self.attempts % 2:
            raise self.failure("429 too many requests", 429)
        return "answer"

    async def _execute(self, *_: Any, **__: Any) -> str:  # type: ignore[override]
        return self._execute_sync()


@pytest.fixture(params=[SelfHealingEngine.call_sync, driven], ids=["call_sync", "call"])
def ask(request: pytest.FixtureRequest, monkeypatch: pytest.MonkeyPatch) -> Ask:
    sleep = asyncio.sleep
    monkeypatch.setattr("time.sleep", lambda _: None)
    monkeypatch.setattr("asyncio.sleep", lambda _: sleep(0))
    asked: Ask = request.param
    return asked


def still_works(engine: Healing, ask: Ask) -> bool:
    record: Any = engine._providers["mine"]
    assert slots_of(record) == Slots(free=10)
    record.record_success(1.0)
    engine.attempts, engine.failure = 0, APIError
    engine._telemetry = SimpleNamespace(record_fault=lambda **_: None)
    return ask(engine, "Hi").heal_level == "l1_retry"


@pytest.mark.filterwarnings("ignore:coroutine .* was never awaited")
@pytest.mark.parametrize("install", [sys.settrace, sys.setprofile])
@pytest.mark.parametrize("error", [ArithmeticError, SystemExit])
def test_a_hook_that_raises_ends_at_most_the_call(
    ask: Ask, install: Any, error: type[BaseException]
) -> None:
    def hook(_: Any, __: str, about: Any) -> Any:
        if about is install:
            return None
        left[0] -= 1  # no plain variable: the interpreter puts a frame's back after its hook
        if left[0] == 0:
            raise error
        return hook

    engine, ends, left = Healing({"mine": tireless()}), set(), [0]
    before = sys.gettrace() if install is sys.settrace else sys.getprofile()
    for number in itertools.count(1):
        assert still_works(engine, ask)
        left[0] = number
        install(hook)
        try:
            ends.add(ask(engine, "Hi").heal_level)
        except error:
            ends.add("raised")
        finally:
            install(before)
        if left[0] > 0:  # there was no such event any more
            break
    assert ends == {"raised", "l1_retry"}


def raising(error: type[BaseException], name: str, base: type = object) -> Any:
    """A class whose member `name`, method or property, raises."""

    def member(*_: Any) -> Any:
        raise error("odd")

    shown = member if name.startswith("__") else property(member, lambda *_: None)
    return type("Odd", (base,), {name: shown})


@pytest.mark.parametrize("error", [ValueError, KeyboardInterrupt])
@pytest.mark.parametrize("member", ["category", "value", "retry_after", "sub_category"])
def test_what_a_foreign_diagnosis_raises_is_what_the_caller_gets(
    member: str, error: type[BaseException]
) -> None:
    diagnosis = raising(error, member, SimpleNamespace)()
    if member != "category":
        diagnosis.category = diagnosis if member == "value" else "auth_error"
    with pytest.raises(error, match="odd"):
        Diagnoser().suggest_recovery(diagnosis)


RAISING = ["__str__", "status_code", "TelemetryCollector", "record_fault", "__del__"]


@pytest.mark.parametrize("error", [ValueError, SystemExit])
@pytest.mark.parametrize("member", RAISING)
def test_what_is_raised_while_a_call_heals_ends_it_only_when_it_is_no_exception(
    ask: Ask, member: str, error: type[BaseException], monkeypatch: Any
) -> None:
    engine, unraisable = Healing({"mine": tireless()}), []
    monkeypatch.setattr(sys, "unraisablehook", lambda event: unraisable.append(event.exc_type))
    if member == "record_fault":
        engine._telemetry = raising(error, member)()
    elif member == "TelemetryCollector":
        monkeypatch.setitem(sys.modules, "tarvomeldric.telemetry", raising(error, member)())
    else:
        engine.failure = raising(error, member, APIError)
    if issubclass(error, Exception) or member == "__del__":
        assert ask(engine, "Hi").text == "answer"
    else:
        with pytest.raises(error):
            ask(engine, "Hi")
    gc.collect()
    assert set(unraisable) == ({error} if member == "__del__" else set())
    assert still_works(engine, ask)


def test_an_interrupt_while_somebody_is_woken_is_not_lost() -> None:
    class Waiter:
        def wake(self) -> bool:
            raise KeyboardInterrupt

    semaphore = native.Semaphore(0)
    place = semaphore._join(Waiter())
    with pytest.raises(KeyboardInterrupt):
        [semaphore.release(), time.sleep(1)]
    semaphore._leave(place)
    assert semaphore._permits == 1


def test_the_end_of_what_was_awaited_sees_a_coroutine_that_awaits_nothing() -> None:
    class Awaited:
        def __await__(self) -> Any:
            return self

        __iter__ = __await__

        def __next__(self) -> Any:
            raise StopIteration("answer")

        def __del__(self) -> None:
            seen.append(coroutine.cr_await)

    engine: Any = engine_with()
    engine._execute = lambda *_, **__: Awaited()
    seen, coroutine = [], engine.call("Hi")
    assert drive(coroutine).text == "answer"
    assert seen == [None]


def test_the_end_of_a_part_sees_a_record_that_is_whole() -> None:
    class Rule(native.LearnedRule):
        def __del__(self) -> None:
            seen.append({rule.pattern for rule in dict(learner._rules).values()})

    learner = FlywheelLearner()
    for change, left in [
        (lambda: learner._rules.clear(), set()),
        (lambda: learner._rules.popitem(), {"a", "b"}),
        (lambda: setattr(learner, "_rules", {}), set()),
    ]:
        learner._rules, seen = {name: Rule(name, "act") for name in "abc"}, []
        change()
        assert seen == [left] * (3 - len(left))


@pytest.mark.filterwarnings("ignore:nanobind. attempted to access an uninitialized")
def test_an_object_without_its_constructor_is_refused() -> None:
    def new(cls: Any) -> Any:
        return cls.__new__(cls)

    engine, made = new(SelfHealingEngine), engine_with()
    for use, *arguments in (
        (engine.call_sync, "Hi"),
        (engine.call, "Hi"),
        (engine._execute_sync, provider(), "Hi", "m"),
        (engine._inc_counter, "x"),
        (made._execute_sync, new(ProviderConfig), "Hi", "m"),
        (made.add_provider, new(ProviderConfig)),
        (lambda: SelfHealingEngine({"a": new(ProviderConfig)}).get_stats(),),
        (lambda: made.call_sync("Hi", contract=new(native.Contract)),),
        (setattr, made, "_learner", new(FlywheelLearner)),
        (setattr, provider(), "circuit_breaker", new(native.CircuitBreaker)),
        (new(ProviderConfig).__reduce__,),
        (new, native._Coroutine),
    ):
        with pytest.raises(TypeError):
            use(*arguments)
