"""What a scraper gets to see of the gateway."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

from prometheus_client import (
    CollectorRegistry,
    Counter,
    Gauge,
    Histogram,
    disable_created_metrics,
    generate_latest,
)
from prometheus_client.core import GaugeMetricFamily, Metric
from prometheus_client.registry import Collector

from tarvomeldric import AttemptEvent, CircuitState, HealEvent, SelfHealingEngine
from tarvomeldric.clients.replies import Reply

_SECONDS = (0.025, 0.05, 0.1, 0.25, 0.5, 1.0, 2.5, 5.0, 10.0, 20.0, 40.0, 80.0)
_LABELS = 100  # faults that are told apart; a label may have come from a provider
_TEXT = {"content-type": "text/plain; version=0.0.4; charset=utf-8"}


class Metrics:
    """Counts what the clients and the engine's calls come to."""

    def __init__(self, engine: SelfHealingEngine) -> None:
        disable_created_metrics()  # type: ignore[no-untyped-call]
        self._registry = registry = CollectorRegistry()
        self._requests = Counter(
            "tarvomeldric_requests",
            "Requests of clients, by the class of the answer's status.",
            ["route", "status"],
            registry=registry,
        )
        self._seconds = Histogram(
            "tarvomeldric_request_seconds",
            "Seconds from a request's head to the end of its answer.",
            ["route"],
            buckets=_SECONDS,
            registry=registry,
        )
        self._attempts = Counter(
            "tarvomeldric_attempts",
            "Requests to providers: answered, or the fault.",
            ["provider", "outcome"],
            registry=registry,
        )
        self._heals = Counter(
            "tarvomeldric_heals", "Calls that were healed.", ["level"], registry=registry
        )
        self.streams = Gauge(
            "tarvomeldric_streams_under_way",
            "Answers that are being streamed to clients.",
            registry=registry,
        )
        registry.register(_Guards(engine))
        self._faults: set[str] = set()
        engine.observe(self._listen)

    def count(self, route: str, status: int, seconds: float) -> None:
        """Counts a request that is over; status 0 of a client that left before."""
        self._requests.labels(route, f"{status // 100}xx" if status else "left").inc()
        self._seconds.labels(route).observe(seconds)

    def page(self) -> Reply:
        return Reply(200, dict(_TEXT), generate_latest(self._registry))

    def _listen(self, event: Any) -> None:
        if isinstance(event, AttemptEvent):
            outcome = "answered" if event.fault is None else self._known(event.fault)
            self._attempts.labels(event.provider, outcome).inc()
        elif isinstance(event, HealEvent):
            self._heals.labels(event.level).inc()

    def _known(self, fault: str) -> str:
        if len(self._faults) < _LABELS:
            self._faults.add(fault)
        return fault if fault in self._faults else "other"


class _Guards(Collector):
    """The providers' guards, as they are when somebody looks."""

    def __init__(self, engine: SelfHealingEngine) -> None:
        self._engine = engine

    def collect(self) -> Iterator[Metric]:
        breaker = GaugeMetricFamily(
            "tarvomeldric_breaker_state",
            "1 for the state that a provider's breaker is in.",
            labels=["provider", "state"],
        )
        used, slots = (
            GaugeMetricFamily(f"tarvomeldric_{name}", told, labels=["provider"])
            for name, told in (
                ("slots_in_use", "Requests to a provider that are under way."),
                ("slots", "How many there may be."),
            )
        )
        for name, record in self._engine._providers.items():
            for state in CircuitState:
                is_in = record.circuit_breaker._state is state
                breaker.add_metric([name, state.value], float(is_in))
            bulkhead = record.bulkhead.to_dict()
            used.add_metric([name], bulkhead["active"])
            slots.add_metric([name], bulkhead["max"])
        yield from (breaker, used, slots)
