"""Counts of the recoveries that healed calls.

The engine reports every healed call to one :class:`TelemetryCollector`. To send the reports
elsewhere, assign any object with the same ``record_fault`` to the engine's ``_telemetry``.
"""

from __future__ import annotations

import threading

_MAX_NAMES = 1000
_OVERFLOW = "other"

_Table = dict[str, dict[str, float]]


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
