"""What ends a wait: its time, or the client's going away."""

from __future__ import annotations

import asyncio
from types import TracebackType
from typing import Any

from starlette.requests import ClientDisconnect
from starlette.types import Receive


class _Ended:
    """A block whose task is cancelled from outside; what raises then is no cancellation any more."""

    error: type[Exception]
    _ended = False

    def __enter__(self) -> None:
        task = asyncio.current_task()
        assert task is not None
        self._task = task
        self._begin()

    def __exit__(
        self, kind: type[BaseException] | None, _: BaseException | None, __: TracebackType | None
    ) -> None:
        self._stop()
        if self._ended and kind is asyncio.CancelledError:
            raise self.error

    def _end(self) -> None:
        self._ended = True
        self._task.cancel()

    def _begin(self) -> None:
        raise NotImplementedError

    def _stop(self) -> None:
        raise NotImplementedError


class Limit(_Ended):
    """Ends a wait after so many seconds, as TimeoutError: `asyncio.timeout` of Python 3.11 and later."""

    error = TimeoutError

    def __init__(self, seconds: float) -> None:
        self._seconds = seconds

    def _begin(self) -> None:
        self._timer = asyncio.get_running_loop().call_later(self._seconds, self._end)

    def _stop(self) -> None:
        self._timer.cancel()


class Presence(_Ended):
    """Ends a wait when the client goes away, as ClientDisconnect."""

    error = ClientDisconnect

    def __init__(self, receive: Receive) -> None:
        self._receive = receive

    def _begin(self) -> None:
        self._watcher = asyncio.ensure_future(self._watch())

    def _stop(self) -> None:
        self._watcher.cancel()

    async def _watch(self) -> Any:
        while (await self._receive())["type"] != "http.disconnect":
            pass
        self._end()
