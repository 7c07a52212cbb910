"""Sleeps made short while the soak runs, and the interrupts that hit blocking ones.

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
_LONGEST_PAUSE = 0.02
_INTERRUPTED = 0.02  # of the blocking naps

sleep, asleep = time.sleep, asyncio.sleep


class Interrupted(BaseException):
    """What Ctrl-C would be."""


@dataclass
class Sleeper:
    """A call, as far as its naps are concerned."""

    chance: random.Random
    paused: bool = False  # ever
    pausing: bool = False  # at the moment: the call is not counted yet


_sleeper: ContextVar[Sleeper] = ContextVar("sleeper")


def lie_down(chance: random.Random) -> Sleeper:
    """Begins a call in this thread or task."""
    sleeper = Sleeper(chance)
    _sleeper.set(sleeper)
    return sleeper


@contextmanager
def short() -> Iterator[None]:
    with mock.patch("time.sleep", _nap), mock.patch("asyncio.sleep", _awaited_nap):
        yield


def _nap(seconds: float) -> None:
    sleeper = _sleeper.get(None)
    if sleeper is not None:
        _begin(sleeper, seconds)
        if sleeper.chance.random() < _INTERRUPTED:
            raise Interrupted
    sleep(_shortened(seconds))
    if sleeper is not None:
        sleeper.pausing = False


async def _awaited_nap(seconds: float) -> None:
    sleeper = _sleeper.get(None)
    if sleeper is not None:
        _begin(sleeper, seconds)
    await asleep(_shortened(seconds))
    if sleeper is not None:
        sleeper.pausing = False


def _shortened(seconds: float) -> float:
    return min(seconds, _LONGEST_PAUSE if seconds == PAUSE else _LONGEST)


def _begin(sleeper: Sleeper, seconds: float) -> None:
    sleeper.pausing = seconds == PAUSE
    sleeper.paused = sleeper.paused or sleeper.pausing
