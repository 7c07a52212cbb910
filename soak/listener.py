"""Listens to an engine: every call that told anything has to end exactly once, and last."""

import sys
from collections import Counter
from collections.abc import Iterator
from contextlib import contextmanager
from queue import SimpleQueue
from typing import Any

from outcomes import (
    ABANDONED,
    ANSWERED,
    BROKEN_STREAM,
    FAILED,
    LEFT_STREAMS,
    REFUSED_ANSWER,
    UNCOUNTED,
    Tally,
)

from tarvomeldric import AttemptEvent, EndEvent, SelfHealingEngine

_OUTCOMES = {
    "answered": ANSWERED,  # less those streams
    "failed": [*FAILED, BROKEN_STREAM],
    "abandoned": [*ABANDONED, UNCOUNTED, *LEFT_STREAMS],
}


class Listener:
    """Hears everything while it listens, and makes sense of it when nobody calls any more.

    It keeps no event: the extension module's table of its living objects doubles when they are more
    than ever before, and stays so. Nor does it take a lock: a call that is dropped tells of its end
    wherever the interpreter collects it, which may be in here. The names of calls have 32 bits, so
    that now and then two calls share theirs.
    """

    def __init__(self, engine: SelfHealingEngine, tally: Tally) -> None:
        self._engine = engine
        self._tally = tally
        self._under_way = set[str]()
        self._heard: SimpleQueue[str] = SimpleQueue()  # ends, and answers refused
        self._ends: Counter[str] = Counter()

    @contextmanager
    def listening(self) -> Iterator[None]:
        with self._engine.observe(self._hear):
            yield

    def complaints(self) -> Iterator[str]:
        while not self._heard.empty():
            if (heard := self._heard.get()) == REFUSED_ANSWER:
                self._tally.note(heard)
            else:
                self._ends[heard] += 1
        if self._under_way:
            yield f"{len(self._under_way)} calls told something, and then no end"
        for outcome, seen in _OUTCOMES.items():
            callers = self._tally.sum(seen)
            if outcome == "answered":
                callers -= self._tally.sum([BROKEN_STREAM, *LEFT_STREAMS])
            if self._ends[outcome] != callers:
                yield f"{self._ends[outcome]} calls ended as {outcome}; by their callers {callers}"

    def _hear(self, event: Any) -> None:
        if isinstance(event, EndEvent):
            self._under_way.discard(event.call_id)
            self._heard.put(sys.intern(event.outcome))
            return
        self._under_way.add(event.call_id)
        if isinstance(event, AttemptEvent) and event.fault == "answer:contract":
            self._heard.put(REFUSED_ANSWER)
