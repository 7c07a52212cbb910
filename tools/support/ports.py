"""Loopback ports for servers that are stopped and started again."""

from __future__ import annotations

import random
import socket

_BELOW_THE_EPHEMERAL = range(20_000, 30_000)


def free_port() -> int:
    """A port that no client is given, so that it stays free while its server is away."""
    while True:
        port = random.SystemRandom().choice(_BELOW_THE_EPHEMERAL)
        try:
            socket.create_server(("127.0.0.1", port)).close()
        except OSError:
            continue
        return port
