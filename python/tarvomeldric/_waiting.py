"""How a coroutine waits for others without holding up its event loop."""

from __future__ import annotations

import asyncio
import threading
import weakref
from collections.abc import Callable
from concurrent.futures import Future
from queue import SimpleQueue
from typing import Any

from tarvomeldric import _fork

_Job = Callable[[], None]


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
        job()
        del job  # with what it refers to


# One a learner, so that what is recorded is published in order.
_workers: weakref.WeakKeyDictionary[Any, _Worker] = weakref.WeakKeyDictionary()
_fork.renew(_workers.clear)


async def in_worker(learner: Any, method: str, *arguments: Any) -> Any:
    """Runs a method of the learner on the learner's own worker thread."""
    worker = _workers.get(learner)
    if worker is None:
        worker = _workers.setdefault(learner, _Worker())
    return await asyncio.wrap_future(worker.submit(getattr(learner, method), *arguments))
