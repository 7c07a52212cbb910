"""What an engine's calls come to in OpenTelemetry: spans and metrics in the GenAI conventions."""

from __future__ import annotations

import time
from functools import lru_cache
from typing import TYPE_CHECKING, Any
from urllib.parse import urlsplit

from opentelemetry import context, metrics, trace
from opentelemetry.context import Context
from opentelemetry.trace import Span, SpanKind, StatusCode

from tarvomeldric._engine import (
    AttemptEvent,
    BreakerEvent,
    EndEvent,
    FaultEvent,
    HealEvent,
    RefusalEvent,
    SelfHealingEngine,
    SleepEvent,
    __version__,
)

if TYPE_CHECKING:
    from tarvomeldric.telemetry import CallEvent

Step = AttemptEvent | FaultEvent | SleepEvent | RefusalEvent | BreakerEvent | HealEvent
Attributes = dict[str, str | int | float | bool]

_SECONDS = [0.01, 0.02, 0.04, 0.08, 0.16, 0.32, 0.64, 1.28, 2.56, 5.12, 10.24, 20.48, 40.96, 81.92]
_TOKENS = [float(4**power) for power in range(14)]
_OPERATIONS = {"": "chat", "completions": "text_completion"}  # the others have the same name
_NAMING = ("gen_ai.operation.name", "gen_ai.request.model")  # of a span
_OTHER = "_OTHER"

_MAX_CALLS = 10_000
_MAX_MODELS = 1000


class Recorder:
    """Keeps what the events of a call tell until its end, then makes its spans and measurements.

    Events come from many threads, and from the garbage collector in the middle of another one: there
    is no lock, and every change of the table is a single step.
    """

    def __init__(
        self, engine: SelfHealingEngine, tracer_provider: Any, meter_provider: Any
    ) -> None:
        self._engine = engine
        self._calls: dict[str, _Call] = {}
        self._models: set[Any] = set()
        self._tracer = trace.get_tracer("tarvomeldric", __version__, tracer_provider)
        meter = metrics.get_meter("tarvomeldric", __version__, meter_provider)
        self._duration = meter.create_histogram(
            "gen_ai.client.operation.duration",
            "s",
            "GenAI operation duration.",
            explicit_bucket_boundaries_advisory=_SECONDS,
        )
        self._first_chunk = meter.create_histogram(
            "gen_ai.client.operation.time_to_first_chunk",
            "s",
            "Time to receive the first chunk of a streamed answer.",
            explicit_bucket_boundaries_advisory=_SECONDS,
        )
        self._tokens = meter.create_histogram(
            "gen_ai.client.token.usage",
            "{token}",
            "Number of input and output tokens used.",
            explicit_bucket_boundaries_advisory=_TOKENS,
        )

    def listen(self, event: CallEvent) -> None:
        if isinstance(event, EndEvent):
            known = self._calls.pop(event.call_id, None)
            self._finish(known or _Call(event), event)
            return
        call = self._calls.get(event.call_id)
        if call is None:
            if len(self._calls) >= _MAX_CALLS:  # the oldest: most likely one whose end was not told
                self._calls.pop(next(iter(self._calls)), None)
            call = self._calls.setdefault(event.call_id, _Call(event))
        call.add(event)

    def _finish(self, call: _Call, end: EndEvent) -> None:
        now = time.time_ns()
        seconds = end.duration or (now - call.begun) / 1e9
        labels = self._labels(call, end)
        trouble: Attributes = {}
        if end.outcome != "answered":
            trouble["error.type"] = call.trouble if end.outcome == "failed" else end.outcome
        self._measure(end, self._bounded(labels), trouble, seconds)
        span = self._tracer.start_span(
            " ".join(str(labels[key]) for key in _NAMING if key in labels),
            call.parent,
            SpanKind.CLIENT,
            {**labels, **_about(end), **trouble},
            start_time=now - _ns(seconds),
        )
        try:
            if span.is_recording():
                self._fill(span, call, now - _ns(seconds))
            if end.outcome == "failed":
                span.set_status(StatusCode.ERROR)
        finally:
            span.end(now)

    def _measure(
        self, end: EndEvent, labels: Attributes, trouble: Attributes, seconds: float
    ) -> None:
        self._duration.record(seconds, {**labels, **trouble})
        if end.first_output is not None:
            self._first_chunk.record(end.first_output, labels)
        for kind, count in (("input", end.input_tokens), ("output", end.output_tokens)):
            if count is not None:
                self._tokens.record(count, {**labels, "gen_ai.token.type": kind})

    def _bounded(self, labels: Attributes) -> Attributes:
        """The labels of a measurement: names of models may come from strangers, without an end."""
        model = labels.get("gen_ai.request.model")
        if model is None or model in self._models:
            return labels
        if len(self._models) < _MAX_MODELS:
            self._models.add(model)
            return labels
        named = {key: _OTHER for key in labels if key.endswith(".model")}
        return {**labels, **named}

    def _fill(self, span: Span, call: _Call, start: int) -> None:
        below = trace.set_span_in_context(span, call.parent)
        for moment, event in call.events:
            if isinstance(event, AttemptEvent):
                self._trace_attempt(event, below, start + _ns(event.start))
            elif isinstance(event, HealEvent):
                span.set_attribute("tarvomeldric.heal.level", event.level)
                span.set_attribute("tarvomeldric.heal.fault", event.fault)
            else:
                span.add_event(*_step(event), timestamp=moment)

    def _trace_attempt(self, event: AttemptEvent, below: Context, start: int) -> None:
        about = self._asked(event)
        if event.fault:
            about["error.type"] = event.fault
        if event.status not in (None, 408):  # which stands for a time-out of ours, too
            about["http.response.status_code"] = event.status
        name = f"attempt {about['gen_ai.provider.name']}"
        span = self._tracer.start_span(name, below, SpanKind.CLIENT, about, start_time=start)
        if event.fault not in (None, "hedge_lost"):  # which was ended because it was not needed
            span.set_status(StatusCode.ERROR)
        span.end(start + _ns(event.duration))

    def _labels(self, call: _Call, end: EndEvent) -> Attributes:
        attempts = [event for _, event in call.events if isinstance(event, AttemptEvent)]
        labels = self._asked(attempts[-1]) if attempts else {}
        labels["gen_ai.operation.name"] = _OPERATIONS.get(end.api_type, end.api_type)
        if attempts and not attempts[-1].fault:
            labels["gen_ai.response.model"] = labels["gen_ai.request.model"]
        if asked := end.model or (attempts[0].model if attempts else ""):
            labels["gen_ai.request.model"] = _legible(asked)
        return labels

    def _asked(self, event: AttemptEvent) -> Attributes:
        provider = self._engine._providers.get(event.provider)
        return {
            "gen_ai.provider.name": _legible(event.provider),
            "gen_ai.request.model": _legible(event.model),
            **(_server(provider.base_url) if provider else {}),
        }


class _Call:
    """What is known of a call before its end. Its first event is told where the caller stands."""

    def __init__(self, event: CallEvent) -> None:
        self.parent = context.get_current()
        self.events: list[tuple[int, Step]] = []
        self.trouble = _OTHER
        before = event.start + event.duration if isinstance(event, AttemptEvent) else 0.0
        self.begun = time.time_ns() - _ns(before)

    def add(self, event: Step) -> None:
        self.events.append((time.time_ns(), event))
        match event:
            case AttemptEvent(fault=str(label)) | FaultEvent(label=label):
                self.trouble = label
            case RefusalEvent(reason=reason) if self.trouble == _OTHER:
                self.trouble = reason


def _about(end: EndEvent) -> Attributes:
    """What stands on a call's span alone."""
    about: Attributes = {
        "tarvomeldric.call.id": _legible(end.call_id),
        "tarvomeldric.call.outcome": end.outcome,
    }
    if end.first_output is not None:
        about["gen_ai.request.stream"] = True
        about["gen_ai.response.time_to_first_chunk"] = end.first_output
    if end.input_tokens is not None:
        about["gen_ai.usage.input_tokens"] = end.input_tokens
    if end.output_tokens is not None:
        about["gen_ai.usage.output_tokens"] = end.output_tokens
    return about


def _step(
    event: SleepEvent | RefusalEvent | BreakerEvent | FaultEvent,
) -> tuple[str, Attributes]:
    """The name and the attributes of a span event."""
    match event:
        case SleepEvent():
            return "tarvomeldric.sleep", {"seconds": event.seconds, "reason": event.reason}
        case RefusalEvent():
            return "tarvomeldric.refusal", {"provider": event.provider, "reason": event.reason}
        case BreakerEvent():
            turn = {"before": event.before, "after": event.after}
            return "tarvomeldric.breaker", {"provider": event.provider, **turn}
        case FaultEvent():
            found = {"category": event.category, "label": event.label}
            return "tarvomeldric.fault", {"provider": event.provider, **found}


@lru_cache(maxsize=256)
def _server(base_url: str) -> Attributes:
    """Where requests go, without what else may stand in an address."""
    try:
        parts = urlsplit(base_url)
        port = parts.port or (443 if parts.scheme == "https" else 80)
    except ValueError:
        return {}
    return {"server.address": parts.hostname, "server.port": port} if parts.hostname else {}


def _legible(name: str) -> str:
    """A name that exporters can encode: half a surrogate pair would cost them the whole batch."""
    return name.encode("utf-8", "replace").decode()


def _ns(seconds: float) -> int:
    return int(seconds * 1e9)
