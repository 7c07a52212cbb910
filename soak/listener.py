"""Listens to an engine: every call that told anything has to end exactly once, and last."""

from collections import Counter
from collections.abc import Iterator
from contextlib import contextmanager
from queue import SimpleQueue
from typing import Any

from outcomes import ABANDONED, ANSWERED, FAILED, REFUSED_ANSWER, UNCOUNTED, Tally

from tarvomeldric import AttemptEvent, EndEvent, SelfHealingEngine

_OUTCOMES = {"answered": ANSWERED, "failed": FAILED, "abandoned": [*ABANDONED, UNCOUNTED]}


class Listener:
    """Hears everything while it listens, and makes sense of it when nobody calls any more."""

    def __init__(self, engine: SelfHealingEngine, tally: Tally) -> None:
        self._engine = engine
        self._tally = tally
        self._heard: SimpleQueue[Any] = SimpleQueue()
        self._ends: Counter[str] = Counter()

    @contextmanager
    def listening(self) -> Iterator[None]:
        with self._engine.observe(self._heard.put):
            yield

    def complaints(self) -> Iterator[str]:
        begun, ended = set[str](), set[str]()
        while not self._heard.empty():
            event = self._heard.get()
            if event.call_id in ended:
                yield f"told of a call that had ended: {event}"
            if isinstance(event, EndEvent):
                ended.add(event.call_id)
                self._ends[event.outcome] += 1
            elif isinstance(event, AttemptEvent) and event.fault == "answer:contract":
                self._tally.note(REFUSED_ANSWER)
            begun.add(event.call_id)
        if begun != ended:
            yield f"{len(begun - ended)} calls told something, but no end"
        for outcome, seen in _OUTCOMES.items():
            if self._ends[outcome] != self._tally.sum(seen):
                callers = self._tally.sum(seen)
                yield f"{self._ends[outcome]} calls ended as {outcome}; by their callers {callers}"
