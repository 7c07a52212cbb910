"""How a coroutine waits for others without holding up its event loop."""

from __future__ import annotations

import asyncio
import contextlib
import functools
import threading
import time
import weakref
from collections.abc import Callable, Generator
from concurrent.futures import Future
from queue import SimpleQueue
from typing import Any

from tarvomeldric import _fork

_Job = Callable[[], None]

_GRACE_S = 0.05  # seconds in which a cancelled task is to end


class _Turn:
    """One coroutine in the line of a semaphore, woken through its event loop."""

    __slots__ = ("_future", "_loop")

    def __init__(self) -> None:
        self._loop = asyncio.get_running_loop()
        self._future = self._loop.create_future()

    def wake(self) -> bool:
        """Says that a permit may be there; False when the loop cannot pass it on."""
        if self._future.done():
            return False
        if asyncio._get_running_loop() is self._loop:
            self._future.set_result(None)
            return True
        if not self._loop.is_running():
            return False
        try:
            self._loop.call_soon_threadsafe(self._look)
        except RuntimeError:
            return False
        return True

    def _look(self) -> None:
        if not self._future.done():
            self._future.set_result(None)

    async def wait(self, seconds: float) -> None:
        timer = self._loop.call_later(seconds, self._look)
        try:
            await self._future
        finally:
            timer.cancel()


async def wait_for_permit(semaphore: Any, timeout: float) -> bool:
    """Waits at most ``timeout`` seconds for a permit of ``semaphore``; returns whether it was taken."""
    loop = asyncio.get_running_loop()
    deadline = loop.time() + timeout
    while True:
        remaining = deadline - loop.time()
        if remaining <= 0:
            return bool(semaphore._take_any())
        turn = _Turn()
        place = semaphore._join(turn)
        try:
            await turn.wait(min(remaining, semaphore.LOOK_AGAIN))
            if semaphore._look(place):
                return True
        finally:
            semaphore._leave(place)


class _Worker:
    """A thread that does one thing after another, until nobody refers to it.

    Unlike the threads of an executor it is a daemon: the end of the program does not wait for it.
    """

    def __init__(self) -> None:
        self._jobs: SimpleQueue[_Job | None] = SimpleQueue()
        threading.Thread(target=_work, args=(self._jobs,), daemon=True, name="learner").start()
        weakref.finalize(self, self._jobs.put, None).atexit = False

    def put(self, function: Callable[..., Any], *arguments: Any) -> None:
        """Nobody hears of its result, or of its failure."""
        self._jobs.put(functools.partial(function, *arguments))

    def submit(self, function: Callable[..., Any], *arguments: Any) -> Future[Any]:
        future: Future[Any] = Future()

        def job() -> None:
            if not future.set_running_or_notify_cancel():
                return
            try:
                result = function(*arguments)
            except BaseException as error:
                future.set_exception(error)
            else:
                future.set_result(result)

        self._jobs.put(job)
        return future


def _work(jobs: SimpleQueue[_Job | None]) -> None:
    while job := jobs.get():
        with contextlib.suppress(BaseException):
            job()
        del job  # with what it refers to


# One a learner, so that what is recorded is published in order.
_workers: weakref.WeakKeyDictionary[Any, _Worker] = weakref.WeakKeyDictionary()
_fork.renew(_workers.clear)


def _worker_of(learner: Any) -> _Worker:
    return _workers.get(learner) or _workers.setdefault(learner, _Worker())


def hand_over(learner: Any, method: str, *arguments: Any) -> None:
    """Has a method of the learner run on the learner's own worker thread, after what came before."""
    _worker_of(learner).put(getattr(learner, method), *arguments)


async def in_worker(learner: Any, method: str, *arguments: Any) -> Any:
    """The same, awaited."""
    job = _worker_of(learner).submit(getattr(learner, method), *arguments)
    return await asyncio.wrap_future(job)


def at_most(steps: Any, waited: Any, end: float) -> Generator[Any, Any, Any]:
    """Drives an awaitable on that waits for its first future, `waited`; its value.

    At `end`, on the monotonic clock, what it waits for is cancelled, as the cancellation of a task
    does, and the value is `NotImplemented`. One that goes on regardless is left where it waits a
    moment later.
    """
    loop = asyncio.get_running_loop()
    send = getattr(steps, "send", None) or (lambda _: next(steps))
    throw = getattr(steps, "throw", None) or _raise
    cancelled_before = _cancellations()
    cuts = 0
    timer: asyncio.TimerHandle

    def come() -> None:
        # Two turns of the loop later: what else ends at this moment comes first.
        loop.call_soon(loop.call_soon, cut)

    def cut() -> None:
        nonlocal cuts, timer
        timer = loop.call_later(_GRACE_S, come)
        if waited is None or waited.cancel():  # None lets the others have their turn
            cuts += 1

    timer = loop.call_later(max(0.0, end - time.monotonic()), come)
    try:
        while cuts < 2:
            try:
                sent = yield waited
            except BaseException as error:
                waited = throw(error)
            else:
                waited = send(sent)
        with contextlib.suppress(RuntimeError):  # it goes on even so
            steps.close()
    except StopIteration as over:
        return over.value
    except asyncio.CancelledError:
        if cuts == 0 or _cancellations() > cancelled_before:
            raise
    finally:
        timer.cancel()
    return NotImplemented


def _raise(error: BaseException) -> None:
    raise error


def _cancellations() -> int:
    """How often the running task was asked to end, as far as Python tells: since 3.11."""
    cancelling: Callable[[], int] = getattr(asyncio.current_task(), "cancelling", lambda: 0)
    return cancelling()
