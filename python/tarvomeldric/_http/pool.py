"""Which connection of a pool serves which request.

The library's own pool compares the number of all its connections with the limit of those it keeps
alive: above that limit it closes idle ones all the time. It looks at every connection for every
request that waits, and it may close one that it has just given to another thread. Here only idle
connections count against that limit, and one that was given away is nobody else's.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

Connections = list[Any]


def assign(
    requests: list[Any],
    connections: Connections,
    connect: Callable[[Any], Any],
    most: int,
    most_idle: int,
) -> tuple[Connections, Connections]:
    """Gives waiting requests their connections; returns those that stay in the pool, and those to close.

    Idle connections come first in the pool, the one that has been idle longest at the head; the one
    that was used last serves next, and the head is closed once it has expired.
    """
    idle, busy, closing = _sorted(requests, connections)
    queued = [request for request in requests if request.is_queued()]
    # Looking is a system call: once for each new request is often enough.
    stale = bool(queued) and len(idle) > 1 and idle[0].has_expired() if most_idle else len(idle)
    closing += idle[:stale]
    del idle[:stale]
    for request in queued:
        origin = request.request.url.origin
        connection = _take(idle, origin, closing)
        if connection is None:
            if len(idle) + len(busy) >= most:
                if not idle:
                    break
                closing.append(idle.pop(0))
            connection = connect(origin)
        busy.append(connection)
        request.assign_to_connection(connection)
    surplus = max(0, len(idle) - most_idle)
    return idle[surplus:] + busy, closing + idle[:surplus]


def _sorted(
    requests: list[Any], connections: Connections
) -> tuple[Connections, Connections, Connections]:
    """The idle connections, those that requests hold, and those whose request was given up."""
    held = {id(request.connection) for request in requests}
    idle: Connections = []
    busy: Connections = []
    given_up: Connections = []
    for connection in connections:
        if id(connection) in held:
            busy.append(connection)
        elif connection.is_closed():
            continue
        else:
            (idle if connection.is_idle() else given_up).append(connection)
    return idle, busy, given_up


def _take(idle: Connections, origin: Any, closing: Connections) -> Any:
    for at in reversed(range(len(idle))):
        if idle[at].can_handle_request(origin):
            connection = idle.pop(at)
            if not connection.has_expired():
                return connection
            closing.append(connection)
    return None
