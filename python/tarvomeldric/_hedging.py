"""Two requests of one call at a time: the second is sent when the first one takes long.

What is sent, and who has won, is decided by the core; here is how the two run beside each other.
"""

from __future__ import annotations

import asyncio
import contextlib
import contextvars
import heapq
import itertools
import threading
from collections.abc import Callable, Coroutine
from time import monotonic
from typing import Any

from tarvomeldric import _fork

_Leg = Coroutine[Any, Any, bool]  # sends a request; whether its answer is a good one

_MOST_THREADS = 16
_IDLE_S = 10.0  # after which a thread that has nothing to do ends


class Race:
    """The two requests of an awaited call, each as a task of its own.

    What one of them raises is no failure of a provider, and passes.
    """

    def __init__(self, first: _Leg) -> None:
        self._first = _task(first)
        self._second: asyncio.Task[bool] | None = None

    async def first(self, patience: float) -> bool:
        """Waits for the first one at most `patience` seconds; whether it is over."""
        await self._wait(self._first, timeout=patience)
        if self._first.done():
            self._first.result()
        return self._first.done()

    async def both(self, second: _Leg | None) -> bool:
        """Waits until the first one is over, or the second has won by a good answer; which it was."""
        if second is not None:
            self._second = _task(second)
            await self._wait(self._first, self._second)
            if not self._first.done() and self._second.result():
                self._first.cancel()
                return True
        await self._wait(self._first)
        self._first.result()
        return False

    async def other(self) -> None:
        """Waits for the second one."""
        assert self._second is not None
        await self._wait(self._second)
        self._second.result()

    async def _wait(self, *tasks: asyncio.Task[bool], timeout: float | None = None) -> None:
        try:
            await asyncio.wait(tasks, timeout=timeout, return_when=asyncio.FIRST_COMPLETED)
        except BaseException:
            self.end()
            raise

    def end(self) -> None:
        """Ends what is under way."""
        for task in (self._first, self._second):
            if task is not None and not task.done():
                with contextlib.suppress(RuntimeError):  # the loop is closed
                    task.cancel()


def _task(leg: _Leg) -> asyncio.Task[bool]:
    task = asyncio.get_running_loop().create_task(leg)
    task.add_done_callback(_hear)
    return task


def _hear(task: asyncio.Task[bool]) -> None:
    """Nobody asks the loser how it ended."""
    if not task.cancelled():
        task.exception()


class Due:
    """Something that is to be done by one of the threads at its moment, unless it is called off."""

    def __init__(self, job: Callable[[], None]) -> None:
        self._context = contextvars.copy_context()
        self._job: Callable[[], None] | None = job

    def call_off(self) -> None:
        self._job = None

    def is_off(self) -> bool:
        return self._job is None

    def run(self) -> None:
        if (job := self._job) is not None:
            with contextlib.suppress(Exception):
                self._context.run(job)


class Threads:
    """A few daemon threads that do things when they are due, or as soon after as one is free."""

    def __init__(self) -> None:
        self._changed = threading.Condition()  # its lock may be taken again by a signal handler
        self._due: list[tuple[float, int, Due]] = []
        self._order = itertools.count()
        self._threads = 0
        self._waiting = 0

    def at(self, moment: float, job: Callable[[], None]) -> Due:
        """Has the job done at a moment of the monotonic clock, in a copy of the caller's context."""
        due = Due(job)
        with self._changed:
            heapq.heappush(self._due, (moment, next(self._order), due))
            if self._due[0][2] is due:
                self._keep_watch()
        return due

    def _keep_watch(self) -> None:
        if self._waiting:
            self._changed.notify()
        elif self._threads < _MOST_THREADS:
            self._threads += 1
            threading.Thread(target=self._work, name="hedge", daemon=True).start()

    def _work(self) -> None:
        while (due := self._next()) is not None:
            due.run()
            del due  # with what it refers to

    def _next(self) -> Due | None:
        """Waits for what is due next; None when there is nothing to wait for."""
        with self._changed:
            idle_since = monotonic()
            while True:
                while self._due and self._due[0][2].is_off():
                    heapq.heappop(self._due)
                now = monotonic()
                if self._due and self._due[0][0] <= now:
                    due = heapq.heappop(self._due)[2]
                    self._keep_watch()
                    return due
                if not self._due and now - idle_since >= _IDLE_S:
                    self._threads -= 1
                    return None
                self._waiting += 1
                try:
                    self._changed.wait(self._due[0][0] - now if self._due else _IDLE_S)
                finally:
                    self._waiting -= 1


_threads = Threads()


def at(moment: float, job: Callable[[], None]) -> Due:
    """Has something done by one of this process's threads; see `Threads.at`."""
    return _threads.at(moment, job)


def _start_afresh() -> None:
    global _threads
    _threads = Threads()


_fork.renew(_start_afresh)
