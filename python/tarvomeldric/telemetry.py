"""Counts of the recoveries that healed calls, and a log of everything that happens in calls.

The engine reports every healed call to one :class:`TelemetryCollector`. To send the reports
elsewhere, assign any object with the same ``record_fault`` to the engine's ``_telemetry``.
:func:`log_to` writes each event of every call, healed or not, through :mod:`logging`, and
:func:`instrument` makes OpenTelemetry's spans and metrics of them.
"""

from __future__ import annotations

import logging
import threading
from typing import TYPE_CHECKING

from tarvomeldric._engine import (
    AttemptEvent,
    BreakerEvent,
    EndEvent,
    EngineView,
    FaultEvent,
    HealEvent,
    Observation,
    RefusalEvent,
    SelfHealingEngine,
    SleepEvent,
)

if TYPE_CHECKING:
    from opentelemetry.metrics import MeterProvider
    from opentelemetry.trace import TracerProvider

CallEvent = (
    AttemptEvent | FaultEvent | SleepEvent | RefusalEvent | BreakerEvent | HealEvent | EndEvent
)
"""What an observer of an engine is told."""

_MAX_NAMES = 1000
_OVERFLOW = "other"

_Table = dict[str, dict[str, float]]


def log_to(
    engine: SelfHealingEngine, logger: logging.Logger | None = None, level: int = logging.INFO
) -> Observation:
    """Write every event of an engine's calls to a log, a line each, as it happens.

    A line begins with the call's name, and holds names, figures and labels: no prompt, answer,
    key or text of a provider. Failures and refusals are warnings, whatever the ``level`` of the
    others. Calls through the engine's views are heard, too. A handler that waits holds up the
    call, or the event loop, that it is told of.

    Args:
        engine: Whose calls are written down.
        logger: Where to; the logger ``tarvomeldric`` by default.
        level: The level of what is no failure.

    Returns:
        The handle that ends it: ``close()``, or the end of a ``with`` block.
    """
    log = logger or logging.getLogger("tarvomeldric")

    def listen(event: CallEvent) -> None:
        severity = logging.WARNING if _is_trouble(event) else level
        if log.isEnabledFor(severity):
            log.log(severity, "%s", _in_one_line(f"{event.call_id} {_story(event)}"))

    return engine.observe(listen)


def instrument(
    engine: SelfHealingEngine | EngineView,
    tracer_provider: TracerProvider | None = None,
    meter_provider: MeterProvider | None = None,
) -> Observation:
    """Make spans and metrics of an engine's calls, in OpenTelemetry's conventions for generative AI.

    Each call is a client span below the span that is the caller's current one, each of its requests
    a span below that; waits, refusals and changes of breakers are events of the call's span. They
    are made when the call is over, with the times at which things happened. Names, figures and
    labels are exported: no prompt, answer, key or text of a provider. Calls at one time need
    request ids of their own, as they have by default.

    Args:
        engine: Whose calls; of a view, those of its engine.
        tracer_provider: Where spans go; OpenTelemetry's global one by default.
        meter_provider: Where measurements go; the global one by default.

    Returns:
        The handle that ends it: ``close()``, or the end of a ``with`` block.

    Raises:
        ImportError: OpenTelemetry's API is not installed.
    """
    try:
        from tarvomeldric._otel import Recorder
    except ImportError:
        raise ImportError("instrument needs OpenTelemetry: install tarvomeldric[otel]") from None
    whole = engine.engine if isinstance(engine, EngineView) else engine
    return whole.observe(Recorder(whole, tracer_provider, meter_provider).listen)


def _story(event: CallEvent) -> str:
    match event:
        case AttemptEvent(fault=None):
            return f"{event.provider}/{event.model} answered in {event.duration:.3f} s"
        case AttemptEvent(fault="hedge_lost"):
            asked = f"{event.provider}/{event.model}"
            return f"{asked} is ended after {event.duration:.3f} s: another one has answered"
        case AttemptEvent():
            status = f", status {event.status}" if event.status else ""
            asked = f"{event.provider}/{event.model}"
            return f"{asked} failed after {event.duration:.3f} s: {event.fault}{status}"
        case FaultEvent():
            return f"diagnosed {event.provider}: {event.category} ({event.label})"
        case SleepEvent():
            return f"waits {event.seconds:.3f} s: {event.reason}"
        case RefusalEvent():
            return f"{event.provider} is not asked: {event.reason}"
        case BreakerEvent():
            return f"breaker of {event.provider} was {event.before}, is {event.after}"
        case HealEvent():
            return f"healed of {event.fault} by {event.level}: {event.provider}/{event.model}"
        case EndEvent():
            return f"{event.outcome} after {event.duration:.3f} s"


def _is_trouble(event: CallEvent) -> bool:
    match event:
        case AttemptEvent(fault=None | "hedge_lost"):
            return False
        case AttemptEvent() | FaultEvent() | RefusalEvent():
            return True
        case BreakerEvent(after="open") | EndEvent(outcome="failed"):
            return True
    return False


def _in_one_line(text: str) -> str:
    """The text without what would begin another line, or steer the terminal that shows it.

    Names of calls and of models may come from strangers.
    """
    return "".join(each if each.isprintable() else "\N{REPLACEMENT CHARACTER}" for each in text)


class TelemetryCollector:
    """Counts recoveries by fault, by provider and by recovery action.

    Memory is bounded: each of the three tables holds 1000 names, and names that come later are
    counted together as ``"other"``. Safe to share between threads.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._tables: dict[str, _Table] = {"faults": {}, "providers": {}, "actions": {}}

    def record_fault(
        self,
        *,
        fault_type: str,
        provider: str,
        model: str,
        recovery_action: str,
        recovery_ok: bool,
        latency_ms: float,
        sub_category: str,
    ) -> None:
        """Count one recovery.

        The fault is counted under ``sub_category``, or under ``fault_type`` when that is empty.
        ``latency_ms`` is the time of the recovering attempt in milliseconds. ``model`` is
        accepted but not counted: custom model names are too many to be useful here.
        """
        outcome = {"count": 1, "ok": int(recovery_ok), "latency_ms": float(latency_ms)}
        with self._lock:
            self._add("faults", sub_category or fault_type, outcome)
            self._add("providers", provider, outcome)
            self._add("actions", recovery_action, outcome)

    def to_dict(self) -> dict[str, _Table]:
        """Return a fresh copy: ``{"faults" | "providers" | "actions": {name: row}}``.

        A row holds ``count`` (recoveries), ``ok`` (those that worked) and ``latency_ms`` (their
        latencies added up, in milliseconds).
        """
        with self._lock:
            return {
                title: {name: dict(row) for name, row in table.items()}
                for title, table in self._tables.items()
            }

    def _add(self, title: str, name: str, outcome: dict[str, float]) -> None:
        table = self._tables[title]
        if name not in table and len(table) >= _MAX_NAMES:
            name = _OVERFLOW
        row = table.setdefault(name, dict.fromkeys(outcome, 0))
        for key, value in outcome.items():
            row[key] += value
