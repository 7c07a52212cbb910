"""Two requests of one call at a time: the second is sent when the first one takes long.

What is sent, and who has won, is decided by the core; here is how the two run beside each other.
"""

from __future__ import annotations

import asyncio
import contextlib
import contextvars
import heapq
import threading
from collections.abc import Callable, Coroutine
from queue import Empty, SimpleQueue
from time import monotonic
from typing import Any

from tarvomeldric import _fork

_Leg = Coroutine[Any, Any, bool]  # sends a request; whether its answer is a good one

_MOST_THREADS = 32
_IDLE_S = 10.0  # after which the thread that keeps the time ends, when there is nothing to wait for
_MANY = 64


class Race:
    """The two requests of an awaited call, each as a task of its own.

    What the first one raises is no failure of a provider, and passes; what the second one raises
    passes when there is nothing but that.
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
            if not self._first.done() and _is_good(self._second):
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


def _is_good(second: asyncio.Task[bool]) -> bool:
    return not second.cancelled() and second.exception() is None and second.result()


def _hear(task: asyncio.Task[bool]) -> None:
    """Nobody asks the loser how it ended."""
    if not task.cancelled():
        task.exception()


class Due:
    """Something that is to be done at a moment of the monotonic clock, unless it is called off."""

    def __init__(self, moment: float, job: Callable[[bool], None]) -> None:
        self.moment = moment
        self._work: tuple[contextvars.Context, Callable[[bool], None]] | None = None
        self._work = contextvars.copy_context(), job

    def __lt__(self, other: Due) -> bool:
        return self.moment < other.moment

    def call_off(self) -> None:
        self._work = None

    def is_off(self) -> bool:
        return self._work is None

    def run(self, in_time: bool) -> None:
        """Has it done; or says that nobody can do it."""
        work, self._work = self._work, None
        if work is not None:
            context, job = work
            with contextlib.suppress(Exception):
                context.run(job, in_time)


class Threads:
    """Does what is due on daemon threads: one keeps the time, and each job has one of its own.

    Whoever asks takes no lock, for a signal handler may come in between and ask as well.
    """

    def __init__(self) -> None:
        self._inbox: SimpleQueue[Due] = SimpleQueue()
        self._keeper: threading.Thread | None = None  # None while nobody keeps the time
        self._working: set[object] = set()

    def at(self, moment: float, job: Callable[[bool], None]) -> Due:
        """Has the job done, in a copy of the caller's context.

        It is called with True; or with False when too many are at work.
        """
        due = Due(moment, job)
        self._inbox.put(due)
        if self._keeper is None:
            self._keeper = _started(self._keep_time)
        return due

    def _keep_time(self) -> None:
        waiting: list[Due] = []
        many = _MANY
        while True:
            patience = waiting[0].moment - monotonic() if waiting else _IDLE_S
            with contextlib.suppress(Empty):
                heapq.heappush(waiting, self._inbox.get(timeout=max(0.0, patience)))
                if len(waiting) > many:  # of whom most may have been called off
                    waiting = [due for due in waiting if not due.is_off()]
                    heapq.heapify(waiting)
                    many = max(_MANY, 2 * len(waiting))
                continue
            if waiting:
                self._begin(heapq.heappop(waiting))
            else:
                self._keeper = None  # before the last look
                if self._inbox.empty():
                    return

    def _begin(self, due: Due) -> None:
        if due.is_off():
            return

        def work() -> None:
            try:
                due.run(True)
            finally:
                self._working.discard(due)

        if len(self._working) < _MOST_THREADS:
            self._working.add(due)
            if _started(work):
                return
            self._working.discard(due)
        due.run(False)


def _started(work: Callable[[], None]) -> threading.Thread | None:
    """A thread for it, if there can be one."""
    thread = threading.Thread(target=work, name="hedge", daemon=True)
    try:
        thread.start()
    except RuntimeError:
        return None
    return thread


_threads = Threads()


def at(moment: float, job: Callable[[bool], None]) -> Due:
    """Has something done by one of this process's threads; see `Threads.at`."""
    return _threads.at(moment, job)


def _start_afresh() -> None:
    global _threads
    _threads = Threads()


_fork.renew(_start_afresh)
