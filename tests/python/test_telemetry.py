"""The log of what happens in calls, and OpenTelemetry's spans and metrics of it."""

from __future__ import annotations

import asyncio
import logging
import re
import sys
from asyncio import run
from typing import Any

import pytest
from opentelemetry.sdk.metrics import MeterProvider
from opentelemetry.sdk.metrics.export import InMemoryMetricReader
from opentelemetry.sdk.trace import ReadableSpan, SpanProcessor, TracerProvider
from opentelemetry.sdk.trace.export import SimpleSpanProcessor
from opentelemetry.sdk.trace.export.in_memory_span_exporter import InMemorySpanExporter

from support import KEY, engine_with, provider, tireless
from tarvomeldric import APIError, CallPolicy, CallRefused, CircuitBreaker, RateLimiter, _otel
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply
from tarvomeldric.telemetry import instrument, log_to

PROMPT, ANSWER = "my secret question", "its secret answer"
LOGGED = """\
WARNING a�b first/m failed after # s: connection_error
WARNING a�b breaker of first was closed, is open
WARNING a�b diagnosed first: connection_error (connection_error)
DEBUG a�b waits # s: retry
WARNING a�b first/m failed after # s: server_error, status 503
WARNING a�b diagnosed first: server_error (server_error)
DEBUG a�b second/m answered in # s
DEBUG a�b healed of server_error by l3_failover: second/m
DEBUG a�b answered after # s
WARNING bad second is not asked: admission
WARNING bad failed after # s"""


def test_a_log_tells_each_step_in_a_line_and_nothing_confidential(
    caplog: pytest.LogCaptureFixture,
) -> None:
    caplog.set_level(logging.DEBUG, "tarvomeldric")
    one_token = RateLimiter(1, refill_rate=0.0, _tokens=1.0)
    with ProviderSimulator(Fault.RESET, 503, default=ANSWER) as simulator:
        engine = engine_with(
            provider(simulator.base_url, "first", circuit_breaker=CircuitBreaker(1)),
            provider(simulator.base_url, "second", rate_limiter=one_token),
        )
        quick = engine.with_policy(CallPolicy(max_retries=1, initial_backoff=0.01))
        with engine, log_to(engine, level=logging.DEBUG):
            assert quick.call_sync(PROMPT, "m", request_id="a\nb").text == ANSWER
            with pytest.raises(CallRefused):
                quick.call_sync(PROMPT, "m", request_id="bad")
        with pytest.raises(CallRefused):
            quick.call_sync(PROMPT, "m")  # nobody listens any more
    lines = [
        f"{record.levelname} {record.getMessage()}"
        for record in caplog.records
        if record.name == "tarvomeldric"
    ]
    assert re.sub(r"\d+\.\d{3} s", "# s", "\n".join(lines)) == LOGGED
    for secret in (PROMPT, ANSWER, KEY):
        assert secret not in caplog.text


class Exports:
    """Where the spans and measurements of a test go."""

    def __init__(self) -> None:
        self.kept, self.reader = InMemorySpanExporter(), InMemoryMetricReader()
        self.tracers, self.meters = TracerProvider(), MeterProvider([self.reader])
        self.tracers.add_span_processor(SimpleSpanProcessor(self.kept))

    def spans(self) -> list[Any]:
        return sorted(self.kept.get_finished_spans(), key=lambda span: span.start_time or 0)

    def points(self) -> dict[Any, Any]:
        told: Any = self.reader.get_metrics_data()
        return {
            (metric.name, point.attributes.get(key)): point
            for metric in told.resource_metrics[0].scope_metrics[0].metrics
            for key in ["gen_ai.token.type" if metric.name == TOKENS else "error.type"]
            for point in metric.data.data_points
        }


DURATION, TOKENS = "gen_ai.client.operation.duration", "gen_ai.client.token.usage"
FIRST_CHUNK = "gen_ai.client.operation.time_to_first_chunk"
TREE = """\
theirs
. chat m
. . attempt first connection_error
. . attempt first server_error
. . attempt second
chat m server_error
. attempt first server_error
. attempt first server_error
chat m admission"""


@pytest.mark.parametrize("way", ["blocking", "awaited"])
def test_a_call_is_a_span_with_its_attempts_below_and_nothing_confidential(way: str) -> None:
    async def awaited() -> Any:
        async with engine:
            return await view.call(PROMPT, "m")

    told, exports = "said by the provider", Exports()
    replies = [Fault.RESET, 503, Reply(ANSWER, usage={"prompt_tokens": 7, "completion_tokens": 30})]
    with ProviderSimulator(*replies, default=Reply(told, status=503)) as simulator:
        port, one_token = simulator.port, RateLimiter(1, 0.0, _tokens=1.0)
        engine = engine_with(
            provider(simulator.base_url, "first", circuit_breaker=CircuitBreaker(4)),
            provider(simulator.base_url, "second", rate_limiter=one_token),
        )
        view = engine.with_policy(CallPolicy(max_retries=1, initial_backoff=0.01))
        ask = (lambda: view.call_sync(PROMPT, "m")) if way == "blocking" else lambda: run(awaited())
        with engine, instrument(view, exports.tracers, exports.meters):
            with exports.tracers.get_tracer("theirs").start_as_current_span("theirs"):
                assert ask().text == ANSWER
            for _ in range(2):
                with pytest.raises((APIError, CallRefused)):
                    ask()
        with pytest.raises(CallRefused):
            view.call_sync(PROMPT, "m")  # nobody listens any more
    spans, depths = exports.spans(), {None: 0}
    lines = []
    for span in spans:
        depth = depths[span.parent and span.parent.span_id]
        depths[span.context.span_id] = depth + 1
        trouble = span.attributes.get("error.type")
        assert span.status.is_ok == (trouble is None)
        lines.append(". " * depth + span.name + (f" {trouble}" if trouble else ""))
    assert "\n".join(lines) == TREE
    assert spans[0].start_time <= spans[1].start_time <= spans[2].start_time
    assert spans[4].end_time <= spans[1].end_time <= spans[0].end_time
    assert [event.name[13:] for event in spans[1].events] == ["fault", "sleep", "fault"]
    assert {event.name[13:] for event in spans[5].events} >= {"breaker", "refusal"}
    expected = {
        "gen_ai.provider.name": "second", "gen_ai.response.model": "m",
        "gen_ai.usage.input_tokens": 7, "gen_ai.usage.output_tokens": 30,
        "server.address": "127.0.0.1", "server.port": port,
        "tarvomeldric.heal.level": "l3_failover", "tarvomeldric.heal.fault": "server_error",
    }  # fmt: skip
    assert expected.items() <= spans[1].attributes.items()
    points = exports.points()
    assert {(*key, point.count, point.explicit_bounds[1]) for key, point in points.items()} == {
        *((DURATION, trouble, 1, 0.02) for trouble in (None, "server_error", "admission")),
        *((TOKENS, kind, 1, 4) for kind in ("input", "output")),
    }
    exported = "".join(span.to_json() for span in spans) + str(points)
    for secret in (PROMPT, ANSWER, KEY, told):
        assert secret not in exported


def test_spans_of_streams_and_of_calls_that_are_left_end_with_them(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    class Broken(SpanProcessor):
        def on_end(self, span: ReadableSpan) -> None:
            raise OSError("the collector is away")

    exports, words = Exports(), ["One ", 0.5, "two"]
    exports.tracers.add_span_processor(Broken())
    streams = [Reply(stream=words), Reply(stream=[*words, Fault.RESET]), Reply(stream=words)]
    with ProviderSimulator(*streams, Fault.STALL, default=streams[0]) as simulator:
        engine = engine_with(tireless(base_url=simulator.base_url))
        recorder = _otel.Recorder(engine, exports.tracers, exports.meters)

        async def leave() -> None:
            async with engine:
                async with engine.stream(PROMPT) as stream:
                    await anext(stream)
                with pytest.raises(asyncio.TimeoutError):
                    await asyncio.wait_for(engine.call(PROMPT), 0.1)

        with engine, engine.observe(recorder.listen):
            with engine.stream_sync(PROMPT, include_usage=True) as stream:
                assert "".join(stream.text) == "One two"
            with pytest.raises(APIError), engine.stream_sync(PROMPT) as stream:
                list(stream)
            run(leave())
            engine.stream_sync(PROMPT).__enter__()  # and dropped
    calls = [span for span in exports.spans() if span.name.startswith("chat")]
    ends = (
        (None, 0.1),
        ("connection_error", 0.1),
        ("abandoned", 0),
        ("abandoned", 0.09),
        ("abandoned", 0),
    )
    for span, (trouble, least) in zip(calls, ends, strict=True):
        assert span.attributes.get("error.type") == trouble
        first = span.attributes.get("gen_ai.response.time_to_first_chunk", 0)
        assert (span.end_time - span.start_time) / 1e9 > first + least
    assert calls[0].attributes["gen_ai.usage.output_tokens"] == 2
    assert exports.points()[FIRST_CHUNK, None].count == 4

    monkeypatch.setattr(_otel, "_MAX_CALLS", 3)
    for number in range(9):  # calls whose end is never told
        recorder.listen(_otel.SleepEvent(str(number), 0.1, "retry"))
    assert list(recorder._calls) == ["6", "7", "8"]


def test_without_opentelemetry_there_is_one_line_to_read(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delitem(sys.modules, "tarvomeldric._otel")
    monkeypatch.setitem(sys.modules, "opentelemetry", None)
    with pytest.raises(ImportError, match=r"install tarvomeldric\[otel\]"):
        instrument(engine_with())
