"""Shortens the engine's sleeps, interrupts some of the blocking ones, and knows which call pauses.

The engine looks `time.sleep` and `asyncio.sleep` up when it calls them.
"""

import asyncio
import random
import time
from collections.abc import Iterator
from contextlib import contextmanager
from contextvars import ContextVar
from dataclasses import dataclass
from unittest import mock

PAUSE = 0.5  # seconds, under back-pressure; no other delay of the engine has this length
_LONGEST = 0.001  # seconds
_LONGEST_PAUSE = 0.05  # enough for calls to be given up in it
_INTERRUPTED = 0.02  # of the blocking sleeps

sleep, asleep = time.sleep, asyncio.sleep


class Interrupted(BaseException):
    """What Ctrl-C would be."""


@dataclass
class Sleeper:
    """A call, as far as its sleeps are concerned."""

    chance: random.Random
    paused: bool = False  # ever
    pausing: bool = False  # at the moment: the call is not counted yet


_sleeper: ContextVar[Sleeper | None] = ContextVar("sleeper", default=None)


def begin_call(chance: random.Random) -> Sleeper:
    """The sleeps of this thread or task are those of this call from now on."""
    sleeper = Sleeper(chance)
    _sleeper.set(sleeper)
    return sleeper


@contextmanager
def shortened() -> Iterator[None]:
    with mock.patch("time.sleep", _sleep), mock.patch("asyncio.sleep", _asleep):
        yield


def _sleep(seconds: float) -> None:
    with _noted(seconds) as shorter:
        sleeper = _sleeper.get()
        if sleeper and sleeper.chance.random() < _INTERRUPTED:
            raise Interrupted
        sleep(shorter)


async def _asleep(seconds: float) -> None:
    with _noted(seconds) as shorter:
        await asleep(shorter)


@contextmanager
def _noted(seconds: float) -> Iterator[float]:
    """For how long to sleep instead. A call that is given up meanwhile stays in its pause."""
    sleeper, pausing = _sleeper.get(), seconds == PAUSE
    if sleeper:
        sleeper.pausing, sleeper.paused = pausing, sleeper.paused or pausing
    yield min(seconds, _LONGEST_PAUSE if pausing else _LONGEST)
    if sleeper:
        sleeper.pausing = False
