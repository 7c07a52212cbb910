"""What the dashboard's tests share: an engine that is made up, a server for it, and its clients."""

from __future__ import annotations

import contextlib
import socket
from collections.abc import Iterator
from types import SimpleNamespace
from typing import Any

from tarvomeldric import serve_dashboard

LOOPBACK = "127.0.0.1"

# What the page cannot do without.
FIGURES = dict.fromkeys(["version", "call_count", "heal_count", "heal_rate"])
for _kind in ("l1_skip", "l2_downgrade", "l3_failover", "l4_learned", "rate_limited"):
    FIGURES[f"{_kind}_count"] = None
FIGURES["bulkhead_rejected_count"] = None


def made_up(stats: Any = FIGURES, metrics: str = "", health: Any = None) -> Any:
    """An engine that says what it is told to say."""
    collector = SimpleNamespace(prometheus_format=lambda: metrics, health_endpoint=lambda: health)
    return SimpleNamespace(get_stats=lambda: stats, get_metrics=lambda: collector)


connections: list[socket.socket] = []


def connect(server: Any, head: bytes = b"") -> socket.socket:
    connection = socket.create_connection((LOOPBACK, server.server_port), timeout=20)
    connections.append(connection)
    connection.sendall(head)
    return connection


def left(connection: socket.socket) -> bytes:
    """What a server still sends before it is rid of a connection."""
    received = b""
    with contextlib.suppress(ConnectionError):
        while piece := connection.recv(1 << 20):
            received += piece
    return received


@contextlib.contextmanager
def served(engine: Any, host: str = LOOPBACK, **options: Any) -> Iterator[Any]:
    server = serve_dashboard(engine, host, 0, **options)
    try:
        yield server
    finally:
        while connections:
            connections.pop().close()
        server.server_close()
