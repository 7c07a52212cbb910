"""What is known about one exchange with a provider, wherever in the HTTP library it has got to."""

from __future__ import annotations

import contextlib
import math
from contextvars import ContextVar, Token
from time import monotonic
from typing import Any

_running: ContextVar[AttemptContext | None] = ContextVar("attempt", default=None)


class AttemptContext:
    """One exchange. Inside its `with` block it is the running attempt of its thread or task.

    Attributes:
        end: When the whole exchange must be over, on the monotonic clock; infinity for no bound.
        status: The status of the answer, None before there is one.
        headers: The headers of the answer.
        body: The decoded JSON of an answer with status 200, else the text of the refusal.
    """

    __slots__ = ("_before", "body", "end", "headers", "status")

    def __init__(self, timeout: Any) -> None:
        """Bound it by `timeout` seconds from now; by nothing when that is no number."""
        self.end = monotonic() + timeout if isinstance(timeout, int | float) else math.inf
        self.status: int | None = None
        self.headers: Any = None
        self.body: Any = None
        self._before: Token[AttemptContext | None] | None = None

    def __enter__(self) -> AttemptContext:
        self._before = _running.set(self)
        return self

    def __exit__(self, *_: object) -> None:
        assert self._before is not None
        with contextlib.suppress(ValueError):  # a coroutine may be closed in another context
            _running.reset(self._before)


def left(timeout: float | None) -> float | None:
    """The seconds that one step of the running attempt may take: `timeout`, or less near its end."""
    attempt = _running.get()
    if attempt is None or attempt.end == math.inf:
        return timeout
    rest = attempt.end - monotonic()
    return rest if timeout is None else min(timeout, rest)
